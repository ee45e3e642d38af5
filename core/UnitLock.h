#pragma once

/// Keeps a second daemon off the same unit, where every request would be carried out twice: an
/// exclusive lock on a directory, held until the process ends. No file is made. Every forked
/// child closes its copy at the fork, so that none outlives the daemon with the lock in hand.
namespace UnitLock {

/// False, with a log line, where another process holds the lock. A directory that cannot be
/// locked (it is missing, or its file system has no locks) is logged and no reason not to start:
/// the unit is better served without its storage than not at all.
bool take(const char* directory);

/// Gives the lock back, if it was taken.
void release();

}  // namespace UnitLock

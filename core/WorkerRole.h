#pragma once

#include <sys/types.h>

/// The part that a forked child plays when it goes on running the main loop. What it inherited
/// and its parent also has is its parent's: it drops the remote jobs, the file handles, the
/// thumbnail days and the undispatched messages without a word to anyone, acts on a few commands
/// only, and ends when its parent ends. Otherwise each request would be carried out twice, and two
/// processes would write one stream. (The lock on the unit is closed at the fork itself, by every
/// child: see UnitLock.)
class WorkerRole {
public:
    /// Made in the daemon's own process, before any fork.
    WorkerRole();

    /// To be called once a pass. The first time in a child it drops what is the parent's. False
    /// once the parent has ended, or a replay's client is gone, with a log line; true for ever in
    /// the daemon's own process.
    bool mayGoOn();

    /// Whether a forked child acts on a command.
    static bool actsOn(int command);

private:
    void becomeWorker();

    unsigned _generation;
    pid_t _process;
    pid_t _parent = 0;
};

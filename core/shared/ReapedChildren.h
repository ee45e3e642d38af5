#pragma once

#include <sys/types.h>

/// How this process's children ended. The SIGCHLD handler reaps every child, so whoever waits for
/// a particular one finds its status here instead of with waitpid. A fixed table: the last
/// `kRemembered` children are known.
namespace ReapedChildren {

/// More than one pass of the loop can start: a drain takes in at most 1,024 messages.
inline constexpr unsigned kRemembered = 2048;

/// Reaps every child that has ended, without waiting, and logs each. Signal handlers may call it;
/// errno may change. Returns how many there were.
int reap();

/// How many children have been reaped so far, modulo 2^32. Asked before a child is started, it
/// keeps `find` from taking an earlier child with the same pid for it.
unsigned count();

/// True, and `status` as waitpid gives it, once the child `pid` has been reaped; only those are
/// looked at that came after `since`, a value of `count`.
bool find(pid_t pid, unsigned since, int& status);

}  // namespace ReapedChildren

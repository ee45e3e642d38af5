#pragma once

#include <sys/types.h>

/// The one place that forks and the one that ends a child. A child never touches the bus
/// connection that it inherited (see PubSubInterface::rejoin); what it sends goes out over a
/// connection of its own and is with the system when the send returns.
namespace ForkedChild {

/// Forks between PubSubInterface's enterSafeToFork and leaveSafeToFork.
/// Returns in two processes: the child's pid in the parent, 0 in the child; -1 where it failed.
pid_t start();

/// In a child: lets the daemon's foreground work and acquisition go first, on processor and disk.
void yieldToForeground();

/// Ends a child with _exit: no destructors, no exit handlers.
[[noreturn]] void end(int status = 0);

/// How many forks lie between the first process and this one. It differs before and after a
/// fork in the child, and stays the same in the parent.
unsigned generation();

}  // namespace ForkedChild

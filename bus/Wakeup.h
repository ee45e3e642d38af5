#pragma once

/// The descriptor that ends a wait from outside it: from a signal handler, or from work that has
/// more to do. One a process; a forked child gets its own.
namespace Wakeup {

/// Readable while a wake-up is pending.
int descriptor();
/// Makes a wake-up pending. Signal handlers may call it.
void raise();
/// Takes a pending wake-up back.
void clear();
/// In a forked child: parts from the parent's descriptor.
void renew();

}  // namespace Wakeup

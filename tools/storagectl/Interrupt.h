#pragma once

namespace storagectl {

/// SIGINT and SIGTERM as a flag that every wait looks at, so that work ends in order: the partial
/// file stays and the user is told how to go on. A second signal ends the process at once.
namespace Interrupt {

/// Takes over both signals, and ignores SIGPIPE, which a write to a closed pipe reports instead.
void install();
bool requested();
/// Sets the flag; signal-safe.
void request();
void clear();

}  // namespace Interrupt

}  // namespace storagectl

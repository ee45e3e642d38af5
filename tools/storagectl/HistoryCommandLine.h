#pragma once

#include "tools/storagectl/RecordingCommandLine.h"

namespace storagectl {

/// lookup and replay.
void addHistoryCommands(CLI::App& app, Options& options, Parsed& parsed);
/// Throws a CLI::ParseError for what the daemon could not take: an invalid time would leave it
/// with a process that does nothing.
void takeOverHistory(const Parsed& parsed, Options& options);

}  // namespace storagectl

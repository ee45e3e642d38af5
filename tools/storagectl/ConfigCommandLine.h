#pragma once

#include "tools/storagectl/RecordingCommandLine.h"

namespace storagectl {

/// config backup, list, show, diff and restore.
void addConfigCommands(CLI::App& app, Options& options, Parsed& parsed);
void takeOverConfig(const Parsed& parsed, Options& options);

}  // namespace storagectl

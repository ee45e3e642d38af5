#pragma once

#include "tools/storagectl/RecordingCommandLine.h"

namespace storagectl {

/// listing create, show and diff; mirror; check.
void addMirrorCommands(CLI::App& app, Options& options, Parsed& parsed);
/// Throws a CLI::ParseError for a folder that is none below /root/data, or a root that is no
/// absolute path.
void takeOverMirror(const Parsed& parsed, Options& options);

}  // namespace storagectl

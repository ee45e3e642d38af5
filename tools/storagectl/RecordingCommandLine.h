#pragma once

#include "tools/storagectl/CommandLine.h"

#include <CLI/CLI.hpp>

#include <string>
#include <vector>

namespace storagectl {

/// What CLI11 fills in; it knows no Qt types.
struct Parsed {
    std::vector<std::string> paths;
    std::string from;
    std::string to;
    std::string pattern;
    std::string localTarget;
    std::string zone = "UTC";
    std::vector<std::string> types;
    std::vector<std::string> values;
    std::string fromTime;
    std::string toTime;
    std::string svgTarget;
    std::string job;
    std::string days;
    std::vector<std::string> gauges;
    std::vector<std::string> channels;
    std::string configFolder;
    std::string configArchive;
    std::string folder;
};

CLI::App* addCommand(CLI::App& app, Options& options, Command command, const char* name,
                     const char* help);
/// --bwlimit.
void addRateLimit(CLI::App* sub, Options& options);

/// Throws a CLI::ValidationError for what is no "yyyy-MM-dd".
QDate dayOf(const std::string& text);
/// Whether a job is the name of a folder, and leads to no other.
bool isJobName(const QByteArray& job);

/// data info, data dump, plot and thumbs build.
void addRecordingCommands(CLI::App& app, Options& options, Parsed& parsed);
/// Throws a CLI::ParseError for a zone, a time or a day that is none.
void takeOverRecordings(const Parsed& parsed, Options& options);

}  // namespace storagectl

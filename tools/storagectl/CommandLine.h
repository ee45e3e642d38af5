#pragma once

#include "tools/storagectl/Output.h"

#include <QByteArray>
#include <QList>

#include <optional>

namespace storagectl {

enum class Command { Ping, List, Cat, Get, Put, Remove, Move, Hash, Truncate, Quit, Sniff };

/// What the command line asks for.
struct Options {
    Command command = Command::Ping;
    Output::Style style;
    int timeoutSeconds = 10;
    int retries = 5;
    /// The files, in order; for Move and Put the last one is the target.
    QList<QByteArray> paths;
    bool longListing = false;
    bool humanSizes = false;
    QByteArray pattern;      ///< ls: names to list in each directory; empty lists by path
    QByteArray localTarget;  ///< get: a file, or a directory; empty is the current one
    qint64 size = 0;         ///< truncate
    int count = 0;           ///< ping and sniff; 0 is without end
};

/// Reads the command line. An exit code where there is nothing more to do: help was printed, or
/// the usage was wrong and said so.
std::optional<ExitCode> parseCommandLine(int argc, const char* const* argv, Options& options);

}  // namespace storagectl

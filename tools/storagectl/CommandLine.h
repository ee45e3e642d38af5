#pragma once

#include "tools/storagectl/ConfigOptions.h"
#include "tools/storagectl/HistoryOptions.h"
#include "tools/storagectl/MirrorOptions.h"
#include "tools/storagectl/Output.h"
#include "tools/storagectl/RecordSelection.h"

#include <QByteArray>
#include <QDate>
#include <QList>
#include <QTimeZone>

#include <optional>

namespace storagectl {

enum class Command {
    Ping,
    List,
    Cat,
    Get,
    Put,
    Remove,
    Move,
    Hash,
    Truncate,
    Quit,
    Sniff,
    DataInfo,
    DataDump,
    ThumbsBuild,
    Plot,
    Lookup,
    Replay,
    ConfigBackup,
    ConfigList,
    ConfigShow,
    ConfigDiff,
    ConfigRestore,
    ListingCreate,
    ListingShow,
    ListingDiff,
    Mirror,
    Check
};

/// What data and plot make of recordings.
struct RecordingOptions {
    bool local = false;  ///< every file is local, whatever its path
    QTimeZone zone = QTimeZone::utc();
    RecordSelection selection;
    bool raw = false;
    bool csv = false;
    QByteArray svgTarget;
    int width = 0;  ///< characters; 0 is the terminal's
};

/// What thumbs build asks for; the days in order.
struct ThumbsOptions {
    QByteArray job;
    QDate from;
    QDate to;
    int newsSeconds = 600;  ///< without a word of the daemon, until the rest counts as unfinished
};

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
    QByteArray pattern;       ///< ls: names to list in each directory; empty lists by path
    bool recursive = false;   ///< get: directories with all that is below them
    QByteArray localTarget;   ///< get: a file, or a directory; empty is the current one
    qint64 size = 0;          ///< truncate
    qint64 bytesASecond = 0;  ///< get and mirror; 0 is without a limit
    int count = 0;            ///< ping and sniff; 0 is without end
    RecordingOptions recordings;
    ThumbsOptions thumbs;
    LookupOptions lookup;
    ReplayOptions replay;
    ConfigOptions config;
    MirrorOptions mirror;

    /// Whether a path is the unit's: always, but for recordings, of which local ones are read too.
    bool isOnUnit(const QByteArray& path) const;
    /// Whether there is anything to ask the daemon.
    bool needsUnit() const;
};

/// Reads the command line. An exit code where there is nothing more to do: help was printed, or
/// the usage was wrong and said so.
std::optional<ExitCode> parseCommandLine(int argc, const char* const* argv, Options& options);

}  // namespace storagectl

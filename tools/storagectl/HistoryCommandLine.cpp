#include "tools/storagectl/HistoryCommandLine.h"

#include "tools/storagectl/FileService.h"
#include "tools/storagectl/TerminalPlot.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace storagectl {

namespace {

constexpr qint64 kHalfHourSeconds = 1800;
/// The unit takes 60 s without an acknowledgement for a client that is gone.
constexpr double kSlowestPace = 0.02;
constexpr double kFastestPace = 10'000;
/// The daemon counts seconds in 32 bits; both years are whole in them.
constexpr int kFirstYear = 1970;
constexpr int kLastYear = 2105;
constexpr std::size_t kDayCharacters = 10;

/// The names travel in lists with separators, and become folders of a path.
void checkName(const QByteArray& name, const char* separators) {
    const auto isSeparator = [separators](char letter) {
        return std::strchr(separators, letter) != nullptr;
    };
    if (!isJobName(name) || !checkWireName(name).isDone() ||
        std::any_of(name.begin(), name.end(), isSeparator)) {
        throw CLI::ValidationError(name.toStdString(), "is no name of a gauge's folder");
    }
}

void checkYear(QDate day) {
    if (day.year() < kFirstYear || day.year() > kLastYear) {
        throw CLI::ValidationError("--from", "lies in the years 1970 to 2105");
    }
}

void takeOverLookup(const Parsed& parsed, const RecordSelection& selection, LookupOptions& lookup) {
    for (const std::string& gauge : parsed.gauges) {
        lookup.gauges.append(QByteArray::fromStdString(gauge));
        checkName(lookup.gauges.last(), "\n");
    }
    lookup.job = QByteArray::fromStdString(parsed.job);
    if (!lookup.job.isEmpty() && !(isJobName(lookup.job) && checkWireName(lookup.job).isDone())) {
        throw CLI::ValidationError(parsed.job, "is no job: it is the name of a folder");
    }
    checkYear(dayOf(parsed.fromTime.substr(0, kDayCharacters)));
    lookup.from = selection.from;
    lookup.to = parsed.toTime.empty() ? lookup.from + kHalfHourSeconds - 1 : selection.to;
    if (lookup.to > std::numeric_limits<quint32>::max()) {
        throw CLI::ValidationError("--to", "lies after the year 2105");
    }
}

/// "NAME=N"; neither a name nor a number twice, or blocks could not be told apart.
void takeOverChannel(const std::string& given, QMap<QByteArray, int>& channels) {
    const QByteArray pair = QByteArray::fromStdString(given);
    const qsizetype equals = pair.indexOf('=');
    bool isNumber = false;
    const int number = pair.mid(equals + 1).toInt(&isNumber);
    if (equals < 0 || !isNumber || number < 0) {
        throw CLI::ValidationError(given, "is no channel; one is written as flow-1=3");
    }
    const QByteArray name = pair.left(equals);
    checkName(name, "|");
    if (channels.contains(name) || channels.values().contains(number)) {
        throw CLI::ValidationError(given, "has a name or a number of another channel");
    }
    channels.insert(name, number);
}

void takeOverReplay(const Parsed& parsed, ReplayOptions& replay) {
    replay.from = dayOf(parsed.fromTime);
    checkYear(replay.from);
    for (const std::string& channel : parsed.channels) {
        takeOverChannel(channel, replay.channels);
    }
}

void addLookup(CLI::App& app, Options& options, Parsed& parsed) {
    CLI::App* lookup = addCommand(
        app, options, Command::Lookup, "lookup",
        "What gauges recorded: the first sample of each minute, asked for half hour by half hour.\n"
        "All times are UTC. A 0 may be a sample of 0 or no sample: the unit does not tell them\n"
        "apart");
    lookup->add_option("GAUGE", parsed.gauges, "The gauge's folder, for example flow-1")
        ->required();
    lookup->add_option("--from", parsed.fromTime, "First time: YYYY-MM-DD or YYYY-MM-DDTHH:MM:SS")
        ->required();
    lookup->add_option("--to", parsed.toTime,
                       "Last time: a day to its end, or YYYY-MM-DDTHH:MM:SS (default: 30 minutes)");
    lookup->add_option("--job", parsed.job,
                       "The job's folder below /root/data and /mmc (default: none, the days lie\n"
                       "right below them)");
    lookup->add_flag("--second", options.lookup.second, "The second value of each record");
    CLI::Option* csv = lookup->add_flag("--csv", options.lookup.csv, "CSV, a line a value");
    lookup->add_flag("--plot", options.lookup.plot, "Draw on the terminal; zeros are left out")
        ->excludes(csv);
    lookup->add_option("--width", options.lookup.width, "Characters (default: the terminal's)")
        ->check(CLI::Range(TerminalPlot::kNarrowest, TerminalPlot::kWidest));
}

void addReplay(CLI::App& app, Options& options, Parsed& parsed) {
    CLI::App* replay = addCommand(
        app, options, Command::Replay, "replay",
        "Have the unit send recorded days again, block by block, and show the blocks.\n"
        "It replays the days right below /root/data and /mmc, of no job. A block carries its last\n"
        "value only. One replay a unit at a time: all would hear each other's acknowledgements.\n"
        "On a terminal Enter holds the next block back, and lets it come. The unit ends a replay\n"
        "that is held for 60 s");
    replay
        ->add_option("--from", parsed.fromTime,
                     "First day, YYYY-MM-DD, in the unit's local time, to the last day recorded")
        ->required();
    replay
        ->add_option("--channel", parsed.channels,
                     "NAME=N: replay this gauge or gauge card under this number. Without any,\n"
                     "the system's values alone")
        ->allow_extra_args(false);
    CLI::Option* step = replay->add_flag("--step", options.replay.step,
                                         "Enter, or a line of standard input, for each block");
    replay->add_option("--pace", options.replay.pace, "Blocks a second (default: no limit)")
        ->check(CLI::Range(kSlowestPace, kFastestPace))
        ->excludes(step);
}

}  // namespace

void addHistoryCommands(CLI::App& app, Options& options, Parsed& parsed) {
    addLookup(app, options, parsed);
    addReplay(app, options, parsed);
}

void takeOverHistory(const Parsed& parsed, Options& options) {
    if (options.command == Command::Lookup) {
        takeOverLookup(parsed, options.recordings.selection, options.lookup);
    } else if (options.command == Command::Replay) {
        takeOverReplay(parsed, options.replay);
    }
}

}  // namespace storagectl

#include "tools/storagectl/RecordingCommandLine.h"

#include "tools/storagectl/TerminalPlot.h"

#include <QTime>

namespace storagectl {

namespace {

constexpr int kMostDays = 3660;

constexpr char kFileHelp[] =
    "Recording (.gdf) or thumbnail file (.gdt): on the unit where the path lies below\n"
    "/root/data, /root/config or /mmc, else local";

CLI::App* addGroup(CLI::App& app, const char* name, const char* help) {
    CLI::App* group = app.add_subcommand(name, help);
    group->require_subcommand(1);
    return group;
}

void addZone(CLI::App* sub, Options& options, Parsed& parsed) {
    sub->add_option("--tz", parsed.zone, "Time zone of all times, an IANA name")
        ->capture_default_str();
    sub->add_flag("--local", options.recordings.local, "Every file is local, whatever its path");
}

void addSelection(CLI::App* sub, Parsed& parsed) {
    sub->add_option("--type", parsed.types, "Only records of this type, by code or name")
        ->allow_extra_args(false);
    sub->add_option("--value", parsed.values, "Only this value, by name, or by RECORD.VALUE")
        ->allow_extra_args(false);
    sub->add_option("--from", parsed.fromTime, "First time: YYYY-MM-DD or YYYY-MM-DDTHH:MM:SS");
    sub->add_option("--to", parsed.toTime, "Last time: a day to its end, or YYYY-MM-DDTHH:MM:SS");
}

qint64 timeOf(const std::string& given, const QTimeZone& zone, bool isEnd) {
    const QString text = QString::fromStdString(given);
    if (!text.contains('T')) {
        const QDate day = dayOf(given);
        return isEnd ? day.addDays(1).startOfDay(zone).toSecsSinceEpoch() - 1
                     : day.startOfDay(zone).toSecsSinceEpoch();
    }
    const QDate day = dayOf(text.section('T', 0, 0).toStdString());
    const QString timeText = text.section('T', 1);
    const QTime time = QTime::fromString(timeText, timeText.size() > 5 ? "hh:mm:ss" : "hh:mm");
    if (!time.isValid()) {
        throw CLI::ValidationError(given, "is no time; one is written as 2024-05-01T13:00:00");
    }
    return QDateTime(day, time, zone).toSecsSinceEpoch();
}

QStringList textsOf(const std::vector<std::string>& words) {
    QStringList texts;
    for (const std::string& word : words) {
        texts.append(QString::fromStdString(word));
    }
    return texts;
}

void takeOverDays(const Parsed& parsed, ThumbsOptions& thumbs) {
    const std::size_t dots = parsed.days.find("..");
    thumbs.job = QByteArray::fromStdString(parsed.job);
    thumbs.from = dayOf(parsed.days.substr(0, dots));
    thumbs.to = dots == std::string::npos ? thumbs.from : dayOf(parsed.days.substr(dots + 2));
    if (thumbs.to < thumbs.from || thumbs.from.daysTo(thumbs.to) >= kMostDays) {
        throw CLI::ValidationError(parsed.days, "is no row of 1 to 3660 days");
    }
    if (!isJobName(thumbs.job)) {
        throw CLI::ValidationError(parsed.job, "is no job: it is the name of a folder");
    }
}

}  // namespace

QDate dayOf(const std::string& text) {
    const QDate day = QDate::fromString(QString::fromStdString(text), "yyyy-MM-dd");
    if (!day.isValid()) {
        throw CLI::ValidationError(text, "is no day; one is written as 2024-05-01");
    }
    return day;
}

bool isJobName(const QByteArray& job) {
    return !job.isEmpty() && !job.contains('/') && job != "." && job != "..";
}

void addRecordingCommands(CLI::App& app, Options& options, Parsed& parsed) {
    CLI::App* data = addGroup(app, "data", "What is in recordings and thumbnail files");
    CLI::App* info = addCommand(*data, options, Command::DataInfo, "info",
                                "Header, record types, spans, gaps, clock jumps, damage");
    info->add_option("FILE", parsed.paths, kFileHelp)->required();
    addZone(info, options, parsed);
    CLI::App* dump = addCommand(*data, options, Command::DataDump, "dump",
                                "The records: CSV, or with --json one object a line");
    dump->add_option("FILE", parsed.paths, kFileHelp)->required()->expected(1);
    addZone(dump, options, parsed);
    addSelection(dump, parsed);

    CLI::App* plot = addCommand(
        app, options, Command::Plot, "plot",
        "Draw recordings and thumbnail files on the terminal.\n"
        "A thumbnail holds the first sample of each 15 minutes, neither mean nor extreme");
    plot->add_option("FILE", parsed.paths, kFileHelp)->required();
    addZone(plot, options, parsed);
    addSelection(plot, parsed);
    plot->add_flag("--raw", options.recordings.raw,
                   "FILE names thumbnails: draw what the days of their months recorded, from\n"
                   "lowest to highest");
    CLI::Option* svg = plot->add_option("--svg", parsed.svgTarget, "Write this file instead");
    plot->add_flag("--csv", options.recordings.csv, "Print the numbers instead")->excludes(svg);
    plot->add_option("--width", options.recordings.width, "Characters (default: the terminal's)")
        ->check(CLI::Range(TerminalPlot::kNarrowest, TerminalPlot::kWidest));

    CLI::App* thumbs = addGroup(app, "thumbs", "Thumbnails of the days recorded");
    CLI::App* build =
        addCommand(*thumbs, options, Command::ThumbsBuild, "build",
                   "Ask the daemon to build them, and wait until it has gone through every day");
    build->add_option("JOB", parsed.job, "The job's folder below /mmc and /root/data")->required();
    build->add_option("DATE..DATE", parsed.days, "First and last day, or one day")->required();
    build
        ->add_option("--wait", options.thumbs.newsSeconds,
                     "Seconds without news of any day until the rest counts as unfinished")
        ->check(CLI::Range(1, 86'400))
        ->capture_default_str();
}

void takeOverRecordings(const Parsed& parsed, Options& options) {
    RecordingOptions& recordings = options.recordings;
    const QByteArray zone = QByteArray::fromStdString(parsed.zone);
    if (zone != "UTC") {
        if (!QTimeZone::isTimeZoneIdAvailable(zone)) {
            throw CLI::ValidationError("--tz", parsed.zone + " is no time zone known here");
        }
        recordings.zone = QTimeZone(zone);
    }
    RecordSelection& selection = recordings.selection;
    selection.types = textsOf(parsed.types);
    selection.values = textsOf(parsed.values);
    if (!parsed.fromTime.empty()) {
        selection.from = timeOf(parsed.fromTime, recordings.zone, false);
    }
    if (!parsed.toTime.empty()) {
        selection.to = timeOf(parsed.toTime, recordings.zone, true);
    }
    if (selection.to < selection.from) {
        throw CLI::ValidationError("--to", "lies before --from");
    }
    recordings.svgTarget = QByteArray::fromStdString(parsed.svgTarget);
    if (options.command == Command::ThumbsBuild) {
        takeOverDays(parsed, options.thumbs);
    }
}

}  // namespace storagectl

#include "tools/storagectl/Commands.h"

#include "bus/DebugText.h"
#include "tools/storagectl/Interrupt.h"

namespace storagectl {

namespace {

Output* g_logOutput = nullptr;
QString g_lastLogLine;

void takeLogLine(const char* line, std::size_t length) {
    g_lastLogLine = QString::fromUtf8(line, static_cast<qsizetype>(length));
    g_logOutput->detail(g_lastLogLine);
}

/// The bus library's log as talk of the tool, while it lives.
class LogAsTalk {
public:
    explicit LogAsTalk(Output& output) {
        g_logOutput = &output;
        DebugText::setSink(takeLogLine);
    }
    ~LogAsTalk() { DebugText::setSink(nullptr); }
    LogAsTalk(const LogAsTalk&) = delete;
    LogAsTalk& operator=(const LogAsTalk&) = delete;
};

ExitCode dispatch(Context& context) {
    switch (context.options.command) {
        case Command::Ping:
            return ping(context);
        case Command::List:
            return list(context);
        case Command::Cat:
            return cat(context);
        case Command::Get:
            return get(context);
        case Command::Put:
            return put(context);
        case Command::Remove:
            return removeFiles(context);
        case Command::Move:
            return moveFile(context);
        case Command::Hash:
            return hash(context);
        case Command::Truncate:
            return truncateFile(context);
        case Command::Quit:
            return quit(context);
        case Command::DataInfo:
            return dataInfo(context);
        case Command::DataDump:
            return dataDump(context);
        case Command::Plot:
            return plot(context);
        case Command::ThumbsBuild:
            return thumbsBuild(context);
        case Command::Lookup:
            return lookup(context);
        case Command::Replay:
            return replay(context);
        case Command::ConfigBackup:
            return configBackup(context);
        case Command::ConfigList:
            return configList(context);
        case Command::ConfigShow:
            return configShow(context);
        case Command::ConfigDiff:
            return configDiff(context);
        case Command::ConfigRestore:
            return configRestore(context);
        case Command::ListingCreate:
            return listingCreate(context);
        case Command::ListingShow:
            return listingShow(context);
        case Command::ListingDiff:
            return listingDiff(context);
        case Command::Mirror:
            return mirror(context);
        case Command::Check:
            return check(context);
        case Command::Sniff:
            break;
    }
    return ExitCode::Usage;
}

/// The last line of the log tells more: which setting, or why the broker is not reached.
ExitCode couldNotJoin(Output& output, Outcome outcome) {
    outcome.message += g_lastLogLine.isEmpty() ? QString() : " (" + g_lastLogLine + ')';
    output.error(outcome);
    return outcome.code;
}

ExitCode runSniff(PubSubInterface& bus, const Options& options, Output& output) {
    const Outcome outcome = sniff(bus, options, output);
    return outcome.message.isEmpty() ? outcome.code : couldNotJoin(output, outcome);
}

ExitCode runClient(PubSubInterface& bus, const Options& options, Output& output) {
    Connection connection(bus, options.timeoutSeconds * 1000);
    const Outcome joined = options.needsUnit() ? connection.join() : Outcome::done();
    if (!joined.isDone()) {
        return couldNotJoin(output, joined);
    }
    FileService files(connection);
    Context context{options, output, files};
    return dispatch(context);
}

}  // namespace

ExitCode runCommand(PubSubInterface& bus, const Options& options, Output& output) {
    const LogAsTalk logAsTalk(output);
    const bool isSniff = options.command == Command::Sniff;
    const ExitCode code =
        isSniff ? runSniff(bus, options, output) : runClient(bus, options, output);
    output.flush();
    const Outcome written = output.dataOutcome();
    if (!written.isDone()) {
        output.error(written);
    }
    return written.isDone() ? code : written.code;
}

ExitCode forEachFile(Context& context, const std::function<Outcome(const QByteArray&)>& work) {
    Tally tally;
    for (const QByteArray& path : context.options.paths) {
        Outcome outcome = context.options.isOnUnit(path) ? checkWireName(path) : Outcome::done();
        if (outcome.isDone()) {
            outcome = work(path);
        }
        if (context.output.isClosed()) {
            return Interrupt::requested() ? ExitCode::Interrupted : ExitCode::Done;
        }
        tally.add(outcome);
        if (!outcome.isDone()) {
            context.output.error(outcome, text(path));
        }
        if (outcome.isHopeless()) {
            break;
        }
    }
    return tally.code();
}

}  // namespace storagectl

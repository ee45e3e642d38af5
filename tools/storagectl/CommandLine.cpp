#include "tools/storagectl/CommandLine.h"

#include "core/shared/StoragePaths.h"
#include "tools/storagectl/ConfigCommandLine.h"
#include "tools/storagectl/HistoryCommandLine.h"
#include "tools/storagectl/MirrorCommandLine.h"
#include "tools/storagectl/RecordingCommandLine.h"

#include <QJsonDocument>

#include <algorithm>
#include <cstring>
#include <iostream>
#include <limits>

namespace storagectl {

namespace {

constexpr char kFooter[] =
    "Exit codes: 0 done, 1 failed, 2 usage, 3 partly, 4 not found, 5 integrity, 6 local file,\n"
    "7 refused as unsafe, 10 no broker, 11 no daemon, 78 bus settings unusable, 130 interrupted.\n"
    "The broker is taken from SCADA_BUS_URL (default mqtt://127.0.0.1:1883), the prefix of the\n"
    "unit's tokens from SCADA_BUS_PREFIX.";

CLI::App* addFilesCommand(CLI::App& app, Options& options, Parsed& parsed, Command command,
                          const char* name, const char* help) {
    CLI::App* sub = addCommand(app, options, command, name, help);
    sub->add_option("FILE", parsed.paths, "Path on the unit")->required();
    return sub;
}

void addGlobalOptions(CLI::App& app, Options& options) {
    app.set_help_flag("--help", "Print this help and end");
    app.add_flag("--json", options.style.json, "One JSON object a line, errors too");
    app.add_flag("-q,--quiet", options.style.quiet, "Nothing but data and errors");
    app.add_flag("-v,--verbose", options.style.verbose, "Tell more, the bus library's log too");
    app.add_option("--timeout", options.timeoutSeconds,
                   "Seconds without any progress until an answer counts as lost")
        ->check(CLI::Range(1, 3600))
        ->capture_default_str();
    app.add_option("--retries", options.retries,
                   "get, put, cat: attempts after a break that may bring no progress")
        ->check(CLI::Range(0, 1'000'000))
        ->capture_default_str();
    // Asked for after the parse: CLI11 would report an unknown command as a missing one.
    app.require_subcommand(0, 1);
    app.fallthrough();
    app.failure_message([](const CLI::App*, const CLI::Error& fault) {
        return std::string("storagectl: ") + fault.what() +
               "\nRun storagectl --help, or storagectl COMMAND --help.\n";
    });
    app.footer(kFooter);
}

void addReadingCommands(CLI::App& app, Options& options, Parsed& parsed) {
    CLI::App* list = addFilesCommand(app, options, parsed, Command::List, "ls",
                                     "List directories, files, or names that a wildcard matches");
    list->add_flag("-l", options.longListing, "Type, size in bytes, modification time, name");
    list->add_flag("-h", options.humanSizes, "With -l: sizes for people");
    list->add_option("-p,--pattern", parsed.pattern,
                     "Only these names of each directory (*, ?, [...]); FILE is taken literally");
    addFilesCommand(app, options, parsed, Command::Cat, "cat", "Write files to standard output");
    addFilesCommand(app, options, parsed, Command::Hash, "hash",
                    "MD5 digests, in the format of md5sum");
    CLI::App* get = addFilesCommand(
        app, options, parsed, Command::Get, "get",
        "Fetch files. NAME.part is kept after a break, and the same command goes on from it");
    get->add_option("-o,--output", parsed.localTarget,
                    "Local file, or an existing directory (default: the current one)");
    get->add_flag(
        "-r,--recursive", options.recursive,
        "Directories too, with all that is below them; -o is the directory that they go to");
    addRateLimit(get, options);
}

void addChangingCommands(CLI::App& app, Options& options, Parsed& parsed) {
    CLI::App* put = addCommand(
        app, options, Command::Put, "put",
        "Send a file. REMOTE.part is kept after a break, and the same command goes on from it.\n"
        "The unit sets the modification time itself: its protocol has no way to give one");
    put->add_option("LOCAL", parsed.from, "Local file")->required();
    put->add_option("REMOTE", parsed.to, "Path on the unit, or a directory there")->required();
    CLI::App* move = addCommand(app, options, Command::Move, "mv",
                                "Move a file onto a name, replacing what is there");
    move->add_option("FROM", parsed.from, "Path on the unit")->required();
    move->add_option("TO", parsed.to, "Path on the unit")->required();
    addFilesCommand(app, options, parsed, Command::Remove, "rm", "Delete files");
    CLI::App* truncate =
        addCommand(app, options, Command::Truncate, "truncate", "Cut or extend a file to a size");
    truncate->add_option("FILE", parsed.from, "Path on the unit")->required();
    truncate->add_option("SIZE", options.size, "Bytes")
        ->required()
        ->check(CLI::Range(qint64{0}, std::numeric_limits<qint64>::max()));
}

void addBusCommands(CLI::App& app, Options& options) {
    CLI::App* ping = addCommand(app, options, Command::Ping, "ping",
                                "Measure round trips through the file service");
    ping->add_option("-c,--count", options.count, "How many, one a second (default: 1)")
        ->check(CLI::Range(1, 1'000'000'000));
    addCommand(app, options, Command::Quit, "quit", "Ask the daemon to end in order");
    CLI::App* sniff = addCommand(app, options, Command::Sniff, "sniff",
                                 "Print every message on the bus, decoded");
    sniff->add_option("-n,--count", options.count, "End after so many messages")
        ->check(CLI::Range(1, 1'000'000'000));
}

/// CLI11 leaves several positional names of one command in separate strings.
void takeOver(const Parsed& parsed, Options& options) {
    for (const std::string& path : parsed.paths) {
        options.paths.append(QByteArray::fromStdString(path));
    }
    const bool hasTarget = options.command == Command::Put || options.command == Command::Move;
    if (hasTarget || options.command == Command::Truncate) {
        options.paths.append(QByteArray::fromStdString(parsed.from));
    }
    if (hasTarget) {
        options.paths.append(QByteArray::fromStdString(parsed.to));
    }
    options.pattern = QByteArray::fromStdString(parsed.pattern);
    options.localTarget = QByteArray::fromStdString(parsed.localTarget);
}

bool asksForJson(int argc, const char* const* argv) {
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--json") == 0) {
            return true;
        }
    }
    return false;
}

}  // namespace

CLI::App* addCommand(CLI::App& app, Options& options, Command command, const char* name,
                     const char* help) {
    CLI::App* sub = app.add_subcommand(name, help);
    sub->callback([&options, command] { options.command = command; });
    return sub;
}

void addRateLimit(CLI::App* sub, Options& options) {
    sub->add_option("--bwlimit", options.bytesASecond,
                    "Bytes a second on the wire at most; K and M are 1024 and 1048576")
        ->transform(CLI::AsSizeValue(false))
        // Slower, and the unit ends a download between two messages.
        ->check(CLI::Range(qint64{64}, qint64{1} << 40));
}

bool Options::isOnUnit(const QByteArray& path) const {
    const bool readsRecordings =
        command == Command::DataInfo || command == Command::DataDump || command == Command::Plot;
    return !readsRecordings ||
           (!recordings.local && StoragePaths::isAllowed(QString::fromUtf8(path)));
}

bool Options::needsUnit() const {
    const auto isRemote = [this](const QByteArray& path) { return isOnUnit(path); };
    return paths.isEmpty() || std::any_of(paths.begin(), paths.end(), isRemote);
}

std::optional<ExitCode> parseCommandLine(int argc, const char* const* argv, Options& options) {
    try {
        CLI::App app{"Remote client of the unit's storage daemon", "storagectl"};
        Parsed parsed;
        addGlobalOptions(app, options);
        addReadingCommands(app, options, parsed);
        addChangingCommands(app, options, parsed);
        addBusCommands(app, options);
        addRecordingCommands(app, options, parsed);
        addHistoryCommands(app, options, parsed);
        addConfigCommands(app, options, parsed);
        addMirrorCommands(app, options, parsed);
        try {
            app.parse(argc, argv);
            if (app.get_subcommands().empty()) {
                throw CLI::RequiredError("A command");
            }
            takeOver(parsed, options);
            takeOverRecordings(parsed, options);
            takeOverHistory(parsed, options);
            takeOverConfig(parsed, options);
            takeOverMirror(parsed, options);
        } catch (const CLI::ParseError& fault) {
            const bool isHelp = fault.get_exit_code() == 0;
            if (!isHelp && asksForJson(argc, argv)) {
                const QJsonObject error{{"error", fault.what()},
                                        {"exitCode", static_cast<int>(ExitCode::Usage)}};
                std::cout << QJsonDocument(error).toJson(QJsonDocument::Compact).constData()
                          << '\n';
                return ExitCode::Usage;
            }
            app.exit(fault, std::cout, std::cerr);
            return isHelp ? ExitCode::Done : ExitCode::Usage;
        }
    } catch (const CLI::Error& fault) {
        std::cerr << "storagectl: " << fault.what() << '\n';
        return ExitCode::Usage;
    }
    return std::nullopt;
}

}  // namespace storagectl

#include "tools/storagectl/MirrorCommandLine.h"

#include "core/shared/StoragePaths.h"
#include "tools/storagectl/FileService.h"

#include <algorithm>

namespace storagectl {

namespace {

constexpr char kFolderHelp[] = "The folder below /root/data that the listing is put in: one name";

bool isListingCommand(Command command) {
    return command == Command::ListingCreate || command == Command::ListingShow ||
           command == Command::ListingDiff;
}

bool isTreeCommand(Command command) {
    return command == Command::Mirror || command == Command::Check;
}

void checkFolder(const QByteArray& folder) {
    if (!isJobName(folder) || !checkWireName(folder).isDone()) {
        throw CLI::ValidationError(folder.toStdString(),
                                   "is no folder's name; the listing is put in one right below "
                                   "/root/data");
    }
}

/// Without trailing and double slashes, which would give a listing another name.
QByteArray cleanRoot(const std::string& given) {
    const QByteArray path = QByteArray::fromStdString(given);
    QByteArrayList names = path.split('/');
    names.removeAll(QByteArray());
    const bool leadsElsewhere = names.contains(".") || names.contains("..");
    if (!path.startsWith('/') || leadsElsewhere || path.contains('\n') ||
        !checkWireName(path).isDone()) {
        throw CLI::ValidationError(given,
                                   "is no directory of the unit: an absolute path without . and "
                                   "..");
    }
    return '/' + names.join('/');
}

/// The first name below /root/data, if the root lies there.
QByteArray folderOf(const QByteArray& root) {
    const QByteArray start = QByteArray(StoragePaths::kDataRoot) + '/';
    if (!root.startsWith(start)) {
        return {};
    }
    return root.mid(start.size()).split('/').first();
}

void addWait(CLI::App* sub, Options& options) {
    sub->add_option("--wait", options.mirror.newsSeconds,
                    "Seconds without a word of the listing until it counts as lost; those of\n"
                    "roots below /root bring none before their end")
        ->check(CLI::Range(1, 86'400))
        ->capture_default_str();
}

CLI::App* addListingCommand(CLI::App& group, Options& options, Parsed& parsed, Command command,
                            const char* name, const char* help) {
    CLI::App* sub = addCommand(group, options, command, name, help);
    sub->add_option("FOLDER", parsed.folder, kFolderHelp)->required();
    sub->add_option("ROOT", parsed.from, "The directory on the unit that is listed")->required();
    return sub;
}

void addListing(CLI::App& app, Options& options, Parsed& parsed) {
    CLI::App* group = app.add_subcommand("listing", "Listings of whole trees, made by the unit");
    group->require_subcommand(1);
    CLI::App* create = addListingCommand(*group, options, parsed, Command::ListingCreate, "create",
                                         "Have the unit write one, and say where and how much");
    addWait(create, options);
    CLI::App* show =
        addListingCommand(*group, options, parsed, Command::ListingShow, "show",
                          "Print the one that is there, as it is: size,modified,path in Latin-1");
    show->add_flag("-l", options.longListing, "Size in bytes, modification time, path, in UTF-8");
    show->add_flag("-h", options.humanSizes, "With -l: sizes for people");
    CLI::App* diff = addListingCommand(
        *group, options, parsed, Command::ListingDiff, "diff",
        "Have the unit write a new one, and show what changed since the one before.\n"
        "Ends with 0 where nothing did, with 1 where something did");
    diff->add_option("OTHER", parsed.to,
                     "A local file, saved with show: compare with this instead");
    addWait(diff, options);
}

CLI::App* addTreeCommand(CLI::App& app, Options& options, Parsed& parsed, Command command,
                         const char* name, const char* help) {
    CLI::App* sub = addCommand(app, options, command, name, help);
    sub->add_option("REMOTE", parsed.from, "Directory on the unit")->required();
    sub->add_option("LOCAL", parsed.to, "Local directory")->required();
    sub->add_option("--folder", parsed.folder,
                    std::string(kFolderHelp) +
                        "\n(default: the first one of REMOTE, if that lies below /root/data)");
    addWait(sub, options);
    return sub;
}

}  // namespace

void addMirrorCommands(CLI::App& app, Options& options, Parsed& parsed) {
    addListing(app, options, parsed);
    CLI::App* mirror = addTreeCommand(
        app, options, parsed, Command::Mirror, "mirror",
        "Make a local directory have what one of the unit has: only what changed is fetched.\n"
        "After a break the same command goes on");
    mirror->add_flag("-n,--dry-run", options.mirror.dryRun,
                     "Show what it would cost, change nothing");
    mirror->add_flag("--delete", options.mirror.removesGone,
                     "Remove local files that the unit does not have");
    addRateLimit(mirror, options);
    CLI::App* check =
        addTreeCommand(app, options, parsed, Command::Check, "check",
                       "Compare a directory of the unit with a local one.\n"
                       "= same, + only on the unit, - only here, * differs, ! not comparable.\n"
                       "Ends with 0 where all is the same, with 1 where something differs");
    check->add_flag("--hash", options.mirror.comparesContents,
                    "Compare files of the same size by their MD5, not by their times");
    check->add_flag("--all", options.mirror.showsSame, "Show what is the same too");
}

void takeOverMirror(const Parsed& parsed, Options& options) {
    const bool isTree = isTreeCommand(options.command);
    if (!isTree && !isListingCommand(options.command)) {
        return;
    }
    MirrorOptions& mirror = options.mirror;
    mirror.root = cleanRoot(parsed.from);
    mirror.local = QByteArray::fromStdString(parsed.to);
    if (isTree && mirror.local.isEmpty()) {
        throw CLI::ValidationError("LOCAL", "is empty");
    }
    mirror.folder = QByteArray::fromStdString(parsed.folder);
    if (isTree && mirror.folder.isEmpty()) {
        mirror.folder = folderOf(mirror.root);
        return;
    }
    checkFolder(mirror.folder);
}

}  // namespace storagectl

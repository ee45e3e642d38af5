#include "tools/storagectl/ConfigCommandLine.h"

namespace storagectl {

namespace {

void addBackup(CLI::App& config, Options& options, Parsed& parsed) {
    CLI::App* backup = addCommand(
        config, options, Command::ConfigBackup, "backup",
        "Have the unit pack a folder of /root/config, and the settings beside it, into an archive");
    backup->add_option("FOLDER", parsed.configFolder, "Its name in /root/config")->required();
    backup->add_option("NAME", parsed.configArchive,
                       "The archive's name in /root/config, with the ending .configBackup\n"
                       "(default: FOLDER-YYYYMMDD-HHMMSS.configBackup)");
    backup->add_flag("--replace", options.config.replace, "Also where there is one of that name");
    backup->add_option("-o,--output", parsed.localTarget,
                       "Fetch it too: a local file, or an existing directory");
}

void addReading(CLI::App& config, Options& options, Parsed& parsed) {
    addCommand(config, options, Command::ConfigList, "list", "List the archives on the unit");
    CLI::App* show = addCommand(config, options, Command::ConfigShow, "show",
                                "List what an archive holds, and what of it a restore brings back");
    show->add_option("NAME", parsed.configArchive, "The archive's name in /root/config")
        ->required();
    CLI::App* diff =
        addCommand(config, options, Command::ConfigDiff, "diff",
                   "Compare the unit's configuration with an archive, by size and MD5:\n"
                   "+ only on the unit, - only in the archive, * differs, ! cannot be compared.\n"
                   "Ends with 0 where all is the same, with 1 where something differs, with 3 "
                   "where something\n"
                   "could not be compared");
    diff->add_option("NAME", parsed.configArchive, "The archive's name in /root/config")
        ->required();
    diff->add_option("--folder", parsed.configFolder,
                     "The folder to compare (default: the only one that the archive holds)");
    diff->add_flag("--all", options.config.all, "Also what is the same, as =");
}

void addRestore(CLI::App& config, Options& options, Parsed& parsed) {
    CLI::App* restore = addCommand(
        config, options, Command::ConfigRestore, "restore",
        "Put a folder of /root/config, modbus*xml and job.xml back as an archive holds them.\n"
        "Says first what will change, backs up what is there, asks, and checks the result.\n"
        "The archive is used up, and the unit's application restarts");
    restore->add_option("FOLDER", parsed.configFolder, "Its name in /root/config")->required();
    restore->add_option("NAME", parsed.configArchive, "The archive's name in /root/config")
        ->required();
    restore->add_flag("--yes", options.config.yes, "Do not ask; needed without a terminal");
    restore->add_flag("--no-safety", options.config.noSafety, "Do not back up what is there");
    restore->add_flag("--allow-links", options.config.allowLinks,
                      "Also symbolic links that lead out of the folder");
}

}  // namespace

void addConfigCommands(CLI::App& app, Options& options, Parsed& parsed) {
    CLI::App* config = app.add_subcommand("config", "Archives of the unit's configuration");
    config->require_subcommand(1);
    addBackup(*config, options, parsed);
    addReading(*config, options, parsed);
    addRestore(*config, options, parsed);
}

void takeOverConfig(const Parsed& parsed, Options& options) {
    options.config.folder = QByteArray::fromStdString(parsed.configFolder);
    options.config.archive = QByteArray::fromStdString(parsed.configArchive);
}

}  // namespace storagectl

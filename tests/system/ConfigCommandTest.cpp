#include "tests/support/TarWriter.h"
#include "tests/system/SystemTest.h"

#include <filesystem>
#include <sstream>

namespace {

namespace fs = std::filesystem;

constexpr char kArchive[] = "/root/config/site.configBackup";
constexpr char kRestart[] = "System/restartApplication";
constexpr int kMinute = 60'000;
const QByteArray kTop = "root/config/configBackup/";

/// storagectl and the real daemon, making, reading and restoring archives.
class ConfigCommandTest : public SystemTest {
protected:
    struct Run {
        int status;
        std::string log;
    };

    void SetUp() override {
        SystemTest::SetUp();
        writeFile("/root/config/panel/main.cfg", "main");
        writeFile("/root/config/panel/area/a.cfg", "area");
        fs::create_symlink("main.cfg", "/root/config/panel/current");
        fs::create_directory("/root/config/panel/empty");
        writeFile("/root/config/job.xml", "job");
        writeFile("/root/config/modbus-1.xml", "modbus");
        writeFile("/root/config/units.xml", "units");
        writeFile("/root/config/system.xml", "system");
        startBoth();
        _client.sendKeepAlivesOn(_daemon.commandTopic());
    }

    Run command(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), STORAGECTL_PROGRAM);
        return program(arguments);
    }

    Run program(const std::vector<std::string>& command) {
        ChildProcess child;
        ChildProcess::Options options;
        options.command = command;
        options.environment = {{"SCADA_BUS_URL", _broker.url()}};
        child.start(options);
        for (int waited = 0; waited < kMinute && child.isRunning(); waited += 20) {
            _client.pump(20);
        }
        return {child.waitForExit(0).value_or(-1000), child.log()};
    }

    /// A restore as asked on a terminal, with this answer.
    Run onTerminal(const std::string& answer) {
        const std::string restore = STORAGECTL_PROGRAM " config restore panel site.configBackup";
        return program({"/bin/sh", "-c",
                        "printf '" + answer + "\\n' | script -qec '" + restore + "' /dev/null"});
    }

    void change() {
        writeFile("/root/config/panel/main.cfg", "MAIN");
        writeFile("/root/config/panel/new.cfg", "new");
        fs::remove("/root/config/panel/area/a.cfg");
        writeFile("/root/config/job.xml", "another job");
        writeFile("/root/config/units.xml", "other units");
    }

    void writeArchive(const TarWriter& writer) {
        writeFile(kArchive, writer.compressed().toStdString());
    }
    static TarWriter panel() {
        TarWriter writer;
        return writer.folder(kTop).folder(kTop + "panel/").file(kTop + "panel/main.cfg", "hostile");
    }

    std::size_t requestsForARestart() { return takeAll(kRestart).size(); }
    static int archivesThere() {
        int count = 0;
        for (const fs::directory_entry& entry : fs::directory_iterator("/root/config")) {
            count += entry.path().extension() == ".configBackup" ? 1 : 0;
        }
        return count;
    }
};

bool has(const std::string& log, const std::string& part) {
    return log.find(part) != std::string::npos;
}

}  // namespace

TEST_F(ConfigCommandTest, ABackupIsThereNewAndNamed) {
    Run run = command({"config", "backup", "panel", "site.configBackup"});
    EXPECT_EQ(run.status, 0) << run.log;
    EXPECT_TRUE(has(run.log, "/root/config/site.configBackup\n")) << run.log;
    EXPECT_TRUE(has(run.log, std::to_string(fs::file_size(kArchive)) + " bytes")) << run.log;
    const std::string first = readFile(kArchive);
    run = command({"config", "backup", "panel", "site.configBackup"});
    EXPECT_EQ(run.status, 7) << run.log;
    EXPECT_EQ(readFile(kArchive), first);
    change();
    run = command({"config", "backup", "panel", "site.configBackup", "--replace"});
    EXPECT_EQ(run.status, 0) << run.log;
    EXPECT_NE(readFile(kArchive), first);
    run = command({"-q", "config", "backup", "panel"});
    EXPECT_EQ(run.status, 0) << run.log;
    EXPECT_EQ(run.log.substr(0, 19), "/root/config/panel-");
    EXPECT_TRUE(exists(run.log.substr(0, run.log.size() - 1))) << run.log;
}

TEST_F(ConfigCommandTest, ABackupOfAnEmptyFolderWorksAndOfNoneIsRefused) {
    fs::create_directory("/root/config/bare");
    EXPECT_EQ(command({"config", "backup", "bare", "bare.configBackup"}).status, 0);
    const Run run = command({"config", "backup", "none", "none.configBackup"});
    EXPECT_EQ(run.status, 4) << run.log;
    EXPECT_FALSE(exists("/root/config/none.configBackup"));
}

TEST_F(ConfigCommandTest, TheFetchedArchiveIsTheOneOnTheUnit) {
    const Run run =
        command({"config", "backup", "panel", "site.configBackup", "-o", "/tmp/site.tar.gz"});
    EXPECT_EQ(run.status, 0) << run.log;
    EXPECT_EQ(readFile("/tmp/site.tar.gz"), readFile(kArchive));
    fs::remove("/tmp/site.tar.gz");
}

TEST_F(ConfigCommandTest, TheArchivesAreListedInAnyCaseOfTheirEnding) {
    writeFile("/root/config/b.CONFIGBACKUP", "12345");
    writeFile("/root/config/a.configBackup", "1");
    writeFile("/root/config/panel/inner.configBackup", "1");
    const Run run = command({"config", "list"});
    EXPECT_EQ(run.status, 0) << run.log;
    const std::size_t first = run.log.find("  a.configBackup\n");
    EXPECT_NE(first, std::string::npos) << run.log;
    EXPECT_NE(run.log.find("          5 ", first), std::string::npos) << run.log;
    EXPECT_TRUE(has(run.log, "  b.CONFIGBACKUP\n")) << run.log;
    EXPECT_FALSE(has(run.log, "inner")) << run.log;
}

TEST_F(ConfigCommandTest, WhatAnArchiveHoldsIsShownWithWhatComesBack) {
    ASSERT_EQ(command({"config", "backup", "panel", "site.configBackup"}).status, 0);
    const Run run = command({"config", "show", "site.configBackup"});
    EXPECT_EQ(run.status, 0) << run.log;
    std::vector<std::string> seen;
    std::istringstream lines(run.log);
    for (std::string line; std::getline(lines, line);) {
        if (line.substr(0, 4) == "back" || line[0] == '-') {
            seen.push_back(line.substr(0, 6) + line.substr(line.rfind("  ") + 1));
        }
    }
    EXPECT_EQ(seen,
              (std::vector<std::string>{"back - job.xml", "back - modbus-1.xml", "back d panel/",
                                        "back d panel/area/", "back - panel/area/a.cfg",
                                        "back l panel/current -> main.cfg", "back d panel/empty/",
                                        "back - panel/main.cfg", "-    - units.xml"}))
        << run.log;
}

TEST_F(ConfigCommandTest, ADifferenceOfEachKindIsShown) {
    ASSERT_EQ(command({"config", "backup", "panel", "site.configBackup"}).status, 0);
    Run run = command({"config", "diff", "site.configBackup", "--all"});
    EXPECT_EQ(run.status, 0) << run.log;
    EXPECT_TRUE(has(run.log, "= panel/current\n")) << run.log;
    change();
    run = command({"-q", "config", "diff", "site.configBackup"});
    EXPECT_EQ(run.status, 1) << run.log;
    EXPECT_EQ(run.log,
              "* job.xml (size: 11 there, 3 in the archive)\n"
              "- panel/area/a.cfg\n"
              "* panel/current (contents)\n"
              "* panel/main.cfg (contents)\n"
              "+ panel/new.cfg\n"
              "* units.xml (size: 11 there, 5 in the archive; a restore leaves it)\n");
    EXPECT_EQ(command({"config", "diff", "site.configBackup", "--folder", "none"}).status, 4);
}

TEST_F(ConfigCommandTest, ARoundOfBackupChangeAndRestoreEndsAsItBegan) {
    ASSERT_EQ(command({"config", "backup", "panel", "site.configBackup"}).status, 0);
    change();
    const Run run = command({"config", "restore", "panel", "site.configBackup", "--yes"});
    EXPECT_EQ(run.status, 0) << run.log;
    for (const char* part :
         {"replaces job.xml, panel/current, panel/main.cfg\n", "brings back panel/area/a.cfg\n",
          "does not have them: panel/new.cfg\n", "does not bring back: units.xml\n",
          "what is there now is in panel-before-restore-", "are as in the archive\n"}) {
        EXPECT_TRUE(has(run.log, part)) << part << run.log;
    }
    EXPECT_EQ(readFile("/root/config/panel/main.cfg"), "main");
    EXPECT_EQ(readFile("/root/config/panel/area/a.cfg"), "area");
    EXPECT_FALSE(exists("/root/config/panel/new.cfg"));
    EXPECT_EQ(readFile("/root/config/job.xml"), "job");
    EXPECT_EQ(readFile("/root/config/units.xml"), "other units");
    EXPECT_EQ(readFile("/root/config/system.xml"), "system");
    EXPECT_FALSE(exists(kArchive));
    EXPECT_EQ(archivesThere(), 1);
    EXPECT_EQ(requestsForARestart(), 1U);
}

TEST_F(ConfigCommandTest, TheSafetyBackupBringsTheChangesBack) {
    ASSERT_EQ(command({"config", "backup", "panel", "site.configBackup"}).status, 0);
    change();
    const Run run = command({"config", "restore", "panel", "site.configBackup", "--yes"});
    const std::size_t begin = run.log.find("panel-before-restore-");
    ASSERT_NE(begin, std::string::npos) << run.log;
    const std::string safety = run.log.substr(begin, run.log.find(',', begin) - begin);
    EXPECT_EQ(command({"config", "restore", "panel", safety, "--yes", "--no-safety"}).status, 0);
    EXPECT_EQ(readFile("/root/config/panel/main.cfg"), "MAIN");
    EXPECT_EQ(readFile("/root/config/panel/new.cfg"), "new");
    EXPECT_EQ(archivesThere(), 0);
}

TEST_F(ConfigCommandTest, WithoutATerminalNothingIsRestoredUnlessToldYes) {
    ASSERT_EQ(command({"config", "backup", "panel", "site.configBackup"}).status, 0);
    change();
    const Run run = command({"config", "restore", "panel", "site.configBackup"});
    EXPECT_EQ(run.status, 7) << run.log;
    EXPECT_TRUE(has(run.log, "needs --yes")) << run.log;
    EXPECT_EQ(readFile("/root/config/panel/main.cfg"), "MAIN");
    EXPECT_EQ(archivesThere(), 1);
    EXPECT_EQ(requestsForARestart(), 0U);
}

TEST_F(ConfigCommandTest, OnATerminalOnlyYesGoesOn) {
    ASSERT_EQ(command({"config", "backup", "panel", "site.configBackup"}).status, 0);
    change();
    for (const char* answer : {"no", "y", "", "yes please"}) {
        EXPECT_EQ(onTerminal(answer).status, 1) << answer;
    }
    EXPECT_EQ(readFile("/root/config/panel/main.cfg"), "MAIN");
    EXPECT_EQ(archivesThere(), 1);
    const Run run = onTerminal("yes");
    EXPECT_EQ(run.status, 0) << run.log;
    EXPECT_TRUE(has(run.log, "Type yes to go on")) << run.log;
    EXPECT_EQ(readFile("/root/config/panel/main.cfg"), "main");
}

TEST_F(ConfigCommandTest, AnArchiveThatWouldDoHarmIsRefusedAndNothingIsTouched) {
    const char link = TarWriter::kSymbolicLink;
    std::vector<std::pair<std::string, std::pair<QByteArray, int>>> cases = {
        {"cut short", {panel().compressed().chopped(9), 5}},
        {"no archive", {"no archive at all", 5}},
        {"empty", {"", 5}},
        {"no folder", {TarWriter().folder(kTop).file(kTop + "job.xml", "x").compressed(), 7}},
        {"a file in the folder's place", {TarWriter().file(kTop + "panel", "x").compressed(), 7}},
        {"leads out", {panel().file(kTop + "panel/../../x", "x").compressed(), 7}},
        {"absolute", {panel().file("/etc/passwd", "x").compressed(), 7}},
        {"link", {panel().link(link, kTop + "panel/out", "/etc").compressed(), 7}},
        {"through a link",
         {panel().link(link, kTop + "panel/sub", "..").file(kTop + "panel/sub/x", "x").compressed(),
          7}}};
    for (const auto& [what, archive] : cases) {
        writeFile(kArchive, archive.first.toStdString());
        const Run run = command({"config", "restore", "panel", "site.configBackup", "--yes"});
        EXPECT_EQ(run.status, archive.second) << what << run.log;
        EXPECT_EQ(readFile("/root/config/panel/main.cfg"), "main") << what;
        EXPECT_EQ(readFile(kArchive), archive.first.toStdString()) << what;
        EXPECT_EQ(archivesThere(), 1) << what;
    }
    EXPECT_EQ(requestsForARestart(), 0U);
}

TEST_F(ConfigCommandTest, WhatTarPacksElsewhereIsRestoredInEachFormat) {
    const std::string longName = std::string(60, 'd') + '/' + std::string(90, 'f');
    const std::string top = "/tmp/packing/root/config/configBackup/panel";
    fs::create_directories(top + '/' + std::string(60, 'd'));
    writeFile(top + "/main.cfg", "packed");
    writeFile(top + '/' + longName, "long");
    fs::create_hard_link(top + "/main.cfg", top + "/other.cfg");
    fs::create_symlink("main.cfg", top + "/current");
    const std::string tar = "cd /tmp/packing && find root ! -type d > /tmp/packed && tar -czf " +
                            std::string(kArchive) + ' ';
    for (const char* how :
         {"--format=gnu root/config/configBackup", "--format=pax root/config/configBackup",
          "--format=ustar root/config/configBackup",
          "--format=gnu --no-recursion -T /tmp/packed"}) {
        ASSERT_EQ(program({"/bin/sh", "-c", tar + how}).status, 0) << how;
        const Run run =
            command({"config", "restore", "panel", "site.configBackup", "--yes", "--no-safety"});
        EXPECT_EQ(run.status, 0) << how << run.log;
        EXPECT_EQ(readFile("/root/config/panel/other.cfg"), "packed") << how;
        EXPECT_EQ(readFile("/root/config/panel/" + longName), "long") << how;
        EXPECT_EQ(fs::read_symlink("/root/config/panel/current"), "main.cfg") << how;
        EXPECT_FALSE(exists("/root/config/panel/area")) << how;
        writeFile("/root/config/panel/area/a.cfg", "area");
    }
    fs::remove_all("/tmp/packing");
}

TEST_F(ConfigCommandTest, WhatTarPacksUnderOtherNamesIsRefused) {
    const std::string top = "/tmp/packing/root/config/configBackup/panel";
    fs::create_directories(top);
    writeFile(top + "/main.cfg", "packed");
    fs::resize_file(top + "/main.cfg", 10'000'000);
    const std::string tar = "cd /tmp/packing && tar -czf " + std::string(kArchive) + ' ';
    const std::vector<std::pair<const char*, int>> cases = {
        {"./root/config/configBackup", 7},
        {"-P --transform='s,^root,/root,' root/config/configBackup", 7},
        {"-C root/config/configBackup panel", 7},
        {"--sparse root/config/configBackup", 5}};
    for (const auto& [how, status] : cases) {
        ASSERT_EQ(program({"/bin/sh", "-c", tar + how}).status, 0) << how;
        const Run run = command({"config", "restore", "panel", "site.configBackup", "--yes"});
        EXPECT_EQ(run.status, status) << how << run.log;
        EXPECT_EQ(readFile("/root/config/panel/main.cfg"), "main") << how;
        EXPECT_EQ(archivesThere(), 1) << how;
    }
    fs::remove_all("/tmp/packing");
}

TEST_F(ConfigCommandTest, LinksThatLeadOutAreRestoredWhereTheyAreAllowed) {
    writeArchive(panel().link(TarWriter::kSymbolicLink, kTop + "panel/out", "/mmc"));
    const Run run =
        command({"config", "restore", "panel", "site.configBackup", "--yes", "--allow-links"});
    EXPECT_EQ(run.status, 0) << run.log;
    EXPECT_EQ(fs::read_symlink("/root/config/panel/out"), "/mmc");
    EXPECT_TRUE(has(run.log, "1 could not be compared")) << run.log;
}

TEST_F(ConfigCommandTest, ARestoreWhoseAnswerIsLostIsNotRepeatedButLookedInto) {
    // It takes long enough for the daemon to be caught at it.
    writeFile("/root/config/panel/large", std::string(40'000'000, 'x'));
    ASSERT_EQ(command({"config", "backup", "panel", "site.configBackup"}).status, 0);
    change();
    ChildProcess child;
    ChildProcess::Options options;
    options.command = {STORAGECTL_PROGRAM, "--timeout", "2",
                       "config",           "restore",   "--yes",
                       "--no-safety",      "panel",     "site.configBackup"};
    options.environment = {{"SCADA_BUS_URL", _broker.url()}};
    child.start(options);
    const char* const scratch = "/root/config/configBackup";
    while (!exists(scratch) && child.isRunning()) {
        _client.pump(1);
    }
    _daemon.pause();
    ASSERT_TRUE(exists(scratch)) << child.log();
    _broker.kill();
    _daemon.resume();
    _broker.start();
    ASSERT_TRUE(_client.connect(5000));
    for (int waited = 0; waited < kMinute && child.isRunning(); waited += 20) {
        _client.pump(20);
    }
    EXPECT_EQ(child.waitForExit(0), 0) << child.log();
    EXPECT_TRUE(has(child.log(), "looking at what is there")) << child.log();
    EXPECT_EQ(readFile("/root/config/panel/main.cfg"), "main");
    EXPECT_FALSE(exists(kArchive));
}

TEST_F(ConfigCommandTest, NamesThatCouldHurtAreRefusedBeforeAnythingIsSent) {
    const std::size_t before = _daemon.log().size();
    for (const char* name : {"",    ".",   "..",  "../x", "a/b",           "/x",   "configBackup",
                             "-x",  "a b", "a;b", "$x",   "`x`",           "x*",   "x?",
                             "a|b", "a&b", "a'b", "a\"b", "a\\b",          "a\nb", "a>b",
                             "(a)", "a%1", "~",   "a#",   "x.configBackup"}) {
        EXPECT_EQ(command({"config", "backup", "--", name, "site.configBackup"}).status, 7) << name;
        EXPECT_EQ(command({"config", "restore", "--yes", "--", name, "site.configBackup"}).status,
                  7)
            << name;
    }
    for (const char* name :
         {"site.tar.gz", ".configBackup", "a b.configBackup", "../x.configBackup",
          "-x.configBackup", "$(x).configBackup", "a\x1b.configBackup", "\xff.configBackup"}) {
        EXPECT_EQ(command({"config", "backup", "--", "panel", name}).status, 7) << name;
        EXPECT_EQ(command({"config", "restore", "--yes", "--", "panel", name}).status, 7) << name;
        EXPECT_EQ(command({"config", "show", "--", name}).status, 7) << name;
        EXPECT_EQ(command({"config", "diff", "--", name}).status, 7) << name;
    }
    EXPECT_FALSE(has(_daemon.log().substr(before), "MESSAGE_"));
    EXPECT_EQ(archivesThere(), 0);
}

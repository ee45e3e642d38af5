#include "filesystem/ConfigRescue.h"
#include "filesystem/FileProtocol.h"
#include "tests/filesystem/PanelConfigFixture.h"
#include "tests/support/ForkStandIn.h"

#include <QDir>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using ConfigBackupTest = PanelConfigFixture;

TEST_F(ConfigBackupTest, ArchiveHoldsXmlFilesAndTheFolderUnderItsFixedPath) {
    ASSERT_TRUE(create("panel", kArchive));
    EXPECT_EQ(
        members(kArchive),
        QList<QByteArray>(
            {"root/config/configBackup/", "root/config/configBackup/job.xml",
             "root/config/configBackup/modbus.xml", "root/config/configBackup/panel/",
             "root/config/configBackup/panel/deep/", "root/config/configBackup/panel/deep/er/",
             "root/config/configBackup/panel/deep/er/page",
             "root/config/configBackup/panel/main.cfg", "root/config/configBackup/units.xml"}));
    EXPECT_EQ(takeRestarts(), 0);
}

TEST_F(ConfigBackupTest, NothingIsLoggedButTheEndOfChildren) {
    log.clear();
    create("panel", kArchive);
    load("panel", kArchive);
    for (const QByteArray& line : log.lines()) {
        EXPECT_EQ(line, "sigchild waitpid loop");
    }
}

TEST_F(ConfigBackupTest, EndingIsComparedWithoutRegardToCase) {
    EXPECT_TRUE(create("panel", "site.CONFIGBACKUP"));
    EXPECT_TRUE(exists(path("site.CONFIGBACKUP")));
    EXPECT_TRUE(load("panel", "site.CONFIGBACKUP"));
    EXPECT_FALSE(exists(path("site.CONFIGBACKUP")));
}

TEST_F(ConfigBackupTest, AnotherEndingIsRefusedAndNothingIsRun) {
    ForkStandIn fork(ForkStandIn::Outcome::Works);
    writeConfig("configBackup/left", "over");
    const Snapshot before = snapshot("/root/config");
    EXPECT_FALSE(create("panel", "site.tar.gz"));
    EXPECT_FALSE(load("panel", "site.tar.gz"));
    EXPECT_FALSE(create("panel", ""));
    EXPECT_EQ(snapshot("/root/config"), before);
    EXPECT_EQ(fork.count(), 0);
    EXPECT_EQ(takeRestarts(), 0);
    QDir(path("configBackup")).removeRecursively();
}

TEST_F(ConfigBackupTest, BackupAndRestoreBringTheFolderAndTheNamedFilesBack) {
    const Snapshot folder = snapshot("/root/config/panel");
    const Snapshot job = snapshot("/root/config/job.xml");
    ASSERT_TRUE(create("panel", kArchive));
    writeConfig("panel/main.cfg", "changed");
    writeConfig("panel/later", "new");
    writeConfig("job.xml", "another job");
    writeConfig("modbus.xml", "another modbus");
    writeConfig("units.xml", "other units");
    writeConfig("system.xml", "another system");
    ASSERT_TRUE(load("panel", kArchive));
    EXPECT_EQ(snapshot("/root/config/panel"), folder);
    EXPECT_EQ(snapshot("/root/config/job.xml"), job);
    EXPECT_EQ(config("modbus.xml"), "modbus");
    EXPECT_FALSE(exists(path(kArchive)));
    EXPECT_FALSE(exists(QString::fromLatin1(ConfigRescue::kPath)));
    EXPECT_EQ(takeRestarts(), 1);
}

TEST_F(ConfigBackupTest, KeptOtherXmlFilesStayAsTheyAreNow) {
    ASSERT_TRUE(create("panel", kArchive));
    writeConfig("units.xml", "other units");
    writeConfig("system.xml", "another system");
    writeConfig("modbus-2xml", "now");
    QFile::remove(path("notes.txt"));
    ASSERT_TRUE(load("panel", kArchive));
    EXPECT_EQ(config("units.xml"), "other units");
    EXPECT_EQ(config("system.xml"), "another system");
    EXPECT_EQ(config("modbus-2xml"), "now");
    EXPECT_FALSE(exists(path("notes.txt")));
}

TEST_F(ConfigBackupTest, AnythingFromModbusToXmlComesBack) {
    TarWriter tar;
    for (const char* name : {"modbusxml", "modbus-7.xml", "modbus.xml.bak", "amodbus.xml"}) {
        tar.file(QByteArray(kMembers) + name, "restored");
    }
    writeConfig(kArchive, tar.folder(QByteArray(kMembers) + "panel/").compressed());
    ASSERT_TRUE(load("panel", kArchive));
    EXPECT_EQ(config("modbusxml"), "restored");
    EXPECT_EQ(config("modbus-7.xml"), "restored");
    EXPECT_FALSE(exists(path("modbus.xml.bak")));
    EXPECT_FALSE(exists(path("amodbus.xml")));
}

TEST_F(ConfigBackupTest, RestoreOfAMissingArchiveFailsAndAsksForNoRestart) {
    const Snapshot before = snapshot("/root/config");
    EXPECT_FALSE(load("panel", "missing.configBackup"));
    EXPECT_EQ(snapshot("/root/config"), before);
    EXPECT_EQ(takeRestarts(), 0);
}

TEST_F(ConfigBackupTest, ScratchFolderIsGoneAfterwardsWhateverWasInIt) {
    writeConfig("configBackup/old/file", "left by a sudden end");
    ASSERT_EQ(::chmod("/root/config/configBackup/old", 0), 0);
    ASSERT_TRUE(create("panel", kArchive));
    EXPECT_FALSE(members(kArchive).contains("root/config/configBackup/old/"));
    ASSERT_EQ(::symlink("/root/data", "/root/config/configBackup"), 0);
    ASSERT_TRUE(load("panel", kArchive));
    EXPECT_TRUE(exists(QStringLiteral("/root/data")));
}

TEST_F(ConfigBackupTest, WhatASuddenEndLeftOfAnArchiveIsReplaced) {
    writeConfig(".configBackup.part", QByteArray(100'000, 'x'));
    ASSERT_TRUE(create("panel", kArchive));
    EXPECT_EQ(members(kArchive).size(), 9);
}

TEST_F(ConfigBackupTest, AFolderInPlaceOfAnUnfinishedArchiveIsNoObstacle) {
    writeConfig(".configBackup.part/in/the", "way");
    ASSERT_TRUE(create("panel", kArchive));
    EXPECT_EQ(members(kArchive).size(), 9);
}

TEST_F(ConfigBackupTest, AttributesAreKept) {
    ASSERT_EQ(::chmod("/root/config/panel/main.cfg", 0640), 0);
    ASSERT_EQ(::chmod("/root/config/panel/deep", 0711), 0);
    ASSERT_EQ(::symlink("./deep/er/page", "/root/config/panel/link"), 0);
    ASSERT_EQ(::symlink("/nowhere/at/all", "/root/config/panel/dangling"), 0);
    const timespec times[] = {{1'500'000'000, 0}, {1'400'000'000, 0}};
    for (const char* name : {"/root/config/panel/main.cfg", "/root/config/panel/link",
                             "/root/config/panel/deep", "/root/config/panel"}) {
        ASSERT_EQ(::utimensat(AT_FDCWD, name, times, AT_SYMLINK_NOFOLLOW), 0);
    }
    const Snapshot before = snapshot("/root/config/panel");
    ASSERT_TRUE(create("panel", kArchive));
    ASSERT_TRUE(QDir(path("panel")).removeRecursively());
    ASSERT_TRUE(load("panel", kArchive));
    EXPECT_EQ(snapshot("/root/config/panel"), before);
}

TEST_F(ConfigBackupTest, NamesWithSpacesDashesAndShellCharactersAreNames) {
    for (const char* folder : {"a b", "-rf", "$(touch x)", "`id`;#", "*", "sch\xc3\xb6n", "\n",
                               "a\\nb", "\\", "p\\141nel"}) {
        for (const char* archive : {"--help.configBackup", "host:x.configBackup",
                                    "' $(y)\".configBackup", "\xc3\xbc .configBackup"}) {
            const std::string inner = std::string(folder) + "/inner";
            writeConfig(inner.c_str(), "before");
            ASSERT_TRUE(create(folder, archive));
            writeConfig(inner.c_str(), "after");
            ASSERT_TRUE(load(folder, archive));
            EXPECT_EQ(config(inner.c_str()), "before") << folder << ' ' << archive;
            EXPECT_FALSE(exists(path(archive)));
        }
    }
    EXPECT_FALSE(exists(path("x")) || exists(path("y")));
}

TEST_F(ConfigBackupTest, FilesWithBackslashesInTheirNamesAreArchived) {
    writeConfig("a\\tb.xml", "escaped");
    ASSERT_TRUE(create("panel", kArchive));
    EXPECT_TRUE(members(kArchive).contains("root/config/configBackup/a\\\\tb.xml"));
}

TEST_F(ConfigBackupTest, UnusableFolderIsLeftOut) {
    writeTestFile(QStringLiteral("/root/data/precious"), "kept");
    for (const char* folder : {"", ".", "..", "configBackup", "../data", "/root/data", "panel/deep",
                               "./panel", "panel/"}) {
        ASSERT_TRUE(create(folder, kArchive));
        EXPECT_EQ(members(kArchive).size(), 4) << folder;
        writeConfig("job.xml", "now");
        const Snapshot panel = snapshot("/root/config/panel");
        ASSERT_TRUE(load(folder, kArchive));
        EXPECT_EQ(snapshot("/root/config/panel"), panel);
        EXPECT_EQ(config("job.xml"), "job") << folder;
        EXPECT_EQ(takeRestarts(), 1);
    }
    EXPECT_EQ(readTestFile(QStringLiteral("/root/data/precious")), "kept");
}

TEST_F(ConfigBackupTest, UnusableArchiveIsNotWrittenAndNotFound) {
    ASSERT_TRUE(create("panel", kArchive));
    ASSERT_TRUE(QFile::copy(path(kArchive), QStringLiteral("/root/data/x.configBackup")));
    ASSERT_TRUE(QFile::copy(path(kArchive), path("panel/x.configBackup")));
    for (const char* archive : {"../data/x.configBackup", "/root/data/x.configBackup",
                                "panel/x.configBackup", "./site.configBackup"}) {
        EXPECT_FALSE(load("panel", archive)) << archive;
    }
    EXPECT_TRUE(create("panel", "../data/new.configBackup"));
    EXPECT_FALSE(exists(QStringLiteral("/root/data/new.configBackup")));
    EXPECT_EQ(snapshot("/root/data").size(), 2U);
    EXPECT_EQ(takeRestarts(), 0);
}

TEST_F(ConfigBackupTest, BackupOfAMissingFolderHoldsTheFiles) {
    ASSERT_TRUE(create("nothing", kArchive));
    EXPECT_EQ(members(kArchive).size(), 4);
}

TEST_F(ConfigBackupTest, BackupWithoutXmlHoldsTheFolder) {
    emptyRoots();
    writeConfig("panel/main.cfg", "main");
    ASSERT_TRUE(create("panel", kArchive));
    EXPECT_EQ(members(kArchive),
              QList<QByteArray>({"root/config/configBackup/", "root/config/configBackup/panel/",
                                 "root/config/configBackup/panel/main.cfg"}));
    ASSERT_TRUE(load("panel", kArchive));
    EXPECT_EQ(config("panel/main.cfg"), "main");
}

TEST_F(ConfigBackupTest, WhatIsNamedXmlButIsNoFileIsLeftOut) {
    ASSERT_TRUE(QDir().mkpath(path("folder.xml")));
    ASSERT_EQ(::mkfifo("/root/config/fifo.xml", 0600), 0);
    ASSERT_EQ(::symlink("nowhere", "/root/config/dangling.xml"), 0);
    ASSERT_EQ(::symlink("notes.txt", "/root/config/link.xml"), 0);
    ASSERT_TRUE(create("panel", kArchive));
    EXPECT_TRUE(members(kArchive).contains("root/config/configBackup/link.xml"));
    EXPECT_EQ(members(kArchive).size(), 10);
}

TEST_F(ConfigBackupTest, FilesWithSeveralNamesComeBackAsSeveralFiles) {
    ASSERT_EQ(::link("/root/config/panel/main.cfg", "/root/config/panel/second"), 0);
    ASSERT_TRUE(create("panel", kArchive));
    ASSERT_TRUE(load("panel", kArchive));
    struct stat status {};
    ASSERT_EQ(::stat("/root/config/panel/second", &status), 0);
    EXPECT_EQ(status.st_nlink, 1U);
    EXPECT_EQ(config("panel/second"), "main");
    EXPECT_EQ(config("panel/main.cfg"), "main");
}

TEST_F(ConfigBackupTest, TheFolderMayBeAFile) {
    ASSERT_TRUE(create("notes.txt", kArchive));
    writeConfig("notes.txt", "changed");
    ASSERT_TRUE(load("notes.txt", kArchive));
    EXPECT_EQ(config("notes.txt"), "notes");
    ASSERT_TRUE(create("job.xml", kArchive));
    writeConfig("job.xml", "changed");
    ASSERT_TRUE(load("job.xml", kArchive));
    EXPECT_EQ(config("job.xml"), "job");
}

TEST_F(ConfigBackupTest, MissingFolderIsMadeByARestore) {
    ASSERT_TRUE(create("panel", kArchive));
    ASSERT_TRUE(QDir(path("panel")).removeRecursively());
    ASSERT_TRUE(load("panel", kArchive));
    EXPECT_EQ(config("panel/deep/er/page"), "page");
}

TEST_F(ConfigBackupTest, TarTakesNoOptionsFromTheEnvironment) {
    qputenv("TAR_OPTIONS", "--remove-files --checkpoint=1 --checkpoint-action=exec=false");
    qputenv("GZIP", "--nonsense");
    EXPECT_TRUE(create("panel", kArchive));
    qunsetenv("TAR_OPTIONS");
    qunsetenv("GZIP");
    EXPECT_EQ(members(kArchive).size(), 9);
}

TEST_F(ConfigBackupTest, NoDescriptorStaysOpen) {
    const auto open = [] { return QDir(QStringLiteral("/proc/self/fd")).count(); };
    create("panel", kArchive);
    const auto before = open();
    create("panel", kArchive);
    load("panel", kArchive);
    create("panel", kArchive);
    damage(kArchive);
    load("panel", kArchive);
    EXPECT_EQ(open(), before);
}

TEST_F(ConfigBackupTest, FlagsAnswerTheProtocolsRequests) {
    const auto answerTo = [this](int code, const char* format, auto... names) {
        Message request;
        EXPECT_TRUE(request.construct(code, format, names...));
        log.clear();
        files.handleMessage(5, &request);
        EXPECT_FALSE(log.lines().join('\n').contains("Filesystem"));
        const QList<FakeBus::Sent> sent = bus.takeSent();
        EXPECT_FALSE(sent.isEmpty());
        const FakeBus::Sent reply = sent.value(sent.size() - 1);
        EXPECT_EQ(reply.connection, 5);
        EXPECT_EQ(reply.message.command(), code);
        EXPECT_STREQ(reply.message.formatString(), "c");
        return reply.message.parameterAsByte(0);
    };
    EXPECT_EQ(answerTo(MESSAGE_CONFIG_BACKUP, "SS", "panel", "site.tar"), 0);
    EXPECT_EQ(answerTo(MESSAGE_CONFIG_BACKUP, "SS", "panel", kArchive), 1);
    EXPECT_EQ(answerTo(MESSAGE_CONFIG_BACKUP, "S", "panel"), 0);
    EXPECT_EQ(answerTo(MESSAGE_CONFIG_BACKUP, ""), 0);
    EXPECT_EQ(answerTo(MESSAGE_CONFIG_RESTORE, "SSi", "panel", kArchive, 3), 1);
    EXPECT_EQ(answerTo(MESSAGE_CONFIG_RESTORE, "SS", "panel", kArchive), 0);
}

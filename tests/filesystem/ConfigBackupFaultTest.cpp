#include "filesystem/ConfigRescue.h"
#include "tests/filesystem/PanelConfigFixture.h"
#include "tests/support/ForkStandIn.h"

#include <fcntl.h>

using ConfigBackupFaultTest = PanelConfigFixture;

TEST_F(ConfigBackupFaultTest, DamagedArchiveRemovesTheFolderAndIsUsedUp) {
    ASSERT_TRUE(create("panel", kArchive));
    damage(kArchive);
    writeConfig("job.xml", "now");
    EXPECT_TRUE(load("panel", kArchive));
    EXPECT_FALSE(exists(path("panel")));
    EXPECT_FALSE(exists(path(kArchive)));
    EXPECT_EQ(config("job.xml"), "now");
    EXPECT_EQ(takeRestarts(), 1);
}

TEST_F(ConfigBackupFaultTest, ArchiveCutAnywhereGivesTheOldFolderToTheRescueOrTheNewOneWhole) {
    const Snapshot folder = snapshot("/root/config/panel");
    ASSERT_TRUE(create("panel", kArchive));
    const QByteArray whole = config(kArchive);
    for (qsizetype length = 0; length < whole.size(); length += 23) {
        writeConfig(kArchive, whole.left(length));
        EXPECT_TRUE(load("panel", kArchive));
        EXPECT_FALSE(exists(path("panel"))) << length;
        EXPECT_EQ(snapshot("/root/data/.configRescue/panel"), folder) << length;
        ASSERT_TRUE(
            QFile::rename(QStringLiteral("/root/data/.configRescue/panel"), path("panel")) ||
            QProcess::execute(QStringLiteral("mv"),
                              {QStringLiteral("/root/data/.configRescue/panel"), path("panel")}) ==
                0);
    }
}

TEST_F(ConfigBackupFaultTest, RescuedFolderIsKeptUntilTheNextGoodRestore) {
    const Snapshot folder = snapshot("/root/config/panel");
    ASSERT_TRUE(create("panel", kArchive));
    const QByteArray good = config(kArchive);
    for (int i = 0; i < 2; ++i) {
        writeConfig("panel/main.cfg", i == 0 ? "main" : "second");
        damage(kArchive);
        ASSERT_TRUE(load("panel", kArchive));
        writeConfig(kArchive, good);
    }
    EXPECT_EQ(readTestFile(QStringLiteral("/root/data/.configRescue/panel/main.cfg")), "main");
    EXPECT_EQ(readTestFile(QStringLiteral("/root/data/.configRescue/panel.2/main.cfg")), "second");
    ASSERT_TRUE(load("", kArchive));
    EXPECT_TRUE(exists(QStringLiteral("/root/data/.configRescue/panel")));
    writeConfig(kArchive, good);
    ASSERT_TRUE(load("panel", kArchive));
    EXPECT_FALSE(exists(QString::fromLatin1(ConfigRescue::kPath)));
    EXPECT_EQ(config("panel/main.cfg"), "main");
}

TEST_F(ConfigBackupFaultTest, ArchiveWithoutTheFolderRemovesAndRescuesIt) {
    ASSERT_TRUE(create("nothing", kArchive));
    writeConfig("job.xml", "now");
    EXPECT_TRUE(load("panel", kArchive));
    EXPECT_FALSE(exists(path("panel")));
    EXPECT_EQ(readTestFile(QStringLiteral("/root/data/.configRescue/panel/main.cfg")), "main");
    EXPECT_EQ(config("job.xml"), "job");
}

TEST_F(ConfigBackupFaultTest, FolderThatCannotBeRescuedStays) {
    ASSERT_TRUE(create("panel", kArchive));
    damage(kArchive);
    writeTestFile(QString::fromLatin1(ConfigRescue::kPath), "in the way");
    EXPECT_TRUE(load("panel", kArchive));
    EXPECT_EQ(config("panel/main.cfg"), "main");
}

TEST_F(ConfigBackupFaultTest, FolderIsRescuedByRenamingInOneFileSystem) {
    writeTestFile(QStringLiteral("/root/data/area/panel/file"), "kept");
    const int area = ::open("/root/data/area", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    EXPECT_TRUE(ConfigRescue::keep(area, "panel", area, "old"));
    ::close(area);
    EXPECT_EQ(readTestFile(QStringLiteral("/root/data/.configRescue/panel/file")), "kept");
    EXPECT_TRUE(QDir(QStringLiteral("/root/data/area")).isEmpty());
}

TEST_F(ConfigBackupFaultTest, WhatIsNoFileIsADamagedArchive) {
    ASSERT_TRUE(QDir().mkpath(path("folder.configBackup")));
    ASSERT_EQ(::mkfifo("/root/config/fifo.configBackup", 0600), 0);
    EXPECT_TRUE(load("panel", "folder.configBackup"));
    EXPECT_FALSE(exists(path("panel")));
    EXPECT_TRUE(exists(path("folder.configBackup")));
    writeConfig("panel/main.cfg", "main");
    EXPECT_TRUE(load("panel", "fifo.configBackup"));
    EXPECT_FALSE(exists(path("panel")));
    EXPECT_FALSE(exists(path("fifo.configBackup")));
}

TEST_F(ConfigBackupFaultTest, FullDiskLeavesTheEarlierArchive) {
    ASSERT_TRUE(create("panel", kArchive));
    const QByteArray earlier = config(kArchive);
    QByteArray noise;
    for (unsigned i = 0, seed = 1; i < 40000; ++i) {
        seed = seed * 1664525 + 1013904223;
        noise += static_cast<char>(seed >> 24);
    }
    for (int i = 0; i < 8; ++i) {
        writeConfig(("panel/noise" + std::to_string(i)).c_str(), noise + QByteArray::number(i));
    }
    for (const rlim_t full : {1000, 39'000, 60'000}) {
        const FullDiskAt disk(full);
        EXPECT_TRUE(create("panel", kArchive));
    }
    EXPECT_EQ(config(kArchive), earlier);
}

TEST_F(ConfigBackupFaultTest, FullDiskLeavesFolderFilesAndArchive) {
    writeConfig("panel/large", QByteArray(50'000, 'x'));
    ASSERT_TRUE(create("panel", kArchive));
    writeConfig("panel/main.cfg", "now");
    const Snapshot before = snapshot("/root/config");
    {
        const FullDiskAt disk(40'000);
        EXPECT_TRUE(load("panel", kArchive));
    }
    Snapshot after = snapshot("/root/config");
    after["."] = before.at(".");  // its time
    EXPECT_EQ(after, before);
    EXPECT_EQ(takeRestarts(), 1);
    ASSERT_TRUE(load("panel", kArchive));
    EXPECT_EQ(config("panel/main.cfg"), "main");
}

TEST_F(ConfigBackupFaultTest, WithoutTarNothingChanges) {
    ASSERT_TRUE(create("panel", kArchive));
    const QByteArray earlier = config(kArchive);
    const QByteArray paths = qgetenv("PATH");
    qputenv("PATH", "/nowhere");
    EXPECT_TRUE(create("panel", kArchive));
    EXPECT_TRUE(load("panel", kArchive));
    qputenv("PATH", paths);
    EXPECT_EQ(config(kArchive), earlier);
    EXPECT_EQ(config("panel/main.cfg"), "main");
}

TEST_F(ConfigBackupFaultTest, FailedForkChangesNothing) {
    ASSERT_TRUE(create("panel", kArchive));
    const QByteArray earlier = config(kArchive);
    const ForkStandIn fork(ForkStandIn::Outcome::Fails);
    EXPECT_TRUE(create("panel", kArchive));
    EXPECT_TRUE(load("panel", kArchive));
    EXPECT_EQ(fork.count(), 2);
    EXPECT_EQ(config(kArchive), earlier);
    EXPECT_EQ(config("panel/main.cfg"), "main");
}

#include "filesystem/FileProtocol.h"
#include "tests/support/TarWriter.h"
#include "tests/tools/FakeDownloads.h"
#include "tests/tools/StoragectlFixture.h"

namespace {

using Fate = FakeDaemon::Fate;

const QByteArray kRoot = "/root/config/";
const QByteArray kArchive = kRoot + "site.configBackup";
const QByteArray kTop = "root/config/configBackup/";

TarWriter panel() {
    TarWriter writer;
    return writer.folder(kTop).folder(kTop + "panel/").file(kTop + "panel/main.cfg", "main");
}

/// config restore against a daemon in memory that can be made to do anything but what it should.
class ConfigRestoreCommandTest : public StoragectlFixture {
protected:
    ConfigRestoreCommandTest() {
        daemon.files[kRoot + "panel/main.cfg"].contents = "changed";
        daemon.files[kArchive].contents = panel().compressed();
        daemon.onFurther = [this](const Message& request, Message& reply) {
            switch (request.command()) {
                case MESSAGE_CONFIG_BACKUP:
                    daemon.files[kRoot + request.parameterAsString(1)].contents = safety;
                    break;
                case MESSAGE_CONFIG_RESTORE:
                    daemon.files[kRoot + "panel/main.cfg"].contents = restored;
                    daemon.files.remove(kRoot + request.parameterAsString(1));
                    break;
                default:
                    return false;
            }
            return reply.construct(request.command(), "c", 1);
        };
    }

    int restore(const std::vector<std::string>& more = {}, const char* name = "panel") {
        std::vector<std::string> arguments{"config", "restore", name, "site.configBackup", "--yes"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return run(arguments);
    }
    /// What becomes of the requests of one kind; told of each.
    void fateOf(
        int command, Fate how, const std::function<void()>& change = [] {}) {
        daemon.fate = [=](const Message& request) {
            if (request.command() != command) {
                return Fate::Answered;
            }
            change();
            return how;
        };
    }
    void expectNotSent(int code, const char* why) {
        clock.wall += 1;
        EXPECT_EQ(restore(), code) << talk.constData();
        EXPECT_TRUE(talk.contains(why)) << talk.constData();
        EXPECT_EQ(daemon.count(MESSAGE_CONFIG_RESTORE), 0);
        EXPECT_EQ(daemon.files[kRoot + "panel/main.cfg"].contents, "changed");
    }

    FakeDownloads downloads{daemon};
    QByteArray safety = panel().compressed();
    QByteArray restored = "main";
};

}  // namespace

TEST_F(ConfigRestoreCommandTest, ARestoreIsSaidSavedSentOnceAndChecked) {
    EXPECT_EQ(restore(), 0) << talk.constData();
    for (const char* part :
         {"replaces panel/main.cfg", "what is there now is in panel-before-restore-",
          "panel restored from site.configBackup: 1 files are as in the archive"}) {
        EXPECT_TRUE(talk.contains(part)) << part << talk.constData();
    }
    EXPECT_EQ(daemon.count(MESSAGE_CONFIG_BACKUP), 1);
    EXPECT_EQ(daemon.count(MESSAGE_CONFIG_RESTORE), 1);
}

TEST_F(ConfigRestoreCommandTest, AnArchiveThatChangedSinceItWasReadIsNotRestored) {
    fateOf(MESSAGE_CONFIG_BACKUP, Fate::Answered, [this] {
        daemon.files[kArchive].contents =
            TarWriter().folder(kTop).file(kTop + "job.xml", "x").compressed();
    });
    expectNotSent(7, "is not what it was when it was read, nothing was restored");
}

TEST_F(ConfigRestoreCommandTest, AnArchiveOfTheSameSizeAndOtherBytesIsNotRestored) {
    fateOf(MESSAGE_CONFIG_BACKUP, Fate::Answered, [this] {
        QByteArray& archive = daemon.files[kArchive].contents;
        archive[archive.size() - 1] = char(archive.back() ^ 1);
    });
    expectNotSent(7, "is not what it was when it was read");
}

TEST_F(ConfigRestoreCommandTest, AnArchiveThatGrewSinceItWasReadIsNotRestored) {
    fateOf(MESSAGE_CONFIG_BACKUP, Fate::Answered,
           [this] { daemon.files[kArchive].contents += panel().compressed(); });
    expectNotSent(7, "is not what it was when it was read");
}

TEST_F(ConfigRestoreCommandTest, AnArchiveThatChangedDuringABreakIsReadAgain) {
    const auto archiveWith = [](const QByteArray& large) {
        return panel().file(kTop + "panel/large", large).compressed();
    };
    const QByteArray large = someBytes(400'000);
    daemon.files[kRoot + "panel/large"].contents = large;
    daemon.files[kArchive].contents = archiveWith(someBytes(300'000));
    int reads = 0;
    daemon.fate = [&](const Message& request) {
        reads += request.command() == MESSAGE_FILE_READ ? 1 : 0;
        if (request.command() != MESSAGE_FILE_READ || reads != 5) {
            return Fate::Answered;
        }
        daemon.files[kArchive].contents = archiveWith(large);
        return Fate::LostRequest;
    };
    EXPECT_EQ(restore(), 0) << talk.constData();
    EXPECT_TRUE(talk.contains("starting over")) << talk.constData();
    EXPECT_TRUE(talk.contains("2 files are as in the archive")) << talk.constData();
}

TEST_F(ConfigRestoreCommandTest, AnArchiveThatWouldDoHarmIsNotSent) {
    const char link = TarWriter::kSymbolicLink;
    daemon.files[kArchive].contents = panel().file("/etc/passwd", "x").compressed();
    expectNotSent(7, "lies outside of what a backup packs");
    daemon.files[kArchive].contents =
        TarWriter().folder(kTop).file(kTop + "job.xml", "x").compressed();
    expectNotSent(7, "holds no folder panel");
    daemon.files[kArchive].contents = panel().link(link, kTop + "panel/x", "/etc").compressed();
    expectNotSent(7, "has links that lead out of the folder");
    daemon.files[kArchive].contents = panel().compressed().chopped(1);
    expectNotSent(5, "it is cut short");
}

TEST_F(ConfigRestoreCommandTest, AFlagOfZeroIsAFailure) {
    daemon.spoil = [](const Message& request, Message& reply) {
        if (request.command() == MESSAGE_CONFIG_RESTORE) {
            reply.construct(request.command(), "c", 0);
        }
    };
    EXPECT_EQ(restore(), 1);
    EXPECT_TRUE(talk.contains("the daemon restored nothing")) << talk.constData();
}

TEST_F(ConfigRestoreCommandTest, AnArchiveThatWasRemovedMeanwhileIsNotRestored) {
    fateOf(MESSAGE_CONFIG_BACKUP, Fate::Answered, [this] { daemon.files.remove(kArchive); });
    expectNotSent(7, "is not what it was when it was read");
}

TEST_F(ConfigRestoreCommandTest, WithoutAWholeSafetyBackupNothingIsRestored) {
    safety = panel().compressed().chopped(9);
    expectNotSent(5, "without this backup nothing was restored");
    safety = "";
    expectNotSent(1, "made no archive");
    safety = TarWriter().folder(kTop).file(kTop + "job.xml", "x").compressed();
    expectNotSent(1, "does not hold panel as a folder; without this backup");
    fateOf(MESSAGE_CONFIG_BACKUP, Fate::Bare);
    expectNotSent(1, "without this backup nothing was restored");
}

TEST_F(ConfigRestoreCommandTest, ASafetyBackupNeedsNoFolderThatIsNotThere) {
    daemon.files.remove(kRoot + "panel/main.cfg");
    safety = TarWriter().folder(kTop).compressed();
    EXPECT_EQ(restore(), 0) << talk.constData();
    EXPECT_TRUE(talk.contains("without panel, which is not there")) << talk.constData();
}

TEST_F(ConfigRestoreCommandTest, AnInterruptBeforeItIsSentRestoresNothing) {
    fateOf(MESSAGE_CONFIG_BACKUP, Fate::Answered, [] { storagectl::Interrupt::request(); });
    EXPECT_EQ(restore(), 130) << talk.constData();
    EXPECT_EQ(daemon.count(MESSAGE_CONFIG_RESTORE), 0);
}

TEST_F(ConfigRestoreCommandTest, AnInterruptAtTheLastMomentRestoresNothing) {
    int closes = 0;
    int last = 0;
    int interruptedAt = -1;
    daemon.fate = [&](const Message& request) {
        closes += request.command() == MESSAGE_FILE_CLOSE ? 1 : 0;
        last = request.command() == MESSAGE_CONFIG_RESTORE ? closes : last;
        if (request.command() == MESSAGE_FILE_CLOSE && closes == interruptedAt) {
            storagectl::Interrupt::request();
        }
        return Fate::Answered;
    };
    const auto files = daemon.files;
    ASSERT_EQ(restore(), 0);
    interruptedAt = last;
    closes = 0;
    daemon.files = files;
    EXPECT_EQ(restore(), 130) << talk.constData();
    EXPECT_EQ(closes, interruptedAt);
    EXPECT_EQ(daemon.count(MESSAGE_CONFIG_RESTORE), 1) << "that of the run before";
}

TEST_F(ConfigRestoreCommandTest, AnInterruptWhileTheUnitRestoresSaysThatItGoesOn) {
    fateOf(MESSAGE_CONFIG_RESTORE, Fate::LostReply, [] { storagectl::Interrupt::request(); });
    EXPECT_EQ(restore(), 130);
    EXPECT_TRUE(talk.contains("the unit goes on restoring")) << talk.constData();
    EXPECT_EQ(daemon.count(MESSAGE_CONFIG_RESTORE), 1);
}

TEST_F(ConfigRestoreCommandTest, ALostAnswerIsLookedIntoAndNothingIsSentTwice) {
    fateOf(MESSAGE_CONFIG_RESTORE, Fate::LostReply);
    EXPECT_EQ(restore(), 0) << talk.constData();
    EXPECT_TRUE(talk.contains("looking at what is there")) << talk.constData();
    EXPECT_EQ(daemon.count(MESSAGE_CONFIG_RESTORE), 1);
}

TEST_F(ConfigRestoreCommandTest, ALostRequestIsFoundOutByTheArchiveThatIsStillThere) {
    fateOf(MESSAGE_CONFIG_RESTORE, Fate::LostRequest);
    EXPECT_EQ(restore(), 1);
    EXPECT_TRUE(talk.contains("is still there, so the daemon did not restore it"))
        << talk.constData();
    EXPECT_EQ(daemon.count(MESSAGE_CONFIG_RESTORE), 1);
}

TEST_F(ConfigRestoreCommandTest, ADaemonThatStaysSilentLeavesItUnknown) {
    bool isSilent = false;
    quint32 since = 0;
    daemon.fate = [&](const Message& request) {
        if (request.command() == MESSAGE_CONFIG_RESTORE) {
            isSilent = true;
            since = clock.tick;
        }
        return isSilent ? Fate::LostRequest : Fate::Answered;
    };
    EXPECT_EQ(restore(), 11);
    EXPECT_TRUE(talk.contains("whether it was restored is not known")) << talk.constData();
    EXPECT_GE(clock.tick - since, 480'000U) << "as long as it may unpack, and once more";
    EXPECT_EQ(daemon.count(MESSAGE_CONFIG_RESTORE), 1);
}

TEST_F(ConfigRestoreCommandTest, AResultThatIsNotTheArchivesIsSaid) {
    restored = "mine";
    EXPECT_EQ(restore(), 5);
    EXPECT_TRUE(talk.contains("does not have what the archive held: panel/main.cfg"))
        << talk.constData();
}

TEST_F(ConfigRestoreCommandTest, AFolderOfASettingsNameIsRefused) {
    TarWriter writer;
    writer.folder(kTop).folder(kTop + "modbus-xml/").file(kTop + "modbus-xml/a", "a");
    daemon.files[kArchive].contents = writer.compressed();
    EXPECT_EQ(restore({}, "modbus-xml"), 7);
    EXPECT_TRUE(talk.contains("the daemon would remove a folder of that name")) << talk.constData();
    EXPECT_EQ(daemon.count(MESSAGE_CONFIG_RESTORE), 0);
}

TEST_F(ConfigRestoreCommandTest, WhatComesBackBesideTheFolderIsSaidToTheLetter) {
    TarWriter writer = panel();
    writer.file(kTop + "modbusxml", "new").file(kTop + "modbus-d/a.xml", "x");
    daemon.files[kArchive].contents = writer.compressed();
    daemon.files[kRoot + "modbusxml"].contents = "old";
    restore();
    EXPECT_TRUE(talk.contains("replaces modbusxml, panel/main.cfg\n")) << talk.constData();
    EXPECT_TRUE(talk.contains("does not bring back: modbus-d/a.xml\n")) << talk.constData();
}

TEST_F(ConfigRestoreCommandTest, OtherFoldersOfTheUnitAreNotListed) {
    daemon.files[kRoot + "other/deep/file"].contents = "x";
    EXPECT_EQ(run({"config", "list"}), 0);
    EXPECT_EQ(run({"config", "diff", "site.configBackup"}), 1) << talk.constData();
    const QByteArrayList top{kRoot + "."};
    EXPECT_EQ(downloads.requests, (std::vector<QByteArrayList>{top, top, {kRoot + "panel/."}}));
}

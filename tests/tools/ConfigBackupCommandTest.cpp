#include "tests/tools/StoragectlFixture.h"

#include "filesystem/FileProtocol.h"

namespace {

using Fate = FakeDaemon::Fate;

const QByteArray kPath = "/root/config/site.configBackup";

class ConfigBackupCommandTest : public StoragectlFixture {
protected:
    ConfigBackupCommandTest() {
        daemon.files["/root/config/panel/main.cfg"].contents = "main";
        daemon.onFurther = [this](const Message& request, Message& reply) {
            if (request.command() != MESSAGE_CONFIG_BACKUP) {
                return false;
            }
            EXPECT_STREQ(request.formatString(), "SS");
            EXPECT_STREQ(request.parameterAsString(0), "panel");
            if (!packed.isNull()) {
                daemon.files["/root/config/" + QByteArray(request.parameterAsString(1))].contents =
                    packed;
            }
            return reply.construct(request.command(), "c", flag);
        };
    }

    int backUp(std::vector<std::string> options = {}) {
        std::vector<std::string> arguments{"config", "backup", "panel", "site.configBackup"};
        arguments.insert(arguments.end(), options.begin(), options.end());
        return run(arguments);
    }

    void loseEach(int command, Fate how) {
        daemon.fate = [=](const Message& request) {
            return request.command() == command ? how : Fate::Answered;
        };
    }

    QByteArray packed = "an archive";
    int flag = 1;
};

}  // namespace

TEST_F(ConfigBackupCommandTest, TheArchiveIsNamedWithItsSize) {
    EXPECT_EQ(backUp(), 0) << talk.constData();
    EXPECT_EQ(data, kPath + '\n');
    EXPECT_EQ(talk, "storagectl: panel -> site.configBackup, 10 bytes\n");
    EXPECT_EQ(backUp({"--replace", "--json"}), 1) << "the same once more";
    packed = "a newer archive";
    EXPECT_EQ(backUp({"--replace", "--json"}), 0);
    EXPECT_EQ(data, R"({"archive":"/root/config/site.configBackup","command":"config backup",)"
                    R"("folder":"panel","size":15})"
                    "\n");
}

TEST_F(ConfigBackupCommandTest, ANameWithTheTimeIsMadeUp) {
    clock.wall = 1'714'551'300;
    EXPECT_EQ(run({"-q", "config", "backup", "panel"}), 0);
    EXPECT_EQ(data.left(29), "/root/config/panel-20240501-0");
    EXPECT_TRUE(data.endsWith("00.configBackup\n")) << data.constData();
}

TEST_F(ConfigBackupCommandTest, WhatTheDaemonOnlySaysIsNotBelieved) {
    packed = QByteArray();
    EXPECT_EQ(backUp(), 1);
    EXPECT_TRUE(talk.contains("made no archive")) << talk.constData();
    packed = "";
    EXPECT_EQ(backUp(), 1);
    EXPECT_TRUE(talk.contains("made no archive")) << talk.constData();
}

TEST_F(ConfigBackupCommandTest, AnOldArchiveUnderTheNameIsNoNewOne) {
    daemon.files[kPath].contents = "old";
    packed = QByteArray();
    EXPECT_EQ(backUp({"--replace"}), 1);
    EXPECT_TRUE(talk.contains("is what it was before")) << talk.constData();
    EXPECT_EQ(backUp(), 7);
    EXPECT_EQ(daemon.count(MESSAGE_CONFIG_BACKUP), 1);
    EXPECT_EQ(daemon.files[kPath].contents, "old");
}

TEST_F(ConfigBackupCommandTest, AFlagOfZeroIsAFailure) {
    flag = 0;
    EXPECT_EQ(backUp(), 1);
    EXPECT_TRUE(talk.contains("refuses the name")) << talk.constData();
}

TEST_F(ConfigBackupCommandTest, AnAnswerThatWasLostIsLookedIntoAndNothingIsSentTwice) {
    loseEach(MESSAGE_CONFIG_BACKUP, Fate::LostReply);
    EXPECT_EQ(backUp(), 0);
    EXPECT_TRUE(talk.contains("the answer was lost, but the archive is there"));
    daemon.files.remove(kPath);
    loseEach(MESSAGE_CONFIG_BACKUP, Fate::LostRequest);
    EXPECT_EQ(backUp(), 1);
    EXPECT_TRUE(talk.contains("made no archive")) << talk.constData();
    EXPECT_EQ(daemon.count(MESSAGE_CONFIG_BACKUP), 2);
}

TEST_F(ConfigBackupCommandTest, PackingMayTakeMinutes) {
    quint32 asked = 0;
    daemon.fate = [&](const Message& request) {
        asked = request.command() == MESSAGE_CONFIG_BACKUP ? clock.tick : asked;
        return request.command() == MESSAGE_CONFIG_BACKUP ? Fate::LostRequest : Fate::Answered;
    };
    const quint32 start = clock.tick;
    EXPECT_EQ(backUp(), 1);
    EXPECT_GE(clock.tick - start, 240'000U);
}

TEST_F(ConfigBackupCommandTest, AReplyThatDoesNotFitIsSaid) {
    packed = QByteArray();
    for (const char* format : {"", "i"}) {
        daemon.spoil = [format](const Message& request, Message& reply) {
            if (request.command() != MESSAGE_CONFIG_BACKUP) {
                return;
            }
            *format == '\0' ? reply.construct(request.command(), "")
                            : reply.construct(request.command(), "i", 1);
        };
        EXPECT_EQ(backUp(), 1) << format;
        EXPECT_TRUE(talk.contains("site.configBackup: the daemon")) << talk.constData();
    }
}

TEST_F(ConfigBackupCommandTest, NamesThatCouldHurtAreRefusedBeforeAnythingIsSent) {
    for (const char* name :
         {"a b", "../x", "configBackup", "x;y", "a\nb", "\xe2\x80\xae", "\xff"}) {
        EXPECT_EQ(run({"config", "backup", name, "site.configBackup"}), 7) << name;
    }
    EXPECT_EQ(run({"config", "show", "site.tar"}), 7);
    EXPECT_TRUE(daemon.requests.empty());
}

TEST_F(ConfigBackupCommandTest, ANameInAnotherScriptIsNoHarm) {
    daemon.files["/root/config/\xc3\x9c\x62\x65rsicht/x"].contents = "x";
    daemon.onFurther = [this](const Message& request, Message& reply) {
        daemon.files[kPath].contents = "packed";
        return request.command() == MESSAGE_CONFIG_BACKUP &&
               reply.construct(request.command(), "c", 1);
    };
    EXPECT_EQ(run({"config", "backup", "\xc3\x9c\x62\x65rsicht", "site.configBackup"}), 0)
        << talk.constData();
}

TEST_F(ConfigBackupCommandTest, AnArchiveThatIsNoneIsShownAsDamaged) {
    daemon.files[kPath].contents = "an archive";
    EXPECT_EQ(run({"config", "show", "site.configBackup"}), 5);
    EXPECT_TRUE(talk.contains("a damaged archive, or none")) << talk.constData();
}

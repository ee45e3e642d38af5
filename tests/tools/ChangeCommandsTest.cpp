#include "tests/tools/StoragectlFixture.h"

namespace {

using Fate = FakeDaemon::Fate;

constexpr char kFrom[] = "/root/data/a/from";
constexpr char kTo[] = "/root/data/a/to";

class ChangeCommandsTest : public StoragectlFixture {
protected:
    ChangeCommandsTest() {
        daemon.files[kFrom] = {"from"};
        daemon.files[kTo] = {"to"};
        daemon.files["/root/data/a/sub/file"] = {};
    }
    void meet(int command, Fate given) {
        daemon.fate = [=](const Message& request) {
            return request.command() == command ? given : Fate::Answered;
        };
    }
};

TEST_F(ChangeCommandsTest, AMoveReplacesItsTarget) {
    EXPECT_EQ(run({"mv", kFrom, kTo}), 0);
    EXPECT_EQ(daemon.files[kTo].contents, "from");
    EXPECT_FALSE(daemon.files.contains(kFrom));
}

TEST_F(ChangeCommandsTest, AMoveOfAMissingFileIsNotSent) {
    EXPECT_EQ(run({"mv", "/root/data/a/none", kTo}), 4);
    EXPECT_EQ(daemon.count(MESSAGE_FILE_MOVE), 0);
    EXPECT_EQ(daemon.files[kTo].contents, "to");
}

TEST_F(ChangeCommandsTest, AMoveOntoItselfIsUnsafeAndNotSent) {
    EXPECT_EQ(run({"mv", kFrom, "/root/data/a/./sub/../from"}), 7);
    EXPECT_EQ(daemon.count(MESSAGE_FILE_MOVE), 0);
}

TEST_F(ChangeCommandsTest, AMoveOntoADirectoryIsNotSent) {
    EXPECT_EQ(run({"mv", kFrom, "/root/data/a/sub"}), 1);
    EXPECT_TRUE(talk.contains("name the file")) << talk.constData();
    EXPECT_EQ(daemon.count(MESSAGE_FILE_MOVE), 0);
}

TEST_F(ChangeCommandsTest, AMoveIntoAMissingDirectoryNamesTheDirectory) {
    meet(MESSAGE_FILE_MOVE, Fate::Bare);
    EXPECT_EQ(run({"mv", kFrom, "/root/data/none/to"}), 4);
    EXPECT_TRUE(talk.contains("/root/data/none: not found")) << talk.constData();
    EXPECT_EQ(run({"mv", kFrom, kTo}), 1);
    EXPECT_TRUE(talk.contains("could not move it")) << talk.constData();
}

TEST_F(ChangeCommandsTest, AMoveWhoseAnswerIsLostIsNotRepeatedAndFoundDone) {
    meet(MESSAGE_FILE_MOVE, Fate::LostReply);
    EXPECT_EQ(run({"mv", kFrom, kTo}), 0);
    EXPECT_EQ(daemon.count(MESSAGE_FILE_MOVE), 1);
    EXPECT_EQ(daemon.files[kTo].contents, "from");
    EXPECT_TRUE(talk.contains("the answer was lost")) << talk.constData();
}

TEST_F(ChangeCommandsTest, AMoveThatWasLostIsNotRepeatedAndToldSo) {
    meet(MESSAGE_FILE_MOVE, Fate::LostRequest);
    EXPECT_EQ(run({"mv", kFrom, kTo}), 1);
    EXPECT_EQ(daemon.count(MESSAGE_FILE_MOVE), 1);
    EXPECT_TRUE(talk.contains("it is still there")) << talk.constData();
}

TEST_F(ChangeCommandsTest, AMoveWhoseDaemonIsGoneIsUnknown) {
    bool isGone = false;
    daemon.fate = [&](const Message& request) {
        isGone = isGone || request.command() == MESSAGE_FILE_MOVE;
        return isGone ? Fate::LostRequest : Fate::Answered;
    };
    EXPECT_EQ(run({"mv", kFrom, kTo}), 11);
    EXPECT_EQ(daemon.count(MESSAGE_FILE_MOVE), 1);
    EXPECT_TRUE(talk.contains("whether it was moved is not known")) << talk.constData();
}

TEST_F(ChangeCommandsTest, ADeletionWhoseAnswerIsLostIsNotRepeated) {
    meet(MESSAGE_FILE_DELETE, Fate::LostReply);
    EXPECT_EQ(run({"rm", kFrom}), 0);
    EXPECT_EQ(daemon.count(MESSAGE_FILE_DELETE), 1);
    meet(MESSAGE_FILE_DELETE, Fate::LostRequest);
    EXPECT_EQ(run({"rm", kTo}), 1);
    EXPECT_EQ(daemon.count(MESSAGE_FILE_DELETE), 2);
    EXPECT_TRUE(daemon.files.contains(kTo));
}

TEST_F(ChangeCommandsTest, ADeletionSaysWhyItFailed) {
    EXPECT_EQ(run({"rm", "/root/data/a/none"}), 4);
    EXPECT_EQ(run({"rm", "/root/data/a/sub"}), 1);
    EXPECT_TRUE(talk.contains("is a directory"));
    EXPECT_EQ(run({"rm", "/etc/passwd"}), 7);
    meet(MESSAGE_FILE_DELETE, Fate::Bare);
    EXPECT_EQ(run({"rm", kFrom}), 1);
    EXPECT_TRUE(talk.contains("could not delete"));
}

TEST_F(ChangeCommandsTest, SomeOfSeveralFilesIsPartly) {
    EXPECT_EQ(run({"rm", kFrom, "/root/data/a/none", kTo}), 3);
    EXPECT_FALSE(daemon.files.contains(kTo));
    EXPECT_EQ(run({"rm", "/root/data/a/no", "/root/data/a/none"}), 4);
    EXPECT_EQ(run({"rm", "/root/data/a/no", "/etc/passwd"}), 1);
}

TEST_F(ChangeCommandsTest, WithoutADaemonTheOtherFilesAreNotTried) {
    daemon.fate = [](const Message&) { return Fate::LostRequest; };
    EXPECT_EQ(run({"rm", kFrom, kTo}), 11);
    EXPECT_EQ(daemon.count(MESSAGE_FILE_DELETE), 1);
}

TEST_F(ChangeCommandsTest, NamesThatTheWireCannotCarryAreRefused) {
    EXPECT_EQ(run({"rm", ""}), 7);
    EXPECT_EQ(run({"rm", "/root/data/a/\xff"}), 7);
    EXPECT_EQ(run({"mv", kFrom, "/root/data/a/\xc3"}), 7);
    EXPECT_TRUE(daemon.requests.empty());
}

TEST_F(ChangeCommandsTest, TruncateResizes) {
    EXPECT_EQ(run({"truncate", kFrom, "2"}), 0);
    EXPECT_EQ(daemon.files[kFrom].contents, "fr");
}

TEST_F(ChangeCommandsTest, TruncateDoesNotMakeAFile) {
    EXPECT_EQ(run({"truncate", "/root/data/a/none", "2"}), 4);
    EXPECT_FALSE(daemon.files.contains("/root/data/a/none"));
}

TEST_F(ChangeCommandsTest, TruncateToASizeThatTheWireCannotCarryIsRefused) {
    EXPECT_EQ(run({"truncate", kFrom, "2147483648"}), 7);
    EXPECT_EQ(run({"truncate", kFrom, "-1"}), 2);
    EXPECT_EQ(run({"truncate", kFrom, "many"}), 2);
    EXPECT_TRUE(daemon.requests.empty());
}

TEST_F(ChangeCommandsTest, QuitIsCommandOneOnTheDaemonsToken) {
    EXPECT_EQ(run({"quit"}), 0);
    ASSERT_EQ(daemon.otherSent.size(), 1);
    EXPECT_EQ(daemon.otherSent[0].token, "StorageManager.to");
    EXPECT_EQ(daemon.otherSent[0].payload, QByteArray::fromHex("01000000 00"));
}

TEST_F(ChangeCommandsTest, QuitIsNotSentWhereNoDaemonAnswers) {
    daemon.fate = [](const Message&) { return Fate::LostRequest; };
    EXPECT_EQ(run({"quit"}), 11);
    EXPECT_TRUE(daemon.otherSent.isEmpty());
}

TEST_F(ChangeCommandsTest, PingTakesAnyAnswerAndSendsNoKeepAlive) {
    EXPECT_EQ(run({"ping"}), 0);
    EXPECT_TRUE(data.startsWith("answer 1: ")) << data.constData();
    for (const Message& request : daemon.requests) {
        EXPECT_NE(request.command(), 0);
    }
    daemon.fate = [](const Message&) { return Fate::LostRequest; };
    EXPECT_EQ(run({"ping"}), 11);
}

TEST_F(ChangeCommandsTest, PingsThatNobodyAnsweredHaveNoRoundTrips) {
    daemon.fate = [](const Message&) { return Fate::LostRequest; };
    EXPECT_EQ(run({"ping", "-c", "2"}), 11);
    EXPECT_TRUE(talk.endsWith("2 sent, 0 answered\n")) << talk.constData();
}

TEST_F(ChangeCommandsTest, PingsThatWereAnsweredInPartArePartly) {
    int seen = 0;
    daemon.fate = [&](const Message&) { return ++seen == 2 ? Fate::LostRequest : Fate::Answered; };
    EXPECT_EQ(run({"--json", "ping", "-c", "3"}), 3);
    EXPECT_TRUE(data.contains("\"received\":2,\"sent\":3")) << data.constData();
}

}  // namespace

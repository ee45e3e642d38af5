#include "tests/tools/StoragectlFixture.h"

namespace {

using Fate = FakeDaemon::Fate;

constexpr char kTarget[] = "/root/data/a/file";
constexpr char kPartial[] = "/root/data/a/file.part";

class PutTest : public StoragectlFixture {
protected:
    int putFile(const std::vector<std::string>& more = {}) {
        std::vector<std::string> arguments{"put", local("file").toStdString(), kTarget};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return run(arguments);
    }
    /// Lets the nth request of a code meet a fate, once.
    void atRequest(int command, int number, Fate given, std::function<void()> happening = {}) {
        auto seen = std::make_shared<int>(0);
        daemon.fate = [=](const Message& request) {
            if (request.command() != command || ++*seen != number) {
                return Fate::Answered;
            }
            if (happening) {
                happening();
            }
            return given;
        };
    }
};

TEST_F(PutTest, SendsAFileAndMovesItIntoPlace) {
    writeLocal("file", someBytes(1'000'000));
    EXPECT_EQ(putFile(), 0);
    EXPECT_EQ(daemon.files[kTarget].contents, someBytes(1'000'000));
    EXPECT_FALSE(daemon.files.contains(kPartial));
}

TEST_F(PutTest, SendsAnEmptyFile) {
    writeLocal("file", "");
    daemon.files[kTarget] = {"old"};
    EXPECT_EQ(putFile(), 0);
    EXPECT_EQ(daemon.files[kTarget].contents, "");
}

TEST_F(PutTest, NeverOpensWithTruncation) {
    writeLocal("file", someBytes(1'000));
    EXPECT_EQ(putFile(), 0);
    ASSERT_GT(daemon.count(MESSAGE_FILE_OPEN), 0);
    for (const Message& request : daemon.requests) {
        if (request.command() == MESSAGE_FILE_OPEN) {
            const int flags = request.parameterAsInt32(1);
            EXPECT_TRUE(flags == 0x1 || flags == 0x3) << flags;
        }
    }
    EXPECT_EQ(daemon.count(MESSAGE_FILE_TRUNCATE), 0);
}

TEST_F(PutTest, GoesOnFromAPartialFileWhosePrefixIsProved) {
    writeLocal("file", someBytes(1'000'000));
    daemon.files[kPartial] = {someBytes(1'000'000).left(900'000)};
    EXPECT_EQ(putFile({"--json"}), 0);
    EXPECT_EQ(daemon.files[kTarget].contents, someBytes(1'000'000));
    EXPECT_EQ(daemon.count(MESSAGE_FILE_WRITE), 2);
    EXPECT_TRUE(data.contains("\"resumedFrom\":900000")) << data.constData();
}

TEST_F(PutTest, StartsOverByTruncatingWhereThePartialFileDiffersOrIsLonger) {
    writeLocal("file", someBytes(100'000));
    for (const QByteArray& partial : {QByteArray(50'000, 'x'), someBytes(100'001)}) {
        daemon.requests.clear();
        daemon.files[kPartial] = {partial};
        EXPECT_EQ(putFile(), 0);
        EXPECT_EQ(daemon.files[kTarget].contents, someBytes(100'000));
        EXPECT_EQ(daemon.count(MESSAGE_FILE_TRUNCATE), 1);
    }
}

TEST_F(PutTest, ALostWriteIsMadeGood) {
    writeLocal("file", someBytes(2'000'000));
    atRequest(MESSAGE_FILE_WRITE, 5, Fate::LostRequest);
    EXPECT_EQ(putFile(), 0);
    EXPECT_EQ(daemon.files[kTarget].contents, someBytes(2'000'000));
}

TEST_F(PutTest, ADaemonThatRestartsMidwayIsOpenedAnew) {
    writeLocal("file", someBytes(2'000'000));
    atRequest(MESSAGE_FILE_WRITE, 12, Fate::Answered, [this] { daemon.restart(); });
    EXPECT_EQ(putFile(), 0);
    EXPECT_EQ(daemon.files[kTarget].contents, someBytes(2'000'000));
}

TEST_F(PutTest, AMoveWhoseAnswerIsLostIsNotRepeatedAndFoundDone) {
    writeLocal("file", someBytes(100'000));
    atRequest(MESSAGE_FILE_MOVE, 1, Fate::LostReply);
    EXPECT_EQ(putFile(), 0);
    EXPECT_EQ(daemon.count(MESSAGE_FILE_MOVE), 1);
    EXPECT_EQ(daemon.files[kTarget].contents, someBytes(100'000));
}

TEST_F(PutTest, AMoveThatWasLostIsNotRepeatedAndToldSo) {
    writeLocal("file", someBytes(100'000));
    daemon.files[kTarget] = {"old"};
    atRequest(MESSAGE_FILE_MOVE, 1, Fate::LostRequest);
    EXPECT_EQ(putFile(), 1);
    EXPECT_EQ(daemon.count(MESSAGE_FILE_MOVE), 1);
    EXPECT_EQ(daemon.files[kTarget].contents, "old");
    EXPECT_TRUE(talk.contains("the move is not repeated")) << talk.constData();
    daemon.fate = {};
    EXPECT_EQ(putFile(), 0);
    EXPECT_EQ(daemon.files[kTarget].contents, someBytes(100'000));
}

TEST_F(PutTest, WhatTheUnitGarbledIsAnIntegrityFailureAndLeavesTheOldTarget) {
    writeLocal("file", someBytes(100'000));
    daemon.files[kTarget] = {"old"};
    atRequest(MESSAGE_FILE_GENERATE_HASH, 1, Fate::Answered,
              [this] { daemon.files[kPartial].contents[7] = 'X'; });
    EXPECT_EQ(putFile(), 5);
    EXPECT_EQ(daemon.files[kTarget].contents, "old");
}

TEST_F(PutTest, AWriteReplyThatClaimsAnotherLengthIsNoSuccess) {
    writeLocal("file", someBytes(100'000));
    daemon.spoil = [](const Message& request, Message& reply) {
        if (request.command() == MESSAGE_FILE_WRITE) {
            reply.construct(reply.command(), "ii", request.parameterAsInt32(0), 1);
        }
    };
    EXPECT_EQ(putFile({"--retries", "0"}), 1);
    EXPECT_FALSE(daemon.files.contains(kTarget));
}

TEST_F(PutTest, AFullUnitEndsInFailureAfterTheRetries) {
    writeLocal("file", someBytes(100'000));
    daemon.fate = [](const Message& request) {
        return request.command() == MESSAGE_FILE_WRITE ? Fate::Bare : Fate::Answered;
    };
    EXPECT_EQ(putFile({"--retries", "2"}), 1);
    EXPECT_EQ(daemon.count(MESSAGE_FILE_OPEN), 3);
    EXPECT_TRUE(talk.contains("its disk may be full")) << talk.constData();
    EXPECT_FALSE(talk.contains("are kept")) << talk.constData();
}

TEST_F(PutTest, AFullUnitIsLeftWithoutOpenHandles) {
    writeLocal("file", someBytes(100'000));
    daemon.fate = [](const Message& request) {
        return request.command() == MESSAGE_FILE_WRITE ? Fate::Bare : Fate::Answered;
    };
    EXPECT_EQ(putFile(), 1);
    EXPECT_EQ(daemon.count(MESSAGE_FILE_CLOSE), daemon.count(MESSAGE_FILE_OPEN));
}

TEST_F(PutTest, ANameTooLongForItsPartialFileIsToldSo) {
    writeLocal("file", "data");
    daemon.files["/root/data/a/other"] = {};
    daemon.fate = [](const Message& request) {
        return request.command() == MESSAGE_FILE_OPEN ? Fate::Bare : Fate::Answered;
    };
    const std::string name(251, 'x');
    EXPECT_EQ(run({"put", local("file").toStdString(), "/root/data/a/" + name}), 1);
    EXPECT_TRUE(talk.contains("too long")) << talk.constData();
}

TEST_F(PutTest, ALocalFileThatChangesMeanwhileIsNotPutInPlace) {
    writeLocal("file", someBytes(100'000));
    atRequest(MESSAGE_FILE_WRITE, 1, Fate::Answered, [this] { writeLocal("file", "changed"); });
    const int code = putFile();
    EXPECT_TRUE(code == 5 || code == 6) << code;
    EXPECT_FALSE(daemon.files.contains(kTarget));
}

TEST_F(PutTest, ADirectoryGetsTheFileUnderItsOwnName) {
    writeLocal("file", "data");
    daemon.files["/root/data/a/b/other"] = {};
    EXPECT_EQ(run({"put", local("file").toStdString(), "/root/data/a/b"}), 0);
    EXPECT_EQ(daemon.files["/root/data/a/b/file"].contents, "data");
}

TEST_F(PutTest, WhatIsNoRegularLocalFileIsALocalFailure) {
    EXPECT_EQ(putFile(), 6);
    ASSERT_EQ(mkfifo(local("file").constData(), 0600), 0);
    EXPECT_EQ(putFile(), 6);
    EXPECT_EQ(run({"put", folder.path().toStdString(), kTarget}), 6);
    EXPECT_TRUE(daemon.files.isEmpty());
}

TEST_F(PutTest, ALocalFileAboveTheWiresSizesIsRefused) {
    writeLocal("file", "");
    ASSERT_EQ(truncate(local("file").constData(), qint64{1} << 31), 0);
    EXPECT_EQ(putFile(), 7);
    EXPECT_TRUE(daemon.files.isEmpty());
}

TEST_F(PutTest, APathOutsideTheRootsIsUnsafe) {
    writeLocal("file", "data");
    EXPECT_EQ(run({"put", local("file").toStdString(), "/etc/file"}), 7);
}

TEST_F(PutTest, AnInterruptKeepsTheRemotePartialFile) {
    writeLocal("file", someBytes(2'000'000));
    atRequest(MESSAGE_FILE_WRITE, 12, Fate::Answered, [] { storagectl::Interrupt::request(); });
    EXPECT_EQ(putFile(), 130);
    EXPECT_TRUE(daemon.files.contains(kPartial));
    EXPECT_FALSE(daemon.files.contains(kTarget));
}

}  // namespace

#include "tests/tools/StoragectlFixture.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <QDateTime>
#include <QFileInfo>

namespace {

using Fate = FakeDaemon::Fate;

constexpr char kFile[] = "/root/data/a/file";

class GetTest : public StoragectlFixture {
protected:
    int getFile(const std::vector<std::string>& more = {}) {
        std::vector<std::string> arguments{"get", kFile, "-o", local("file").toStdString()};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return run(arguments);
    }
    QByteArray& contents() { return daemon.files[kFile].contents; }
};

TEST_F(GetTest, FetchesAFileWithItsModificationTime) {
    daemon.files[kFile] = {someBytes(1'000'000), 1'600'000'123};
    EXPECT_EQ(getFile(), 0);
    EXPECT_EQ(readLocal("file"), contents());
    EXPECT_EQ(QFileInfo(local("file")).lastModified().toSecsSinceEpoch(), 1'600'000'123);
    EXPECT_FALSE(existsLocal("file.part"));
}

TEST_F(GetTest, FetchesAnEmptyFile) {
    daemon.files[kFile] = {};
    EXPECT_EQ(getFile(), 0);
    EXPECT_EQ(readLocal("file"), "");
}

TEST_F(GetTest, NeverHasMoreThanEightReadsUnderWay) {
    daemon.files[kFile] = {someBytes(3'000'000)};
    int reads = 0;
    int most = 0;
    daemon.fate = [&](const Message& request) {
        reads += request.command() == MESSAGE_FILE_READ ? 1 : 0;
        return Fate::Answered;
    };
    daemon.spoil = [&](const Message& request, Message&) {
        most = qMax(most, reads);
        reads -= request.command() == MESSAGE_FILE_READ ? 1 : 0;
    };
    EXPECT_EQ(getFile(), 0);
    EXPECT_LE(most, 8);
}

TEST_F(GetTest, GoesOnFromAPartialFileWhosePrefixIsProved) {
    daemon.files[kFile] = {someBytes(1'000'000)};
    writeLocal("file.part", contents().left(900'000));
    EXPECT_EQ(getFile({"--json"}), 0);
    EXPECT_EQ(readLocal("file"), contents());
    EXPECT_TRUE(data.contains("\"resumedFrom\":900000")) << data.constData();
    // The probe for a larger file, and two chunks.
    EXPECT_EQ(daemon.count(MESSAGE_FILE_READ), 3);
}

TEST_F(GetTest, StartsOverWhereThePartialFileHasOtherContents) {
    daemon.files[kFile] = {someBytes(300'000)};
    writeLocal("file.part", QByteArray(100'000, 'x'));
    EXPECT_EQ(getFile(), 0);
    EXPECT_EQ(readLocal("file"), contents());
    EXPECT_TRUE(talk.contains("starting over"));
}

TEST_F(GetTest, StartsOverWhereThePartialFileIsLonger) {
    daemon.files[kFile] = {someBytes(300'000)};
    writeLocal("file.part", contents() + "more");
    EXPECT_EQ(getFile(), 0);
    EXPECT_EQ(readLocal("file"), contents());
}

TEST_F(GetTest, ALostReplyIsAskedForAgainAfterTheTimeOut) {
    daemon.files[kFile] = {someBytes(2'000'000)};
    bool isLost = false;
    daemon.fate = [&](const Message& request) {
        const bool loses = !isLost && request.parameterAsInt32(1) == 3 * 65536;
        isLost = isLost || loses;
        return loses ? Fate::LostReply : Fate::Answered;
    };
    const quint32 before = clock.tick;
    EXPECT_EQ(getFile({"--timeout", "7"}), 0);
    EXPECT_EQ(readLocal("file"), contents());
    EXPECT_TRUE(isLost);
    EXPECT_LT(clock.tick - before, 8'000u);
}

TEST_F(GetTest, ADaemonThatRestartsMidwayIsOpenedAnew) {
    daemon.files[kFile] = {someBytes(2'000'000)};
    int reads = 0;
    daemon.fate = [&](const Message& request) {
        if (request.command() == MESSAGE_FILE_READ && ++reads == 12) {
            daemon.restart();
        }
        return Fate::Answered;
    };
    EXPECT_EQ(getFile(), 0);
    EXPECT_EQ(readLocal("file"), contents());
    EXPECT_EQ(daemon.count(MESSAGE_FILE_OPEN), 2);
}

TEST_F(GetTest, ABrokerThatComesBackMidwayIsUsedAgainAtOnce) {
    daemon.files[kFile] = {someBytes(2'000'000)};
    int reads = 0;
    daemon.fate = [&](const Message& request) {
        if (request.command() == MESSAGE_FILE_READ && ++reads == 12) {
            daemon.transport().setBrokerPresent(false);
            daemon.transport().setBrokerPresent(true);
        }
        return Fate::Answered;
    };
    const quint32 start = clock.tick;
    EXPECT_EQ(getFile(), 0);
    EXPECT_LT(clock.tick - start, 1000U);
    EXPECT_EQ(readLocal("file"), contents());
    EXPECT_EQ(daemon.connects, 2);
}

TEST_F(GetTest, ABrokerThatStaysAwayEndsInTenWithThePartialFileKept) {
    daemon.files[kFile] = {someBytes(2'000'000)};
    int reads = 0;
    daemon.fate = [&](const Message& request) {
        if (request.command() == MESSAGE_FILE_READ && ++reads == 12) {
            daemon.transport().setBrokerPresent(false);
        }
        return Fate::Answered;
    };
    EXPECT_EQ(getFile({"--retries", "2"}), 10);
    const QByteArray partial = readLocal("file.part");
    EXPECT_EQ(partial, contents().left(partial.size()));
    EXPECT_GT(partial.size(), 0);
    EXPECT_TRUE(talk.contains("the same command goes on from there")) << talk.constData();
    EXPECT_FALSE(existsLocal("file"));
}

TEST_F(GetTest, ADaemonThatVanishesForGoodEndsInElevenAfterTheRetries) {
    daemon.files[kFile] = {someBytes(2'000'000)};
    int reads = 0;
    daemon.fate = [&](const Message& request) {
        reads += request.command() == MESSAGE_FILE_READ ? 1 : 0;
        return reads >= 12 ? Fate::LostRequest : Fate::Answered;
    };
    const quint32 before = clock.tick;
    EXPECT_EQ(getFile({"--retries", "2", "--timeout", "5"}), 11);
    EXPECT_GE(clock.tick - before, 15'000u);
    EXPECT_LT(clock.tick - before, 16'000u);
}

TEST_F(GetTest, ADaemonThatNeverAnsweredIsNotWaitedForAgain) {
    daemon.fate = [](const Message&) { return Fate::LostRequest; };
    const quint32 before = clock.tick;
    EXPECT_EQ(getFile({"--timeout", "5"}), 11);
    EXPECT_LT(clock.tick - before, 6'000u);
}

TEST_F(GetTest, ProgressRestartsTheTimeOut) {
    daemon.files[kFile] = {someBytes(2'000'000)};
    daemon.fate = [&](const Message&) {
        clock.tick += 4'000;
        return Fate::Answered;
    };
    EXPECT_EQ(getFile({"--timeout", "40", "--retries", "0"}), 0);
}

TEST_F(GetTest, AFileThatGrewIsFetchedAsItWasAndSaidSo) {
    daemon.files[kFile] = {someBytes(500'000)};
    const QByteArray asItWas = contents();
    daemon.fate = [&](const Message& request) {
        if (request.command() == MESSAGE_FILE_READ && request.parameterAsInt32(1) == 0) {
            contents() += "more";
        }
        return Fate::Answered;
    };
    EXPECT_EQ(getFile(), 0);
    EXPECT_EQ(readLocal("file"), asItWas);
    EXPECT_TRUE(talk.contains("grew to 500004 bytes")) << talk.constData();
}

TEST_F(GetTest, AFileThatGrewAboveTheWiresSizesIsFetchedAsItWas) {
    daemon.files[kFile] = {someBytes(500)};
    daemon.fate = [&](const Message& request) {
        if (request.command() == MESSAGE_FILE_READ && request.parameterAsInt32(1) == 0) {
            daemon.pretendedSizes[kFile] = qint64{3} << 30;
        }
        return Fate::Answered;
    };
    EXPECT_EQ(getFile(), 0);
    EXPECT_EQ(readLocal("file"), someBytes(500));
    EXPECT_TRUE(talk.contains("grew to more than 2147483647 bytes")) << talk.constData();
}

TEST_F(GetTest, APercentSignInANameIsPlain) {
    constexpr char kPercent[] = "/root/data/a/100%1%2%3";
    daemon.files[kPercent] = {someBytes(500)};
    daemon.fate = [&](const Message& request) {
        const bool isFirstRead =
            request.command() == MESSAGE_FILE_READ && request.parameterAsInt32(1) == 0;
        daemon.files[kPercent].contents += isFirstRead ? "more" : "";
        return Fate::Answered;
    };
    EXPECT_EQ(run({"get", kPercent, "-o", local("%1%2%3").toStdString()}), 0);
    EXPECT_TRUE(talk.contains("/100%1%2%3: grew to 504 bytes meanwhile; fetched as it was, 500 "))
        << talk.constData();
    EXPECT_TRUE(talk.contains("/%1%2%3, 500 bytes in ")) << talk.constData();
}

TEST_F(GetTest, AFileThatShrinksIsAnIntegrityFailure) {
    daemon.files[kFile] = {someBytes(500'000)};
    daemon.fate = [&](const Message& request) {
        if (request.command() == MESSAGE_FILE_READ && request.parameterAsInt32(1) == 131'072) {
            contents().truncate(1'000);
        }
        return Fate::Answered;
    };
    EXPECT_EQ(getFile(), 5);
    EXPECT_TRUE(talk.contains("became shorter")) << talk.constData();
}

TEST_F(GetTest, AWrongHashAtTheEndIsAnIntegrityFailureAndLeavesTheOldTarget) {
    daemon.files[kFile] = {someBytes(500'000)};
    writeLocal("file", "old");
    daemon.spoil = [](const Message& request, Message& reply) {
        if (request.command() == MESSAGE_FILE_GENERATE_HASH) {
            reply.construct(request.command(), "iiB", request.parameterAsInt32(0), 0, 16,
                            "0123456789abcdef");
        }
    };
    EXPECT_EQ(getFile(), 5);
    EXPECT_EQ(readLocal("file"), "old");
}

TEST_F(GetTest, AShortReadIsNotTakenForData) {
    daemon.files[kFile] = {someBytes(100'000)};
    daemon.spoil = [](const Message& request, Message& reply) {
        if (request.command() == MESSAGE_FILE_READ && request.parameterAsInt32(1) == 65'536) {
            reply.construct(reply.command(), "iiB", request.parameterAsInt32(0),
                            request.parameterAsInt32(1), 5, "short");
        }
    };
    EXPECT_EQ(getFile({"--retries", "3"}), 1);
    EXPECT_EQ(readLocal("file.part"), contents().left(65'536));
}

TEST_F(GetTest, GarbageRepliesAreNotTakenForData) {
    daemon.files[kFile] = {someBytes(100'000)};
    daemon.spoil = [](const Message& request, Message& reply) {
        if (request.command() == MESSAGE_FILE_READ && request.parameterAsInt32(1) == 0) {
            reply.construct(reply.command(), "SSS", "what", "is", "this");
        }
    };
    EXPECT_EQ(getFile({"--retries", "1"}), 1);
    EXPECT_TRUE(talk.contains("does not fit")) << talk.constData();
    EXPECT_FALSE(existsLocal("file.part"));
}

TEST_F(GetTest, RepliesToOtherClientsAndForgedFramesAreIgnored) {
    daemon.files[kFile] = {someBytes(100'000)};
    daemon.fate = [&](const Message& request) {
        Message forged;
        forged.construct(request.command(), "");
        const QByteArray bytes(forged.buffer(), forged.length());
        daemon.transport().deliver("ConnectionManager.clientMessage", QByteArray(4, '\0') + bytes);
        daemon.transport().deliver("ConnectionManager.clientMessage", "abc");
        daemon.transport().deliver("ConnectionManager.clientMessage", "");
        return Fate::Answered;
    };
    EXPECT_EQ(getFile(), 0);
    EXPECT_EQ(readLocal("file"), contents());
}

TEST_F(GetTest, AnInterruptKeepsThePartialFileAndSaysHowToGoOn) {
    daemon.files[kFile] = {someBytes(2'000'000)};
    int reads = 0;
    daemon.fate = [&](const Message& request) {
        if (request.command() == MESSAGE_FILE_READ && ++reads == 12) {
            storagectl::Interrupt::request();
        }
        return Fate::Answered;
    };
    EXPECT_EQ(getFile(), 130);
    EXPECT_GT(readLocal("file.part").size(), 6);
    EXPECT_TRUE(talk.contains("the same command goes on from there")) << talk.constData();
    EXPECT_FALSE(existsLocal("file"));
}

TEST_F(GetTest, AFileAboveTheWiresSizesIsRefused) {
    daemon.files[kFile] = {"x"};
    for (const qint64 size : {qint64{1} << 31, qint64{3} << 30}) {
        daemon.pretendedSizes[kFile] = size;
        EXPECT_EQ(getFile(), 7) << size;
        EXPECT_TRUE(talk.contains("32 bits")) << talk.constData();
    }
}

TEST_F(GetTest, AWrappedSizeThatLooksSmallIsFoundOut) {
    daemon.files[kFile] = {"x"};
    daemon.pretendedSizes[kFile] = (qint64{1} << 32) + 100;
    EXPECT_EQ(getFile(), 7);
    EXPECT_FALSE(existsLocal("file"));
}

TEST_F(GetTest, AMissingFileIsNotFoundAndLeavesNothing) {
    daemon.files["/root/data/a/other"] = {};
    EXPECT_EQ(getFile(), 4);
    EXPECT_FALSE(existsLocal("file.part"));
}

TEST_F(GetTest, ADirectoryIsRefusedAsOne) {
    daemon.files["/root/data/a/file/below"] = {};
    EXPECT_EQ(getFile(), 1);
    EXPECT_TRUE(talk.contains("is a directory"));
}

TEST_F(GetTest, APathOutsideTheRootsIsUnsafe) {
    EXPECT_EQ(run({"get", "/etc/passwd", "-o", local("file").toStdString()}), 7);
}

TEST_F(GetTest, ANameOfWildcardsMeansItselfOnly) {
    daemon.files["/root/data/a/*"] = {"star", 1'600'000'001};
    daemon.files["/root/data/a/b"] = {"other", 1'600'000'002};
    EXPECT_EQ(run({"get", "/root/data/a/*", "-o", local("out").toStdString()}), 0);
    EXPECT_EQ(readLocal("out"), "star");
    EXPECT_EQ(QFileInfo(local("out")).lastModified().toSecsSinceEpoch(), 1'600'000'001);
}

TEST_F(GetTest, AFileDirectlyBelowARootIsFetchedWithoutItsTime) {
    daemon.files["/root/data/top"] = {"top"};
    EXPECT_EQ(run({"get", "/root/data/top", "-o", local("top").toStdString(), "--json"}), 0);
    EXPECT_EQ(readLocal("top"), "top");
    EXPECT_TRUE(data.contains("\"modified\":null")) << data.constData();
}

TEST_F(GetTest, ASymbolicLinkAsPartialFileIsLeftAlone) {
    daemon.files[kFile] = {"data"};
    writeLocal("precious", "precious");
    ASSERT_TRUE(QFile::link(local("precious"), local("file.part")));
    EXPECT_EQ(getFile(), 7);
    EXPECT_EQ(readLocal("precious"), "precious");
}

TEST_F(GetTest, ASymbolicLinkAsTargetIsLeftAlone) {
    daemon.files[kFile] = {"data"};
    writeLocal("precious", "precious");
    ASSERT_TRUE(QFile::link(local("precious"), local("file")));
    EXPECT_EQ(getFile(), 7);
    EXPECT_TRUE(QFileInfo(local("file")).isSymLink());
    EXPECT_EQ(readLocal("precious"), "precious");
}

TEST_F(GetTest, APartialFileThatAnotherRunWritesIsLeftAlone) {
    daemon.files[kFile] = {"data"};
    writeLocal("file.part", "theirs");
    const int theirs = open(local("file.part").constData(), O_RDWR);
    ASSERT_EQ(flock(theirs, LOCK_EX), 0);
    EXPECT_EQ(getFile(), 6);
    EXPECT_EQ(readLocal("file.part"), "theirs");
    close(theirs);
    EXPECT_EQ(getFile(), 0);
}

TEST_F(GetTest, ASpecialFileAsTargetIsLeftAlone) {
    daemon.files[kFile] = {"data"};
    ASSERT_EQ(mkfifo(local("file").constData(), 0600), 0);
    EXPECT_EQ(getFile(), 7);
}

TEST_F(GetTest, AnUnwritableFolderIsALocalFailure) {
    daemon.files[kFile] = {"data"};
    EXPECT_EQ(run({"get", kFile, "-o", local("no/such/folder").toStdString()}), 6);
}

TEST_F(GetTest, AFileBeyondTheLimitOnFileSizesIsALocalFailure) {
    contents() = someBytes(100'000);
    const rlimit limit = {10'000, 10'000};
    const auto getFileWithTheLimit = [this, &limit] {
        storagectl::Interrupt::install();
        setrlimit(RLIMIT_FSIZE, &limit);
        _exit(getFile());
    };
    EXPECT_EXIT(getFileWithTheLimit(), testing::ExitedWithCode(6), "");
    EXPECT_FALSE(existsLocal("file"));
}

TEST_F(GetTest, SeveralFilesGoToADirectory) {
    daemon.files["/root/data/a/one"] = {"1"};
    daemon.files["/root/data/a/two"] = {"2"};
    const std::string target = folder.path().toStdString();
    EXPECT_EQ(run({"get", "/root/data/a/one", "/root/data/a/no", "/root/data/a/two", "-o", target}),
              3);
    EXPECT_EQ(readLocal("one"), "1");
    EXPECT_EQ(readLocal("two"), "2");
    EXPECT_EQ(run({"get", "/root/data/a/one", "/root/data/a/two", "-o", target + "/name"}), 2);
}

TEST_F(GetTest, ASecondFileOfOneNameDoesNotReplaceTheFirst) {
    daemon.files["/root/data/a/file"] = {"one"};
    daemon.files["/root/data/b/file"] = {"two"};
    EXPECT_EQ(
        run({"get", "/root/data/a/file", "/root/data/b/file", "-o", folder.path().toStdString()}),
        3);
    EXPECT_EQ(readLocal("file"), "one");
    EXPECT_TRUE(talk.contains("would replace")) << talk.constData();
}

TEST_F(GetTest, APathWithoutANameHasNowhereToGo) {
    EXPECT_EQ(run({"get", "/root/data/a/..", "-o", folder.path().toStdString()}), 7);
}

TEST_F(GetTest, CatWritesTheBytesAndNothingElse) {
    daemon.files[kFile] = {someBytes(700'000)};
    EXPECT_EQ(run({"cat", kFile}), 0);
    EXPECT_EQ(data, contents());
    EXPECT_EQ(talk, "");
}

TEST_F(GetTest, CatDoesNotWaitAgainForADaemonThatNeverAnswered) {
    daemon.fate = [](const Message&) { return Fate::LostRequest; };
    const quint32 before = clock.tick;
    EXPECT_EQ(run({"cat", kFile, "--timeout", "5"}), 11);
    EXPECT_LT(clock.tick - before, 6'000u);
}

TEST_F(GetTest, CatOfAFileThatChangedOverABreakIsAnIntegrityFailure) {
    daemon.files[kFile] = {someBytes(2'000'000)};
    int reads = 0;
    daemon.fate = [&](const Message& request) {
        if (request.command() == MESSAGE_FILE_READ && ++reads == 12) {
            daemon.restart();
            contents()[5] = 'X';
            contents()[6] = 'Y';
        }
        return Fate::Answered;
    };
    EXPECT_EQ(run({"cat", kFile}), 5);
}

}  // namespace

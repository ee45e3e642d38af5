#include "tests/tools/FakeDownloads.h"
#include "tests/tools/StoragectlFixture.h"

#include <sys/stat.h>
#include <QCryptographicHash>
#include <QDateTime>
#include <QDir>
#include <QFileInfo>

namespace {

constexpr char kFile[] = "/root/data/a/file";
constexpr char kTree[] = "/root/data/a/tree";

QByteArray md5(const QByteArray& bytes) {
    return QCryptographicHash::hash(bytes, QCryptographicHash::Md5).toBase64();
}

/// get over the download job.
class FetchTest : public StoragectlFixture {
protected:
    int getFile(const std::vector<std::string>& more = {}) {
        std::vector<std::string> arguments{"get", kFile, "-o", local("file").toStdString()};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return run(arguments);
    }
    int getTree(const std::vector<std::string>& more = {}) {
        std::vector<std::string> arguments{"get", "-r", kTree, "-o", folder.path().toStdString()};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return run(arguments);
    }
    QByteArray& contents() { return daemon.files[kFile].contents; }
    void addToTree(const QByteArray& name, const QByteArray& bytes) {
        daemon.files[kTree + QByteArray("/") + name] = {bytes};
    }
    static QByteArray claim(const QByteArray& prefix) {
        return kFile + QByteArray("|") + md5(prefix) + '|' + QByteArray::number(prefix.size());
    }

    FakeDownloads downloads{daemon};
};

TEST_F(FetchTest, AFileArrivesIsProvedAndGetsItsTime) {
    daemon.files[kFile] = {someBytes(1'000'000), 1'600'000'123};
    EXPECT_EQ(getFile(), 0);
    EXPECT_EQ(readLocal("file"), contents());
    EXPECT_EQ(QFileInfo(local("file")).lastModified().toSecsSinceEpoch(), 1'600'000'123);
    EXPECT_FALSE(existsLocal("file.part"));
    ASSERT_EQ(downloads.requests.size(), 2U);
    EXPECT_EQ(downloads.requests[0], QByteArrayList{kFile});
    EXPECT_EQ(downloads.requests[1], QByteArrayList{claim(contents())});
    EXPECT_EQ(daemon.count(MESSAGE_FILE_READ), 0);
    EXPECT_TRUE(talk.contains(" bytes on the wire")) << talk.constData();
}

TEST_F(FetchTest, EveryReportGrantsElevenMessages) {
    daemon.files[kFile] = {someBytes(1'000'000)};
    EXPECT_EQ(getFile(), 0);
    EXPECT_GT(downloads.reports.size(), 10U);
    for (const int count : downloads.reports) {
        EXPECT_EQ(count, 463);
    }
}

TEST_F(FetchTest, GoesOnFromAPartialFileWhosePrefixIsProved) {
    daemon.files[kFile] = {someBytes(1'000'000)};
    writeLocal("file.part", contents().left(900'000));
    EXPECT_EQ(getFile({"--json"}), 0);
    EXPECT_EQ(readLocal("file"), contents());
    EXPECT_EQ(downloads.requests[0], QByteArrayList{claim(contents().left(900'000))});
    EXPECT_TRUE(data.contains("\"resumedFrom\":900000")) << data.constData();
}

TEST_F(FetchTest, StartsOverWhereThePartialFileHasOtherContents) {
    daemon.files[kFile] = {someBytes(300'000)};
    writeLocal("file.part", QByteArray(100'000, 'x'));
    EXPECT_EQ(getFile(), 0);
    EXPECT_EQ(readLocal("file"), contents());
    EXPECT_TRUE(talk.contains("starting over")) << talk.constData();
}

TEST_F(FetchTest, AGrownFileIsGoneOnFromTheLocalOneWhichStaysUntilTheRename) {
    daemon.files[kFile] = {someBytes(300'000)};
    writeLocal("file", contents().left(200'000));
    downloads.onMessage = [this](int) {
        EXPECT_EQ(readLocal("file"), contents().left(200'000));
        return true;
    };
    EXPECT_EQ(getFile({"--json"}), 0);
    EXPECT_EQ(readLocal("file"), contents());
    EXPECT_TRUE(data.contains("\"resumedFrom\":200000")) << data.constData();
}

TEST_F(FetchTest, AFileThatIsThereIsProvedWithoutBeingSentAndGetsItsTime) {
    daemon.files[kFile] = {someBytes(300'000), 1'600'000'123};
    writeLocal("file", contents());
    EXPECT_EQ(getFile(), 0);
    EXPECT_EQ(downloads.requests.size(), 1U);
    EXPECT_EQ(QFileInfo(local("file")).lastModified().toSecsSinceEpoch(), 1'600'000'123);
    EXPECT_FALSE(existsLocal("file.part"));
}

TEST_F(FetchTest, AnotherFileOfTheNameIsReplacedOnlyOnceTheNewOneIsProved) {
    daemon.files[kFile] = {someBytes(300'000)};
    writeLocal("file", "old");
    downloads.onMessage = [](int number) { return number < 10; };
    EXPECT_EQ(getFile({"--retries", "0", "--timeout", "1"}), 11);
    EXPECT_EQ(readLocal("file"), "old");
    downloads.onMessage = {};
    EXPECT_EQ(getFile(), 0);
    EXPECT_EQ(readLocal("file"), contents());
}

TEST_F(FetchTest, ALostMessageEndsInATimeOutAndTheNextAttemptGoesOn) {
    daemon.files[kFile] = {someBytes(1'000'000)};
    downloads.onMessage = [](int number) { return number != 40; };
    const quint32 before = clock.tick;
    EXPECT_EQ(getFile({"--timeout", "7"}), 0);
    EXPECT_EQ(readLocal("file"), contents());
    EXPECT_TRUE(talk.contains("trying again")) << talk.constData();
    EXPECT_LT(clock.tick - before, 8'000U);
}

TEST_F(FetchTest, ABrokerThatComesBackMidwayIsUsedAgainAtOnce) {
    daemon.files[kFile] = {someBytes(1'000'000)};
    downloads.onMessage = [this](int number) {
        if (number == 40) {
            daemon.transport().setBrokerPresent(false);
            daemon.transport().setBrokerPresent(true);
        }
        return true;
    };
    const quint32 before = clock.tick;
    EXPECT_EQ(getFile(), 0);
    EXPECT_EQ(readLocal("file"), contents());
    EXPECT_LT(clock.tick - before, 1'500U);
}

TEST_F(FetchTest, ADaemonThatNeverAnswersIsNotWaitedForAgain) {
    daemon.files[kFile] = {someBytes(1'000'000)};
    daemon.fate = [](const Message& request) {
        return request.command() == MESSAGE_LZF_DOWNLOAD ? FakeDaemon::Fate::LostRequest
                                                         : FakeDaemon::Fate::Answered;
    };
    EXPECT_EQ(getFile({"--retries", "2", "--timeout", "5"}), 11);
}

TEST_F(FetchTest, ADamagedStreamIsTriedAgainAndNeverTakenForTheFile) {
    daemon.files[kFile] = {someBytes(1'000'000)};
    int streams = 0;
    downloads.spoil = [&streams](QByteArray& stream) {
        if (++streams == 1) {
            // The type of the third record.
            stream[2 * (3 + 64'512)] = '\x7f';
        }
    };
    EXPECT_EQ(getFile(), 0);
    EXPECT_EQ(readLocal("file"), contents());
    EXPECT_TRUE(talk.contains("damaged")) << talk.constData();
}

TEST_F(FetchTest, AByteThatChangedOnItsWayIsFoundByTheProofAndSentAgain) {
    daemon.files[kFile] = {someBytes(200'000)};
    int streams = 0;
    downloads.spoil = [&streams](QByteArray& stream) {
        if (++streams == 1) {
            stream[100'000] = static_cast<char>(stream[100'000] ^ 1);
        }
    };
    EXPECT_EQ(getFile(), 0);
    EXPECT_EQ(readLocal("file"), contents());
    EXPECT_EQ(streams, 3);
}

TEST_F(FetchTest, AFileThatIsAnotherOneEachTimeIsGivenUpAsAnIntegrityFailure) {
    daemon.files[kFile] = {someBytes(200'000)};
    writeLocal("file", "old");
    downloads.spoil = [this](QByteArray&) { contents()[0] = static_cast<char>(contents()[0] + 1); };
    EXPECT_EQ(getFile(), 5);
    EXPECT_EQ(readLocal("file"), "old");
    EXPECT_LT(downloads.requests.size(), 10U);
}

TEST_F(FetchTest, AFileThatGrowsIsFetchedAsItWas) {
    daemon.files[kFile] = {someBytes(200'000)};
    const QByteArray before = contents();
    downloads.spoil = [this](QByteArray&) { contents() += "more"; };
    EXPECT_EQ(getFile(), 0);
    EXPECT_EQ(readLocal("file"), before);
    EXPECT_TRUE(talk.contains("grew")) << talk.constData();
}

TEST_F(FetchTest, AFileThatVanishesBeforeItIsProvedIsNotPutInPlace) {
    daemon.files[kFile] = {someBytes(200'000)};
    downloads.spoil = [this](QByteArray&) { daemon.files.remove(kFile); };
    EXPECT_EQ(getFile(), 4);
    EXPECT_FALSE(existsLocal("file"));
    EXPECT_TRUE(talk.contains("vanished")) << talk.constData();
}

TEST_F(FetchTest, AStreamThatSaysTooLittleOrTooMuchIsNeverTakenForDone) {
    daemon.files[kFile] = {someBytes(200'000)};
    downloads.spoil = [](QByteArray& stream) { stream = FakeDownloads::record(4); };
    EXPECT_EQ(getFile({"--retries", "2"}), 1);
    downloads.spoil = [](QByteArray& stream) {
        stream = FakeDownloads::record(5, "x") + FakeDownloads::record(5, "y");
    };
    EXPECT_EQ(getFile({"--retries", "2"}), 1);
    EXPECT_FALSE(existsLocal("file"));
    EXPECT_LT(downloads.requests.size(), 10U);
}

TEST_F(FetchTest, WhereTheDaemonHasNoRoomFilesAreReadPieceByPiece) {
    daemon.files[kFile] = {someBytes(1'000'000)};
    downloads.refuses = true;
    EXPECT_EQ(getFile(), 0);
    EXPECT_EQ(readLocal("file"), contents());
    EXPECT_GT(daemon.count(MESSAGE_FILE_READ), 10);
    EXPECT_TRUE(talk.contains("piece by piece")) << talk.constData();
}

TEST_F(FetchTest, ASmallFileIsReadAndNotDownloaded) {
    daemon.files[kFile] = {"small"};
    EXPECT_EQ(getFile(), 0);
    EXPECT_TRUE(downloads.requests.empty());
    EXPECT_EQ(readLocal("file"), "small");
}

TEST_F(FetchTest, ATreeArrivesWithItsNames) {
    const QByteArrayList names = {"a",         "sub/b",        "sub/deep/c",
                                  ".hidden/d", "pipe|name",    "what?",
                                  "\xc3\xbc",  "\xe2\x82\xac", "sub/\xe2\x82\xac/e"};
    for (const QByteArray& name : names) {
        addToTree(name, name + someBytes(70'000));
    }
    addToTree("empty", "");
    EXPECT_EQ(getTree(), 0) << talk.constData();
    for (const QByteArray& name : names) {
        EXPECT_EQ(readLocal("tree/" + name), name + someBytes(70'000)) << name.constData();
    }
    EXPECT_EQ(readLocal("tree/empty"), "");
    EXPECT_TRUE(talk.contains("10 files")) << talk.constData();
}

TEST_F(FetchTest, ManyFilesGoInOneRequest) {
    for (int i = 0; i < 200; ++i) {
        addToTree(QByteArray::number(i), someBytes(i + 1));
    }
    EXPECT_EQ(getTree(), 0);
    // The directory, the files, and their proof.
    ASSERT_EQ(downloads.requests.size(), 3U);
    EXPECT_EQ(downloads.requests[1].size(), 200);
    EXPECT_EQ(downloads.requests[2].size(), 200);
}

TEST_F(FetchTest, WhatVanishesFromATreeIsToldAndTheRestArrives) {
    for (const QByteArray name : {"a", "b", "c"}) {
        addToTree(name, name + someBytes(100'000));
    }
    downloads.failures[kTree + QByteArray("/b")] = "Open error";
    EXPECT_EQ(getTree(), 3);
    EXPECT_TRUE(existsLocal("tree/a") && existsLocal("tree/c"));
    EXPECT_FALSE(existsLocal("tree/b") || existsLocal("tree/b.part"));
    EXPECT_TRUE(talk.contains("could not read it (Open error)")) << talk.constData();
    EXPECT_TRUE(talk.contains("1 failed")) << talk.constData();
}

TEST_F(FetchTest, NamesThatLeadOutOfTheTreeAreLeftOut) {
    addToTree("good", "good");
    addToTree("xx", "1");
    addToTree("a.b", "2");
    downloads.spoil = [](QByteArray& stream) { stream.replace("xx", "..").replace("a.b", "a/b"); };
    EXPECT_EQ(getTree(), 3);
    EXPECT_EQ(readLocal("tree/good"), "good");
    EXPECT_TRUE(talk.contains("no name")) << talk.constData();
    EXPECT_EQ(QDir(local("tree")).entryList(QDir::AllEntries | QDir::NoDotAndDotDot),
              QStringList{"good"});
}

TEST_F(FetchTest, ALocalLinkInTheTreeIsNotFollowed) {
    addToTree("sub/file", someBytes(100'000));
    addToTree("top", "top");
    ASSERT_TRUE(QDir().mkpath(local("tree")) && QDir().mkpath(local("elsewhere")));
    ASSERT_TRUE(QFile::link(local("elsewhere"), local("tree/sub")));
    EXPECT_EQ(getTree(), 3);
    EXPECT_FALSE(existsLocal("elsewhere/file"));
    EXPECT_EQ(readLocal("tree/top"), "top");
    EXPECT_TRUE(talk.contains("not a directory, left alone")) << talk.constData();
}

TEST_F(FetchTest, ATreeThatIsThereIsProvedAndNotSentAgain) {
    addToTree("a", someBytes(500'000));
    addToTree("b", someBytes(300'000));
    EXPECT_EQ(getTree(), 0);
    EXPECT_EQ(getTree({"--json"}), 0);
    EXPECT_TRUE(data.contains("\"resumedFrom\":800000")) << data.constData();
    EXPECT_TRUE(data.contains("\"wireBytes\":6,") || data.contains("\"wireBytes\":9"))
        << data.constData();
}

TEST_F(FetchTest, ATreeThatIsNotThereIsNotFound) {
    EXPECT_EQ(getTree(), 4);
    EXPECT_FALSE(existsLocal("tree"));
}

TEST_F(FetchTest, AFileIsATreeOfOneAndTheTargetsDirectoryIsMade) {
    daemon.files[kFile] = {someBytes(100'000)};
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(run({"get", "-r", kFile, "-o", local("new").toStdString()}), 0);
        EXPECT_EQ(readLocal("new/file"), contents());
    }
}

TEST_F(FetchTest, ABreakInATreeLeavesWholeFilesAndTheNextRunGoesOn) {
    for (int i = 0; i < 20; ++i) {
        addToTree(QByteArray::number(i), QByteArray::number(i) + someBytes(100'000));
    }
    downloads.onMessage = [this](int number) {
        if (number == 100) {
            daemon.transport().setBrokerPresent(false);
        }
        return true;
    };
    EXPECT_EQ(getTree({"--retries", "1", "--timeout", "2"}), 10);
    EXPECT_TRUE(talk.contains("20 files are left")) << talk.constData();
    downloads.onMessage = {};
    downloads.requests.clear();
    EXPECT_EQ(getTree(), 0);
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(readLocal("tree/" + QByteArray::number(i)),
                  QByteArray::number(i) + someBytes(100'000));
    }
    EXPECT_TRUE(downloads.requests[1][0].contains('|'));
}

TEST_F(FetchTest, ARateIsKeptToByTheClock) {
    daemon.files[kFile] = {someBytes(500'000)};
    const quint32 before = clock.tick;
    EXPECT_EQ(getFile({"--bwlimit", "50K"}), 0);
    EXPECT_NEAR(clock.tick - before, 500'000 / 51.2, 1'000);
    EXPECT_EQ(readLocal("file"), contents());
}

TEST_F(FetchTest, ARateBelowAMessageInTheTimeOutIsNoTimeOut) {
    daemon.files[kFile] = {someBytes(40'000)};
    EXPECT_EQ(getFile({"--bwlimit", "200", "--timeout", "3", "--retries", "0"}), 0);
    EXPECT_EQ(readLocal("file"), contents());
}

}  // namespace

#include "tests/support/FailingWrite.h"
#include "tests/tools/FetchFixture.h"

#include <QDateTime>
#include <QDir>
#include <QFileInfo>

namespace {

/// get over the download job.
class FetchTest : public FetchFixture {};

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
    EXPECT_FALSE(talk.contains("were there")) << talk.constData();
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

TEST_F(FetchTest, AFileThatGrowsIsFetchedAsItWas) {
    daemon.files[kFile] = {someBytes(200'000)};
    const QByteArray before = contents();
    downloads.spoil = [this](QByteArray&) { contents() += "more"; };
    EXPECT_EQ(getFile(), 0);
    EXPECT_EQ(readLocal("file"), before);
    EXPECT_TRUE(talk.contains("grew")) << talk.constData();
}

TEST_F(FetchTest, LongNamesAreSpreadOverRequests) {
    for (int i = 0; i < 200; ++i) {
        addToTree(QByteArray(250, 'd') + '/' + QByteArray::number(i).leftJustified(250, 'n'), "x");
    }
    EXPECT_EQ(getTree(), 0);
    ASSERT_GT(downloads.requests.size(), 2U);
    EXPECT_GT(downloads.requests[2].size(), 100);
    EXPECT_LT(downloads.requests[2].size(), 200);
}

TEST_F(FetchTest, AFileOfATreeThatGrowsIsFetchedAsItWas) {
    addToTree("a", someBytes(100'000));
    addToTree("b", someBytes(100'000));
    downloads.spoil = [this](QByteArray&) {
        daemon.files[kTree + QByteArray("/a")].contents += 'x';
    };
    EXPECT_EQ(getTree(), 0);
    // One was written between the listing and the opening.
    EXPECT_EQ(readLocal("tree/a"), someBytes(100'000) + 'x');
    EXPECT_TRUE(talk.contains("a: grew meanwhile")) << talk.constData();
    EXPECT_EQ(downloads.requests.size(), 3U);
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

TEST_F(FetchTest, AFileWhosePartialFileIsAFileOfTheTreeIsRefused) {
    addToTree("day", "the day");
    addToTree("day.part", someBytes(100'000));
    EXPECT_EQ(getTree(), 3);
    EXPECT_FALSE(existsLocal("tree/day"));
    EXPECT_EQ(readLocal("tree/day.part"), someBytes(100'000));
    EXPECT_TRUE(talk.contains("tree/day: would be fetched into ")) << talk.constData();
    EXPECT_TRUE(talk.contains("1 failed")) << talk.constData();
}

TEST_F(FetchTest, AFullDiskIsToldOnceForAllFilesThatAreLeft) {
    for (const QByteArray name : {"a", "b", "c", "d", "e"}) {
        addToTree(name, name + someBytes(100'000));
    }
    const FailingWrite disk(150'000);
    EXPECT_EQ(getTree(), 6);
    EXPECT_EQ(talk.count("No space left on device"), 1) << talk.constData();
    EXPECT_EQ(talk.count("the local disk is full"), 1) << talk.constData();
    EXPECT_TRUE(talk.contains("4 files are left; the same command goes on")) << talk.constData();
    EXPECT_EQ(QFileInfo(local("tree/a.part")).size(), 100'001);
}

TEST_F(FetchTest, TheTotalLeavesOutWhatFailed) {
    addToTree("000", someBytes(900'000));
    for (int i = 1; i < 256; ++i) {
        addToTree(QByteArray::number(i).rightJustified(3, '0'), "a file");
    }
    addToTree("day", "refused at once");
    addToTree("day.part", someBytes(1024 * 1024));
    downloads.failures[kTree + QByteArray("/000")] = "Open error";
    EXPECT_EQ(getTree({"--bwlimit", "20K"}), 3);
    EXPECT_TRUE(talk.contains(" of 1.0 MB (")) << talk.constData();
    EXPECT_FALSE(talk.contains(" of 1.9 MB (")) << talk.constData();
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

TEST_F(FetchTest, WhatIsReadPieceByPieceKeepsToTheRateToo) {
    daemon.files[kFile] = {someBytes(500'000)};
    downloads.refuses = true;
    const quint32 before = clock.tick;
    EXPECT_EQ(getFile({"--bwlimit", "50K"}), 0);
    EXPECT_NEAR(clock.tick - before, 500'000 / 51.2, 1'000);
    EXPECT_EQ(readLocal("file"), contents());
}

}  // namespace

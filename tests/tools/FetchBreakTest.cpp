#include "tests/tools/FetchFixture.h"

#include <QDir>

namespace {

/// get over a download job that breaks, loses pieces or lies.
class FetchBreakTest : public FetchFixture {
protected:
    /// "a" loses its last byte after the listing, so that nothing tells whether the error of "b"
    /// is its own.
    void failBehindAShorterFile() {
        downloads.spoil = [this](QByteArray&) {
            daemon.files[kTree + QByteArray("/a")].contents.truncate(99'999);
        };
        downloads.failures[kTree + QByteArray("/b")] = "Read error";
    }
};

TEST_F(FetchBreakTest, ALostMessageEndsInATimeOutAndTheNextAttemptGoesOn) {
    daemon.files[kFile] = {someBytes(1'000'000)};
    downloads.onMessage = [](int number) { return number != 40; };
    const quint32 before = clock.tick;
    EXPECT_EQ(getFile({"--timeout", "7"}), 0);
    EXPECT_EQ(readLocal("file"), contents());
    EXPECT_TRUE(talk.contains("trying again")) << talk.constData();
    EXPECT_LT(clock.tick - before, 8'000U);
}

TEST_F(FetchBreakTest, ABrokerThatComesBackMidwayIsUsedAgainAtOnce) {
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

TEST_F(FetchBreakTest, ADaemonThatNeverAnswersIsNotWaitedForAgain) {
    daemon.files[kFile] = {someBytes(1'000'000)};
    daemon.fate = [](const Message& request) {
        return request.command() == MESSAGE_LZF_DOWNLOAD ? FakeDaemon::Fate::LostRequest
                                                         : FakeDaemon::Fate::Answered;
    };
    EXPECT_EQ(getFile({"--retries", "2", "--timeout", "5"}), 11);
}

TEST_F(FetchBreakTest, ADamagedStreamIsTriedAgainAndNeverTakenForTheFile) {
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

TEST_F(FetchBreakTest, AByteThatChangedOnItsWayIsFoundByTheProofAndSentAgain) {
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

TEST_F(FetchBreakTest, AFileThatIsAnotherOneEachTimeIsGivenUpAsAnIntegrityFailure) {
    daemon.files[kFile] = {someBytes(200'000)};
    writeLocal("file", "old");
    downloads.spoil = [this](QByteArray&) { contents()[0] = static_cast<char>(contents()[0] + 1); };
    EXPECT_EQ(getFile(), 5);
    EXPECT_EQ(readLocal("file"), "old");
    EXPECT_LT(downloads.requests.size(), 10U);
}

TEST_F(FetchBreakTest, AFileThatVanishesBeforeItIsProvedIsNotPutInPlace) {
    daemon.files[kFile] = {someBytes(200'000)};
    downloads.spoil = [this](QByteArray&) { daemon.files.remove(kFile); };
    EXPECT_EQ(getFile(), 4);
    EXPECT_FALSE(existsLocal("file"));
    EXPECT_TRUE(talk.contains("vanished")) << talk.constData();
}

TEST_F(FetchBreakTest, AStreamThatSaysTooLittleOrTooMuchIsNeverTakenForDone) {
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

/// What the daemon cannot read of a file behind another one looks like that one's.
TEST_F(FetchBreakTest, AnEmptyFileBehindAReadErrorIsNotTakenForTheFileThatHasIt) {
    addToTree("a", someBytes(100'000));
    addToTree("b", "unreadable");
    addToTree("c", "");
    ASSERT_TRUE(QDir().mkpath(local("tree")));
    writeLocal("tree/b", "old");
    failBehindAShorterFile();
    EXPECT_EQ(getTree(), 3);
    EXPECT_EQ(readLocal("tree/b"), "old");
    EXPECT_EQ(readLocal("tree/a"), someBytes(99'999));
    EXPECT_EQ(readLocal("tree/c"), "");
    EXPECT_TRUE(talk.contains("b: the daemon could not read it (Read error)")) << talk.constData();
}

TEST_F(FetchBreakTest, AProofBehindAReadErrorIsNotTakenForAnotherFiles) {
    addToTree("a", someBytes(100'000));
    addToTree("b", "unreadable");
    addToTree("c", "c");
    ASSERT_TRUE(QDir().mkpath(local("tree")));
    writeLocal("tree/b.part", "other");
    writeLocal("tree/c", "c");
    failBehindAShorterFile();
    EXPECT_EQ(getTree(), 3);
    EXPECT_FALSE(existsLocal("tree/b"));
    EXPECT_EQ(readLocal("tree/a"), someBytes(99'999));
    EXPECT_EQ(readLocal("tree/c"), "c");
}

TEST_F(FetchBreakTest, AReadErrorBehindAFileThatHasArrivedIsTheNextOnes) {
    for (const QByteArray name : {"a", "b", "c", "d", "e"}) {
        addToTree(name, name + someBytes(100'000));
    }
    downloads.failures[kTree + QByteArray("/b")] = "Read error";
    downloads.failures[kTree + QByteArray("/d")] = "Read error";
    EXPECT_EQ(getTree({"--retries", "0"}), 3) << talk.constData();
    for (const QByteArray name : {"a", "c", "e"}) {
        EXPECT_EQ(readLocal("tree/" + name), name + someBytes(100'000));
    }
    // The directory, the files, the proof of three.
    EXPECT_EQ(downloads.requests.size(), 3U);
}

/// A piece that was lost on the road: what follows it may read as anything.
TEST_F(FetchBreakTest, WhatADamagedStreamSaysOfAFileIsNotReliedOn) {
    daemon.files[kFile] = {someBytes(200'000)};
    writeLocal("file", "old");
    const QByteArrayList said = {FakeDownloads::record(5), FakeDownloads::record(21),
                                 FakeDownloads::record(132, "Missing")};
    for (const QByteArray& mark : said) {
        writeLocal("file.part", "other");
        downloads.spoil = [&mark](QByteArray& stream) {
            stream = mark + FakeDownloads::record(0, "x");
        };
        EXPECT_EQ(getFile({"--retries", "1"}), 1) << mark.toHex().constData();
        EXPECT_EQ(readLocal("file"), "old");
    }
    int streams = 0;
    downloads.spoil = [&streams](QByteArray& stream) {
        stream = ++streams == 1 ? FakeDownloads::record(132, "Missing") + "\1\1" : stream;
    };
    EXPECT_EQ(getFile({"--timeout", "1"}), 0);
    EXPECT_EQ(readLocal("file"), contents());
}

TEST_F(FetchBreakTest, AFileWhoseLastBlocksWereLostIsNotTakenForOneThatGrew) {
    daemon.files[kFile] = {someBytes(200'000)};
    int streams = 0;
    downloads.spoil = [&streams](QByteArray& stream) {
        if (++streams == 1) {
            stream = stream.left(2 * (3 + 64'512)) + FakeDownloads::record(4);
        }
    };
    EXPECT_EQ(getFile(), 0);
    EXPECT_EQ(readLocal("file"), contents());
    EXPECT_FALSE(talk.contains("grew")) << talk.constData();
}

TEST_F(FetchBreakTest, AfterABreakNothingNewIsAskedForUntilTheRestHasArrived) {
    addToTree("a", someBytes(200'001));
    addToTree("b", someBytes(1000));
    int streams = 0;
    downloads.spoil = [&streams](QByteArray& stream) {
        if (++streams == 1) {
            // Listed as so long that it fills a request by itself.
            stream.replace(QByteArray::fromHex("410d0300"), QByteArray::fromHex("00000004"));
        } else if (streams == 2) {
            stream = stream.left(100'000) + FakeDownloads::record(0, "x");
        }
    };
    EXPECT_EQ(getTree({"--timeout", "1"}), 0);
    ASSERT_EQ(downloads.requests.size(), 5U);
    // After the directory: the first file, the rest of it, its proof and the other one, its proof.
    EXPECT_EQ(downloads.requests[1].size(), 1);
    EXPECT_EQ(downloads.requests[2].size(), 1);
    EXPECT_EQ(downloads.requests[3].size(), 2);
    EXPECT_EQ(readLocal("tree/a"), someBytes(200'001));
    EXPECT_EQ(readLocal("tree/b"), someBytes(1000));
}

TEST_F(FetchBreakTest, EachAttemptThatBringsBytesLetsTheRetriesBeginAnew) {
    daemon.files[kFile] = {someBytes(1'000'000)};
    downloads.onMessage = [](int number) { return number % 30 != 29; };
    EXPECT_EQ(getFile({"--timeout", "1", "--retries", "1"}), 0) << talk.constData();
    EXPECT_EQ(readLocal("file"), contents());
    EXPECT_GT(downloads.requests.size(), 4U);
}

TEST_F(FetchBreakTest, ClaimsThatWereNeverMadeAreNotAgreedTo) {
    daemon.files[kFile] = {someBytes(200'000)};
    for (const QByteArray& answer :
         {FakeDownloads::record(21), FakeDownloads::record(1 + 4 + 16, "x")}) {
        downloads.spoil = [&answer](QByteArray& stream) {
            stream = answer + FakeDownloads::record(4);
        };
        downloads.requests.clear();
        EXPECT_EQ(getFile(), 5);
        EXPECT_FALSE(existsLocal("file"));
        EXPECT_LT(downloads.requests.size(), 10U);
    }
}

TEST_F(FetchBreakTest, ABreakInATreeLeavesWholeFilesAndTheNextRunGoesOn) {
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

TEST_F(FetchBreakTest, ATreeWaitsLongerEachTimeForADaemonWithoutRoom) {
    addToTree("a", "a");
    downloads.refuses = true;
    const quint32 before = clock.tick;
    EXPECT_EQ(getTree({"--retries", "5"}), 1);
    EXPECT_NEAR(clock.tick - before, 31'000, 100);
    EXPECT_EQ(downloads.requests.size(), 6U);
    EXPECT_TRUE(talk.contains("takes no more downloads at once")) << talk.constData();
}

TEST_F(FetchBreakTest, AnInterruptEndsThePauseForADaemonWithoutRoom) {
    addToTree("a", "a");
    downloads.refuses = true;
    daemon.onIdle = [] { storagectl::Interrupt::request(); };
    EXPECT_EQ(getTree(), 130);
    EXPECT_EQ(downloads.requests.size(), 1U);
}

TEST_F(FetchBreakTest, DirectoriesOfADamagedAnswerAreAskedForAgain) {
    addToTree("a/file", "a");
    addToTree("b/file", "b");
    int streams = 0;
    downloads.spoil = [&streams](QByteArray& stream) {
        if (++streams == 2) {
            stream = FakeDownloads::record(13) + FakeDownloads::record(13) +
                     FakeDownloads::record(0, "x");
        }
    };
    EXPECT_EQ(getTree(), 0);
    EXPECT_EQ(readLocal("tree/a/file"), "a");
    EXPECT_EQ(readLocal("tree/b/file"), "b");
}

TEST_F(FetchBreakTest, ADirectoryThatABreakCutShortIsAskedForAgain) {
    addToTree("a", "a");
    addToTree("b", "b");
    int streams = 0;
    downloads.spoil = [&streams](QByteArray& stream) {
        if (++streams == 1) {
            // The entry of "a": a file of a byte.
            stream = FakeDownloads::record(1 + 4 + 8,
                                           QByteArray::fromHex("00 01000000 01000000 01000000 61"));
        }
    };
    daemon.onIdle = [this] {
        daemon.onIdle = {};
        daemon.transport().setBrokerPresent(false);
        daemon.transport().setBrokerPresent(true);
    };
    EXPECT_EQ(getTree(), 0);
    EXPECT_EQ(readLocal("tree/a"), "a");
    EXPECT_EQ(readLocal("tree/b"), "b");
}

TEST_F(FetchBreakTest, APartialFileThatAnotherCommandReplacedIsNotTakenForTheFile) {
    daemon.files[kFile] = {someBytes(200'000)};
    writeLocal("file", "old");
    downloads.onMessage = [this](int number) {
        if (number == 10) {
            writeLocal("other", "other");
            EXPECT_EQ(rename(local("other").constData(), local("file.part").constData()), 0);
        }
        return true;
    };
    EXPECT_EQ(getFile(), 7);
    EXPECT_EQ(readLocal("file"), "old");
    EXPECT_EQ(readLocal("file.part"), "other");
}

TEST_F(FetchBreakTest, APartialFileThatSomebodyElseWroteToIsNotPutInPlace) {
    daemon.files[kFile] = {someBytes(200'000)};
    downloads.onMessage = [this](int number) {
        QFile file(QString::fromUtf8(local("file.part")));
        return number != 25 || (file.open(QIODevice::Append) && file.write("tail") == 4);
    };
    EXPECT_EQ(getFile(), 7);
    EXPECT_FALSE(existsLocal("file"));
}

TEST_F(FetchBreakTest, WhatAnotherTransferOfTheConnectionSendsIsNotTaken) {
    daemon.files[kFile] = {someBytes(200'000)};
    downloads.onMessage = [this](int) {
        Message stale;
        // A transfer's number is never 0.
        stale.construct(MESSAGE_LZF_DOWNLOAD, "iB", 0, 3, "\5\0\0");
        daemon.reply(stale);
        return true;
    };
    EXPECT_EQ(getFile(), 0);
    EXPECT_EQ(readLocal("file"), contents());
    EXPECT_EQ(downloads.requests.size(), 2U);
}

}  // namespace

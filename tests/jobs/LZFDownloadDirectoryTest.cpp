#include "tests/jobs/LZFDownloadFixture.h"
#include "tests/support/FailingReaddir.h"

#include <QDir>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>

namespace {

constexpr char kFolder[] = "/root/data/folder";

class LZFDownloadDirectoryTest : public LZFDownloadFixture {
protected:
    void SetUp() override {
        LZFDownloadFixture::SetUp();
        ASSERT_EQ(mkdir(kFolder, 0755), 0);
    }

    static QString in(const QString& name) { return QString(kFolder) + '/' + name; }

    static void setModified(const QString& path, time_t seconds) {
        const timespec times[2] = {{seconds, 0}, {seconds, 0}};
        ASSERT_EQ(utimensat(AT_FDCWD, QFile::encodeName(path).constData(), times, 0), 0);
    }

    /// Makes files of `count` names of `length` letters.
    static QStringList makeNames(int count, int length) {
        QStringList names;
        for (int i = 0; i < count; ++i) {
            names.append(QString::number(i).rightJustified(length, 'n'));
            writeTestFile(in(names.last()), "");
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    static QStringList namesOf(const DownloadDecoder::Item& item) {
        QStringList names;
        for (const DownloadDecoder::DirectoryEntry& entry : item.entries) {
            names.append(QString::fromLatin1(entry.name.c_str()));
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    static std::map<std::string, DownloadDecoder::DirectoryEntry> byName(
        const DownloadDecoder::Item& item) {
        std::map<std::string, DownloadDecoder::DirectoryEntry> result;
        for (const DownloadDecoder::DirectoryEntry& entry : item.entries) {
            result[entry.name] = entry;
        }
        return result;
    }
};

TEST_F(LZFDownloadDirectoryTest, AnEntryIsItsTypeSizeTimeAndName) {
    writeTestFile(in("a"), "hello");
    setModified(in("a"), 0x60000001);
    startDrained(kFolder);
    runToEnd();
    // Type 1 + 4 + 8, 14 bytes: file, 5 bytes, time, a name of 1 byte; the end.
    EXPECT_EQ(takeStream().toHex(' '),
              "0d 0e 00 00 05 00 00 00 01 00 00 60 01 00 00 00 61 04 00 00");
}

TEST_F(LZFDownloadDirectoryTest, AnEntrysSizeIsTheLow32BitsAndItsTimeIsUnsigned) {
    makeSparseFile(in("a"), (qint64{5} << 30) + 7);
    makeSparseFile(in("b"), qint64{3} << 30);
    setModified(in("a"), 0xf0000001);
    const auto entries = byName(downloadOne(kFolder));
    EXPECT_EQ(entries.at("a").size, (1 << 30) + 7);
    EXPECT_EQ(entries.at("b").size, -(1 << 30));
    EXPECT_EQ(entries.at("a").modified, 0xf0000001U);
}

TEST_F(LZFDownloadDirectoryTest, TheLogTellsTheRoadOfADirectory) {
    writeTestFile(in("a"), "");
    startDrained(kFolder);
    log.clear();
    runToEnd();
    EXPECT_EQ(log.lines(), (QList<QByteArray>{
                               "LZFDownloadRemoteJob: pid " + QByteArray::number(getpid()) +
                                   " : move to next file: /root/data/folder",
                               "LZFDownloadRemoteJob: got directory in 0 ms for /root/data/folder",
                               "LZFDownloadRemoteJob: compression failed, write uncompressed",
                               "LZFDownloadRemoteJob: done!",
                               "LZFDownloadRemoteJob: destroyed",
                           }));
}

TEST_F(LZFDownloadDirectoryTest, AnEmptyDirectoryIsARecordOfType13) {
    startDrained(kFolder);
    runToEnd();
    EXPECT_EQ(takeStream().toHex(' '), "0d 00 00 04 00 00");
    EXPECT_TRUE(logged("no more dir entries"));
    EXPECT_TRUE(logged("got directory in 0 ms for /root/data/folder"));
}

TEST_F(LZFDownloadDirectoryTest, ItHasFilesDirectoriesAndHiddenEntriesAndLinksAsWhatTheyLeadTo) {
    writeTestFile(in("file"), "12345");
    writeTestFile(in(".hidden"), "1");
    writeTestFile(in("sub/deeper"), "123");
    writeTestFile(in(".dir/x"), "");
    ASSERT_EQ(symlink("file", qPrintable(in("to-file"))), 0);
    ASSERT_EQ(symlink("sub", qPrintable(in("to-dir"))), 0);
    for (const char* name : {"file", ".hidden", "sub", ".dir"}) {
        setModified(in(name), 1'600'000'000);
    }
    const auto entries = byName(downloadOne(kFolder));
    ASSERT_EQ(entries.size(), 6U);
    for (const char* name : {"file", "to-file"}) {
        EXPECT_FALSE(entries.at(name).isDirectory) << name;
        EXPECT_EQ(entries.at(name).size, 5) << name;
    }
    for (const char* name : {"sub", ".dir", "to-dir"}) {
        EXPECT_TRUE(entries.at(name).isDirectory) << name;
    }
    EXPECT_EQ(entries.at(".hidden").size, 1);
    for (const auto& [name, entry] : entries) {
        EXPECT_EQ(entry.modified, 1'600'000'000U) << name;
    }
}

TEST_F(LZFDownloadDirectoryTest, PipesDevicesAndBrokenLinksAreLeftOut) {
    ASSERT_EQ(mkfifo(qPrintable(in("fifo")), 0600), 0);
    ASSERT_EQ(symlink("/dev/null", qPrintable(in("device"))), 0);
    ASSERT_EQ(symlink("none", qPrintable(in("broken"))), 0);
    ASSERT_EQ(symlink("loop", qPrintable(in("loop"))), 0);
    EXPECT_EQ(downloadOne(kFolder).kind, Kind::EmptyDirectory);
    writeTestFile(in("file"), "");
    EXPECT_EQ(namesOf(downloadOne(kFolder)), QStringList{"file"});
}

TEST_F(LZFDownloadDirectoryTest, OneLevelIsListedAndNoMore) {
    writeTestFile(in("sub/deeper/file"), "");
    EXPECT_EQ(namesOf(downloadOne(kFolder)), QStringList{"sub"});
}

TEST_F(LZFDownloadDirectoryTest, ATrailingSlashAndALinkNameTheSameDirectory) {
    writeTestFile(in("file"), "");
    ASSERT_EQ(symlink(kFolder, "/root/data/link"), 0);
    for (const char* path : {"/root/data/folder/", "/root/data/link", "/root/data/./folder"}) {
        EXPECT_EQ(namesOf(downloadOne(path)), QStringList{"file"}) << path;
    }
}

TEST_F(LZFDownloadDirectoryTest, ABlockThatIsFilledExactlyIsOneBlock) {
    // 252 entries of 13 + 243 bytes are 64,512.
    makeNames(252, 243);
    const DownloadDecoder::Item item = downloadOne(kFolder);
    EXPECT_EQ(item.blocks, std::vector<std::size_t>{64512});
    EXPECT_EQ(item.entries.size(), 252U);
}

TEST_F(LZFDownloadDirectoryTest, OneEntryMoreThanABlockHoldsBeginsAnother) {
    makeNames(253, 243);
    const DownloadDecoder decoder = download(kFolder);
    ASSERT_EQ(decoder.items().size(), 1U);
    const DownloadDecoder::Item& item = decoder.items()[0];
    EXPECT_EQ(item.blocks, (std::vector<std::size_t>{64512, 256}));
    EXPECT_EQ(decoder.records()[0].type & ~3U, 12U) << "first block, directory";
    EXPECT_EQ(decoder.records()[1].type & ~3U, 8U) << "directory";
}

TEST_F(LZFDownloadDirectoryTest, AnEntryThatIsAByteTooLongForTheBlockBeginsAnother) {
    // 251 entries of 256 bytes leave 256; one of 13 + 244 is a byte too long wherever it comes.
    makeNames(251, 243);
    writeTestFile(in(QString(244, 'z')), "");
    const DownloadDecoder::Item item = downloadOne(kFolder);
    EXPECT_EQ(item.blocks.size(), 2U);
    EXPECT_EQ(item.entries.size(), 252U);
}

TEST_F(LZFDownloadDirectoryTest, EachNameOfAThousandComesOnce) {
    const QStringList names = makeNames(1000, 100);
    const DownloadDecoder::Item item = downloadOne(kFolder);
    EXPECT_EQ(item.blocks.size(), 2U);
    EXPECT_TRUE(namesOf(item) == names);
}

TEST_F(LZFDownloadDirectoryTest, ASliceLooksAtSomeOfTheNamesAndNotAtAll) {
    for (int i = 0; i < 1100; ++i) {
        ASSERT_EQ(symlink("none", qPrintable(in(QString::number(i)))), 0);
    }
    startDrained(kFolder);
    // It is opened, 1,102 names are looked at in 512s, and the end is sent.
    EXPECT_EQ(runToEnd(), 1 + 3 + 1);
    EXPECT_EQ(takeStream().toHex(), "0d0000040000");
}

TEST_F(LZFDownloadDirectoryTest, NamesOf255BytesAreWhole) {
    const QStringList names = makeNames(300, 255);
    EXPECT_TRUE(namesOf(downloadOne(kFolder)) == names);
}

TEST_F(LZFDownloadDirectoryTest, NamesAreLatin1WithAQuestionMarkForWhatIsNot) {
    writeTestFile(in(QString::fromUtf8("br\xc3\xb8nn")), "");
    writeTestFile(in(QString::fromUtf8("\xe6\xb3\xb5")), "");
    ::close(::creat((std::string(kFolder) + "/\xff").c_str(), 0600));
    EXPECT_EQ(namesOf(downloadOne(kFolder)),
              (QStringList{"?", "?", QString::fromLatin1("br\xf8nn")}));
    ::unlink((std::string(kFolder) + "/\xff").c_str());
}

TEST_F(LZFDownloadDirectoryTest, BlocksOfNamesBeyondTheBasicPlaneAreFullToo) {
    // 60 code points of 4 bytes each.
    const QString tail = QString::fromUtf8("\xf0\x9f\x9b\xa2").repeated(60);
    for (int i = 0; i < 600; ++i) {
        writeTestFile(in(QString::number(1000 + i) + tail), "");
    }
    EXPECT_EQ(downloadOne(kFolder).entries.size(), 600U);
}

TEST_F(LZFDownloadDirectoryTest, ADirectoryThatCannotBeReadIsAnOpenError) {
    ASSERT_EQ(chmod(kFolder, 0), 0);
    const DownloadDecoder::Item item = downloadOne(kFolder);
    // Nothing is unreadable to root.
    EXPECT_EQ(item.kind, geteuid() == 0 ? Kind::EmptyDirectory : Kind::Error);
    ASSERT_EQ(chmod(kFolder, 0755), 0);
}

TEST_F(LZFDownloadDirectoryTest, ADirectoryThatIsRemovedMeanwhileEnds) {
    makeNames(600, 10);
    startDrained(QString(kFolder) + "\n/root/data");
    manager.runSlice();
    manager.runSlice();
    ASSERT_TRUE(QDir(kFolder).removeRecursively());
    runToEnd();
    DownloadDecoder decoder;
    decoder.add(takeStream().toStdString());
    EXPECT_TRUE(decoder.isComplete()) << decoder.fault();
    ASSERT_EQ(decoder.items().size(), 2U);
    EXPECT_EQ(decoder.items()[1].kind, Kind::EmptyDirectory);
}

TEST_F(LZFDownloadDirectoryTest, ADirectoryThatCannotBeReadOnIsAReadErrorBehindWhatThereWas) {
    makeNames(1000, 10);
    for (const int names : {1002, 600, 3}) {
        const FailingReaddir failing(names);
        const DownloadDecoder decoder = download(QString(kFolder) + "\n/none");
        ASSERT_EQ(decoder.items().size(), 2U) << names;
        const DownloadDecoder::Item& item = decoder.items()[0];
        EXPECT_EQ(item.failure, "Read error") << names;
        // "." and ".." may be among them.
        EXPECT_GE(static_cast<int>(item.entries.size()), names - 2);
        EXPECT_EQ(decoder.items()[1].bytes, "Missing");
    }
}

TEST_F(LZFDownloadDirectoryTest, ADirectoryOfWhichNothingCanBeReadIsNotTheErrorOfTheFileBefore) {
    writeTestFile(in("file"), "x");
    const FailingReaddir failing(0);
    const DownloadDecoder decoder = download(in("file") + '\n' + kFolder + "\n/none");
    ASSERT_EQ(decoder.items().size(), 3U);
    EXPECT_EQ(decoder.items()[0].failure, "");
    EXPECT_EQ(decoder.items()[1].bytes, "Open error");
    EXPECT_EQ(decoder.items()[2].bytes, "Missing");
}

TEST_F(LZFDownloadDirectoryTest, AnEntryThatCannotBeReadLeavesNoErrorToTheEndBehindIt) {
    ASSERT_EQ(symlink("none", qPrintable(in("broken"))), 0);
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(downloadOne(kFolder).kind, Kind::EmptyDirectory);
    }
}

TEST_F(LZFDownloadDirectoryTest, AFileBehindADirectoryIsAFile) {
    const QByteArray bytes = noise(kBlock + 1);
    writeTestFile(in("file"), bytes);
    const DownloadDecoder decoder =
        download(QString(kFolder) + '\n' + in("file") + '\n' + kFolder + '\n' + in("file"));
    ASSERT_EQ(decoder.items().size(), 4U);
    for (const std::size_t i : {0U, 2U}) {
        EXPECT_EQ(decoder.items()[i].kind, Kind::Directory);
        EXPECT_TRUE(decoder.items()[i + 1].bytes == bytes.toStdString());
    }
}

TEST_F(LZFDownloadDirectoryTest, RandomTreesArriveByteForByte) {
    std::map<std::string, std::string> expected;
    for (int i = 0; i < 150; ++i) {
        QString path = kFolder;
        for (unsigned depth = random() % 4; depth > 0; --depth) {
            path += "/d" + QString::number(random() % 3);
        }
        path += "/f" + QString::number(random() % 40);
        const int size = static_cast<int>(random() % (i % 10 == 0 ? 200'000 : 500));
        const QByteArray bytes = random() % 2 == 0 ? noise(size) : text(size);
        writeTestFile(path, bytes);
        expected[path.toStdString()] = bytes.toStdString();
    }
    std::map<std::string, std::string> received;
    QStringList folders{kFolder};
    while (!folders.isEmpty()) {
        const QString folder = folders.takeFirst();
        QStringList files;
        for (const auto& [name, entry] : byName(downloadOne(folder))) {
            const QString path = folder + '/' + QString::fromStdString(name);
            (entry.isDirectory ? folders : files).append(path);
        }
        if (files.isEmpty()) {
            continue;
        }
        const DownloadDecoder decoder = download(files.join('\n'));
        ASSERT_EQ(decoder.items().size(), static_cast<std::size_t>(files.size()));
        for (std::size_t i = 0; i < decoder.items().size(); ++i) {
            received[files[static_cast<qsizetype>(i)].toStdString()] = decoder.items()[i].bytes;
        }
    }
    EXPECT_TRUE(received == expected);
}

}  // namespace

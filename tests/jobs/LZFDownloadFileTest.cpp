#include "tests/jobs/LZFDownloadFixture.h"

#include <QDir>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

namespace {

constexpr char kFile[] = "/root/data/file";

using LZFDownloadFileTest = LZFDownloadFixture;

TEST_F(LZFDownloadFileTest, AShortFileIsOneRawFirstBlockAndTheEnd) {
    writeTestFile(kFile, "hello");
    startDrained(kFile);
    runToEnd();
    // Type 1 + 4, 5 bytes; type 4, none.
    EXPECT_EQ(takeStream().toHex(' '), "05 05 00 68 65 6c 6c 6f 04 00 00");
}

TEST_F(LZFDownloadFileTest, ABlockThatShrinksIsSentCompressed) {
    writeTestFile(kFile, QByteArray(1000, 'a'));
    startDrained(kFile);
    runToEnd();
    const QByteArray stream = takeStream();
    EXPECT_EQ(stream[0], 6) << "type 2 + 4";
    EXPECT_LT(stream.size(), 100);
    DownloadDecoder decoder;
    decoder.add(stream.toStdString());
    ASSERT_TRUE(decoder.isComplete()) << decoder.fault();
    EXPECT_EQ(decoder.items()[0].bytes, std::string(1000, 'a'));
    const QByteArray length = QByteArray::number(stream.size() - 6);
    EXPECT_TRUE(logged("compressed from 1000 to " + length + " bytes"));
}

TEST_F(LZFDownloadFileTest, IncompressibleDataIsSentRawWithItsLength) {
    const QByteArray bytes = noise(kBlock);
    writeTestFile(kFile, bytes);
    const DownloadDecoder decoder = download(kFile);
    ASSERT_EQ(decoder.records().size(), 2U);
    EXPECT_EQ(decoder.records()[0].type, 5U);
    EXPECT_EQ(decoder.records()[0].length, 64512U);
    EXPECT_TRUE(decoder.items()[0].bytes == bytes.toStdString());
    EXPECT_TRUE(logged("compression failed, write uncompressed"));
}

TEST_F(LZFDownloadFileTest, TheCompressorHasAByteLessRoomThanTheBlockHas) {
    // With as much room as these bytes take it would make 8 of the 9, with a byte less it gives up.
    writeTestFile(kFile, QByteArray(9, 'a'));
    startDrained(kFile);
    runToEnd();
    EXPECT_EQ(takeStream(),
              QByteArray::fromHex("050900") + QByteArray(9, 'a') + QByteArray::fromHex("040000"));
    writeTestFile(kFile, QByteArray(10, 'a'));
    startDrained(kFile);
    runToEnd();
    EXPECT_EQ(takeStream().left(1).toHex(), "06") << "10 bytes shrink";
}

TEST_F(LZFDownloadFileTest, FilesArriveWholeAroundEveryBlockBoundary) {
    for (const int blocks : {0, 1, 2, 5}) {
        for (const int more : {-2, -1, 0, 1, 2}) {
            const int size = blocks * kBlock + more;
            if (size < 1) {
                continue;
            }
            for (const QByteArray& bytes : {noise(size), text(size)}) {
                writeTestFile(kFile, bytes);
                const DownloadDecoder::Item item = downloadOne(kFile);
                EXPECT_EQ(item.kind, Kind::File);
                EXPECT_TRUE(item.bytes == bytes.toStdString()) << size;
                EXPECT_EQ(item.blocks.size(), static_cast<std::size_t>((size - 1) / kBlock + 1));
            }
        }
    }
}

TEST_F(LZFDownloadFileTest, FilesArriveWholeAroundTheBordersOfTheSendBuffer) {
    for (const int border : {8143, 8146, 8147, 8150, 16300, 64509}) {
        for (const int more : {-1, 0, 1}) {
            const QByteArray first = noise(border + more);
            const QByteArray second = noise(kBlock + 1);
            writeTestFile(kFile, first);
            writeTestFile("/root/data/second", second);
            const DownloadDecoder decoder = download(QString(kFile) + "\n/root/data/second");
            ASSERT_EQ(decoder.items().size(), 2U);
            EXPECT_TRUE(decoder.items()[0].bytes == first.toStdString()) << border + more;
            EXPECT_TRUE(decoder.items()[1].bytes == second.toStdString()) << border + more;
        }
    }
}

TEST_F(LZFDownloadFileTest, TwoFilesAreTheBlocksOfTheFirstThenOfTheSecondThenTheEnd) {
    writeTestFile(kFile, noise(kBlock + 1));
    writeTestFile("/root/data/second", noise(kBlock + 2));
    const DownloadDecoder decoder = download(QString(kFile) + "\n/root/data/second");
    QList<std::pair<unsigned, std::size_t>> records;
    for (const DownloadDecoder::Record& record : decoder.records()) {
        records.append({record.type, record.length});
    }
    EXPECT_EQ(records, (QList<std::pair<unsigned, std::size_t>>{
                           {5, 64512}, {1, 1}, {5, 64512}, {1, 2}, {4, 0}}));
}

TEST_F(LZFDownloadFileTest, AnEmptyFileIsARecordOfType5) {
    writeTestFile(kFile, "");
    startDrained(kFile);
    runToEnd();
    EXPECT_EQ(takeStream().toHex(' '), "05 00 00 04 00 00");
    EXPECT_TRUE(logged("zero length file"));
}

TEST_F(LZFDownloadFileTest, AMissingEntryIsSaidAndTheNextFollowsInTheNextSlice) {
    writeTestFile(kFile, "x");
    startDrained("/root/data/none\n" + QString(kFile));
    manager.runSlice();
    EXPECT_FALSE(logged("pid " + QByteArray::number(getpid()) + " : move to next file: " + kFile));
    runToEnd();
    // Type 132, 7 bytes.
    EXPECT_EQ(takeStream(),
              QByteArray::fromHex("840700") + "Missing" + QByteArray::fromHex("05010078040000"));
}

TEST_F(LZFDownloadFileTest, EveryLineIsAnEntryAlsoAnEmptyOne) {
    for (const auto& [request, entries] :
         {std::pair("", 1U), {"\n", 2U}, {"\n\n", 3U}, {"/none\n", 2U}, {"\n/none", 2U}}) {
        const DownloadDecoder decoder = download(request);
        EXPECT_EQ(decoder.items().size(), entries);
        for (const DownloadDecoder::Item& item : decoder.items()) {
            EXPECT_EQ(item.bytes, "Missing");
        }
    }
}

TEST_F(LZFDownloadFileTest, ABrokenLinkAndAPathThroughAFileAreMissing) {
    ASSERT_EQ(symlink("/root/data/none", "/root/data/broken"), 0);
    ASSERT_EQ(symlink("loop", "/root/data/loop"), 0);
    writeTestFile(kFile, "x");
    for (const QString& path : {QString("/root/data/broken"), QString("/root/data/loop"),
                                QString(kFile) + "/", QString(kFile) + "/x", QString(300, 'n'),
                                QString(5000, '/') + 'n', QString(":/"), QString("\x01")}) {
        EXPECT_EQ(downloadOne(path).bytes, "Missing") << path.left(20).toStdString();
    }
}

TEST_F(LZFDownloadFileTest, NothingIsTrimmedFromAPath) {
    writeTestFile(kFile, "x");
    for (const QString& path :
         {QString(kFile) + '\r', QString(kFile) + ' ', ' ' + QString(kFile), QString("\t")}) {
        EXPECT_EQ(downloadOne(path).bytes, "Missing") << path.toStdString();
    }
    writeTestFile(QString(kFile) + ' ', "y");
    EXPECT_EQ(downloadOne(QString(kFile) + ' ').bytes, "y");
}

TEST_F(LZFDownloadFileTest, ARelativePathBeginsAtTheWorkingDirectory) {
    writeTestFile(kFile, "x");
    const QString before = QDir::currentPath();
    ASSERT_TRUE(QDir::setCurrent("/root/data"));
    EXPECT_EQ(downloadOne("file").bytes, "x");
    EXPECT_EQ(downloadOne("../data/file").bytes, "x");
    EXPECT_EQ(downloadOne(".").kind, Kind::Directory);
    ASSERT_TRUE(QDir::setCurrent(before));
}

TEST_F(LZFDownloadFileTest, ALinkIsTheFileThatItLeadsTo) {
    writeTestFile(kFile, "x");
    ASSERT_EQ(symlink(kFile, "/root/data/link"), 0);
    EXPECT_EQ(downloadOne("/root/data/link").bytes, "x");
}

TEST_F(LZFDownloadFileTest, AnyPathIsServedWhereverItLeads) {
    writeTestFile("/tmp/elsewhere", "x");
    EXPECT_EQ(downloadOne("/tmp/elsewhere").bytes, "x");
    EXPECT_EQ(downloadOne("/root/data/../../tmp/elsewhere").bytes, "x");
    unlink("/tmp/elsewhere");
}

TEST_F(LZFDownloadFileTest, WhatIsNeitherAFileNorADirectoryIsAnOpenError) {
    ASSERT_EQ(mkfifo("/root/data/fifo", 0600), 0);
    for (const char* path : {"/root/data/fifo", "/dev/null", "/dev/zero", "/proc/self/status",
                             "/root/data/fifo|h|5"}) {
        const DownloadDecoder::Item item = downloadOne(path);
        EXPECT_EQ(item.kind, Kind::Error) << path;
        EXPECT_EQ(item.bytes, "Open error") << path;
    }
}

TEST_F(LZFDownloadFileTest, AnUnreadableFileIsAnOpenError) {
    writeTestFile(kFile, "x");
    ASSERT_EQ(chmod(kFile, 0), 0);
    const DownloadDecoder::Item item = downloadOne(kFile);
    // Nothing is unreadable to root.
    EXPECT_EQ(item.bytes, geteuid() == 0 ? "x" : "Open error");
}

TEST_F(LZFDownloadFileTest, WithoutAFreeDescriptorFilesAndDirectoriesAreOpenErrors) {
    writeTestFile(kFile, "x");
    const QString request = QString(kFile) + "\n/root/data";
    // With descriptors first; a sanitizer learns the types here that it could not look into below.
    ASSERT_EQ(download(request).items().front().bytes, "x");
    rlimit before;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none{3, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const DownloadDecoder decoder = download(request);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    ASSERT_EQ(decoder.items().size(), 2U);
    EXPECT_EQ(decoder.items()[0].bytes, "Open error");
    EXPECT_EQ(decoder.items()[1].bytes, "Open error");
}

TEST_F(LZFDownloadFileTest, AFileAbove2147483647BytesIsAnOpenError) {
    makeSparseFile(kFile, qint64{2147483647} + 1);
    EXPECT_EQ(downloadOne(kFile).bytes, "Open error");
}

TEST_F(LZFDownloadFileTest, AFileOf2147483647BytesIsBegun) {
    makeSparseFile(kFile, 2147483647);
    startDrained(kFile);
    manager.runSlice();
    manager.runSlice();
    manager.removeJob(std::unique_ptr<RemoteJob>(manager.jobs().first()).get());
    EXPECT_TRUE(logged("read next 64512 bytes of file"));
}

TEST_F(LZFDownloadFileTest, NamesOf255BytesAndNamesOutsideLatin1AreServed) {
    const QString longName = "/root/data/" + QString(255, 'n');
    const QString foreign = QString::fromUtf8("/root/data/\xe6\xb3\xb5 \xf0\x9f\x9b\xa2 \xc3\xb8");
    for (const QString& path : {longName, foreign}) {
        writeTestFile(path, "x");
        EXPECT_EQ(downloadOne(path).bytes, "x") << path.toStdString();
    }
}

TEST_F(LZFDownloadFileTest, AFileThatGrowsIsSentAsLongAsItWas) {
    const QByteArray bytes = noise(kBlock + 100);
    writeTestFile(kFile, bytes);
    startDrained(kFile);
    manager.runSlice();
    writeTestFile("/root/data/more", "");
    QFile file(kFile);
    ASSERT_TRUE(file.open(QIODevice::Append));
    file.write(noise(kBlock));
    file.close();
    runToEnd();
    DownloadDecoder decoder;
    decoder.add(takeStream().toStdString());
    EXPECT_TRUE(decoder.isComplete()) << decoder.fault();
    EXPECT_TRUE(decoder.items()[0].bytes == bytes.toStdString());
}

TEST_F(LZFDownloadFileTest, AFileThatShrinksIsAReadErrorBehindWhatThereWas) {
    const QByteArray bytes = noise(3 * kBlock);
    for (const int left : {0, 1, kBlock - 1, kBlock, kBlock + 1, 3 * kBlock - 1}) {
        writeTestFile(kFile, bytes);
        startDrained(QString(kFile) + "\n/none");
        manager.runSlice();
        ASSERT_EQ(truncate(kFile, left), 0);
        runToEnd();
        DownloadDecoder decoder;
        decoder.add(takeStream().toStdString());
        EXPECT_TRUE(decoder.isComplete()) << decoder.fault();
        ASSERT_EQ(decoder.items().size(), 2U);
        const DownloadDecoder::Item& item = decoder.items()[0];
        EXPECT_EQ(left == 0 ? item.bytes : item.failure, "Read error") << left;
        if (left > 0) {
            EXPECT_TRUE(item.bytes == bytes.left(left).toStdString()) << left;
        }
        EXPECT_EQ(decoder.items()[1].bytes, "Missing");
    }
    EXPECT_TRUE(logged("file read error"));
}

TEST_F(LZFDownloadFileTest, AFileThatVanishesWhileItIsSentIsSentWhole) {
    const QByteArray bytes = noise(3 * kBlock);
    writeTestFile(kFile, bytes);
    startDrained(QString(kFile) + '\n' + kFile);
    manager.runSlice();
    ASSERT_EQ(unlink(kFile), 0);
    runToEnd();
    DownloadDecoder decoder;
    decoder.add(takeStream().toStdString());
    ASSERT_EQ(decoder.items().size(), 2U);
    EXPECT_TRUE(decoder.items()[0].bytes == bytes.toStdString());
    EXPECT_EQ(decoder.items()[1].bytes, "Missing") << "the second time";
}

TEST_F(LZFDownloadFileTest, EachRecordAndEachMessageIsActivity) {
    LZFDownloadRemoteJob* job = start(kFile);
    clock.tick += 1;
    job->addError("Missing");
    EXPECT_EQ(job->lastActivity(), clock.tick);
    clock.tick += 1;
    job->sendData();
    EXPECT_EQ(job->lastActivity(), clock.tick);
}

TEST_F(LZFDownloadFileTest, TheLogTellsTheRoadOfAFile) {
    writeTestFile(kFile, QByteArray(kBlock, 'a') + noise(10));
    startDrained(kFile);
    log.clear();
    runToEnd();
    QList<QByteArray> lines = log.lines();
    ASSERT_EQ(lines.size(), 7);
    EXPECT_TRUE(lines.takeAt(2).startsWith("LZFDownloadRemoteJob: compressed from 64512 to "));
    EXPECT_EQ(lines, (QList<QByteArray>{
                         "LZFDownloadRemoteJob: pid " + QByteArray::number(getpid()) +
                             " : move to next file: " + kFile,
                         "LZFDownloadRemoteJob: read next 64512 bytes of file",
                         "LZFDownloadRemoteJob: read next 10 bytes of file",
                         "LZFDownloadRemoteJob: compression failed, write uncompressed",
                         "LZFDownloadRemoteJob: done!",
                         "LZFDownloadRemoteJob: destroyed",
                     }));
}

TEST_F(LZFDownloadFileTest, TheLogTellsTheRoadOfEntriesThatHaveNoBlock) {
    writeTestFile(kFile, "");
    writeTestFile("/root/data/held", "hello");
    ASSERT_TRUE(QDir().mkpath("/root/data/empty"));
    const QStringList entries = {"/none", kFile, "/root/data/empty",
                                 resume("/root/data/held", "hello"), ""};
    startDrained(entries.join('\n'));
    log.clear();
    // A slice an entry, one more for what a directory holds, and one for the end.
    EXPECT_EQ(runToEnd(), entries.size() + 2);
    const QByteArray name = "LZFDownloadRemoteJob: ";
    const QByteArray next = name + "pid " + QByteArray::number(getpid()) + " : move to next file: ";
    EXPECT_EQ(log.lines(), (QList<QByteArray>{
                               next + "/none",
                               next + kFile,
                               name + "zero length file",
                               next + "/root/data/empty",
                               name + "got directory in 0 ms for /root/data/empty",
                               name + "no more dir entries",
                               next + "/root/data/held|XUFAKrxLKna5cZ2REBfFkg==|5",
                               name + "zero length delta",
                               next,
                               name + "done!",
                               name + "destroyed",
                           }));
}

TEST_F(LZFDownloadFileTest, RandomFilesArriveByteForByte) {
    QStringList names;
    QList<QByteArray> contents;
    for (int i = 0; i < 60; ++i) {
        const int size = static_cast<int>(random() % (i % 5 == 0 ? 300'000 : 3'000));
        contents.append(i % 2 == 0 ? noise(size) : text(size));
        names.append("/root/data/" + QString::number(i));
        writeTestFile(names.last(), contents.last());
    }
    const DownloadDecoder decoder = download(names.join('\n'));
    ASSERT_EQ(decoder.items().size(), 60U);
    for (int i = 0; i < 60; ++i) {
        EXPECT_TRUE(decoder.items()[static_cast<std::size_t>(i)].bytes == contents[i].toStdString())
            << i;
    }
}

}  // namespace

#include "jobs/PrefixHash.h"
#include "tests/jobs/LZFDownloadFixture.h"
#include "tests/support/FailingSeek.h"

#include <unistd.h>

namespace {

constexpr char kFile[] = "/root/data/file";

class LZFDownloadResumeTest : public LZFDownloadFixture {
protected:
    /// Fails the test unless the whole file comes, from its start.
    void expectWhole(const QString& request, const QByteArray& bytes) {
        const DownloadDecoder::Item item = downloadOne(request);
        EXPECT_EQ(item.kind, Kind::File) << request.toStdString();
        EXPECT_FALSE(item.isResumed) << request.toStdString();
        EXPECT_TRUE(item.bytes == bytes.toStdString()) << request.toStdString();
    }
};

TEST_F(LZFDownloadResumeTest, AHashThatMatchesGetsTheRestInAResumedFirstBlock) {
    writeTestFile(kFile, "hello, world");
    startDrained(QString(kFile) + "|XUFAKrxLKna5cZ2REBfFkg==|5");
    runToEnd();
    // Type 1 + 4 + 16, 7 bytes: ", world".
    EXPECT_EQ(takeStream().toHex(' '), "15 07 00 2c 20 77 6f 72 6c 64 04 00 00");
}

TEST_F(LZFDownloadResumeTest, OnlyTheFirstBlockAfterTheOffsetIsAResumedOne) {
    const QByteArray bytes = noise(3 * kBlock);
    writeTestFile(kFile, bytes);
    const DownloadDecoder decoder = download(resume(kFile, bytes.left(100)));
    ASSERT_EQ(decoder.records().size(), 4U);
    EXPECT_EQ(decoder.records()[0].type, 21U);
    EXPECT_EQ(decoder.records()[1].type, 1U);
    EXPECT_EQ(decoder.records()[2].type, 1U);
    EXPECT_TRUE(decoder.items()[0].bytes == bytes.mid(100).toStdString());
}

TEST_F(LZFDownloadResumeTest, AResumedBlockThatShrinksIsOfType22) {
    const QByteArray bytes = text(2 * kBlock);
    writeTestFile(kFile, bytes);
    const DownloadDecoder decoder = download(resume(kFile, bytes.left(kBlock)));
    EXPECT_EQ(decoder.records()[0].type, 22U);
    EXPECT_TRUE(decoder.items()[0].bytes == bytes.mid(kBlock).toStdString());
}

TEST_F(LZFDownloadResumeTest, AnOffsetThatIsTheFilesSizeIsARecordOfType21AndNoData) {
    const QByteArray bytes = noise(1000);
    writeTestFile(kFile, bytes);
    startDrained(resume(kFile, bytes));
    runToEnd();
    EXPECT_EQ(takeStream().toHex(' '), "15 00 00 04 00 00");
    EXPECT_TRUE(logged("zero length delta"));
}

TEST_F(LZFDownloadResumeTest, APrefixOfAPieceIsProvedInTheSliceThatOpensTheFile) {
    const QByteArray bytes = noise(PrefixHash::kPieceBytes);
    writeTestFile(kFile, bytes);
    startDrained(resume(kFile, bytes));
    manager.runSlice();
    EXPECT_TRUE(logged("zero length delta"));
    EXPECT_TRUE(takePieces().isEmpty());
    manager.runSlice();
    EXPECT_EQ(takeStream().toHex(' '), "15 00 00 04 00 00");
    EXPECT_TRUE(manager.jobs().isEmpty());
}

TEST_F(LZFDownloadResumeTest, AHashThatDoesNotMatchGetsTheWholeFile) {
    const QByteArray bytes = noise(2 * kBlock);
    writeTestFile(kFile, bytes);
    for (const int offset : {1, 1000, kBlock, 2 * kBlock}) {
        QByteArray other = bytes.left(offset);
        other[offset - 1] = static_cast<char>(other[offset - 1] + 1);
        expectWhole(resume(kFile, other), bytes);
    }
}

TEST_F(LZFDownloadResumeTest, AHashInAnotherFormDoesNotMatch) {
    writeTestFile(kFile, "hello, world");
    for (const char* hash : {"5d41402abc4b2a76b9719d911017c592", "XUFAKrxLKna5cZ2REBfFkg",
                             "xufakrxlkna5cz2rebffkg==", " XUFAKrxLKna5cZ2REBfFkg=="}) {
        expectWhole(QString("%1|%2|5").arg(kFile, hash), "hello, world");
    }
}

TEST_F(LZFDownloadResumeTest, AnEmptyHashNeverMatches) {
    writeTestFile(kFile, "hello, world");
    expectWhole(QString(kFile) + "||5", "hello, world");
    expectWhole(QString(kFile) + "||0", "hello, world");
    expectWhole(QString(kFile) + "||13", "hello, world");
}

TEST_F(LZFDownloadResumeTest, AnOffsetThatIsNoOffsetInTheFileGetsTheWholeFile) {
    writeTestFile(kFile, "hello, world");
    for (const char* offset : {"0", "-1", "-5", "13", "2147483647", "2147483648", "4294967301",
                               "five", "", "5.0", "0x5", "5|", "-2147483648"}) {
        expectWhole(QString("%1|XUFAKrxLKna5cZ2REBfFkg==|%2").arg(kFile, offset), "hello, world");
    }
}

TEST_F(LZFDownloadResumeTest, AWrongNumberOfPartsGetsTheWholeFile) {
    writeTestFile(kFile, "hello, world");
    for (const char* parts : {"|", "||", "|||", "||||||", "|5",
                              "|XUFAKrxLKna5cZ2REBfFkg==", "|XUFAKrxLKna5cZ2REBfFkg==|5|",
                              "|XUFAKrxLKna5cZ2REBfFkg==|5|5", "||XUFAKrxLKna5cZ2REBfFkg==|5"}) {
        expectWhole(QString(kFile) + parts, "hello, world");
    }
}

TEST_F(LZFDownloadResumeTest, TheHashOfNothingDoesNotResumeAnEmptyFile) {
    writeTestFile(kFile, "");
    for (const char* offset : {"0", "1"}) {
        const QString request = QString("%1|1B2M2Y8AsgTpgAmY7PhCfg==|%2").arg(kFile, offset);
        EXPECT_EQ(downloadOne(request).kind, Kind::EmptyFile);
    }
}

TEST_F(LZFDownloadResumeTest, AMissingFileAndADirectoryCannotBeResumed) {
    writeTestFile("/root/data/folder/a", "x");
    EXPECT_EQ(downloadOne("/none|XUFAKrxLKna5cZ2REBfFkg==|5").bytes, "Missing");
    EXPECT_EQ(downloadOne("|XUFAKrxLKna5cZ2REBfFkg==|5").bytes, "Missing");
    EXPECT_EQ(downloadOne("/root/data/folder|XUFAKrxLKna5cZ2REBfFkg==|5").kind, Kind::Directory);
}

TEST_F(LZFDownloadResumeTest, ALongPrefixIsHashedAPieceASliceAndEachIsActivity) {
    const int pieces = 5;
    const QByteArray bytes = noise(pieces * PrefixHash::kPieceBytes + 10);
    writeTestFile(kFile, bytes);
    startDrained(resume(kFile, bytes.left(pieces * PrefixHash::kPieceBytes)));
    for (int slice = 0; slice < pieces; ++slice) {
        EXPECT_FALSE(logged("read next 10 bytes of file"));
        clock.tick += 1;
        manager.runSlice();
        EXPECT_TRUE(skipsWait());
        EXPECT_EQ(manager.lastActivity(), clock.tick);
    }
    manager.runSlice();
    EXPECT_TRUE(logged("read next 10 bytes of file"));
    runToEnd();
    DownloadDecoder decoder;
    decoder.add(takeStream().toStdString());
    EXPECT_TRUE(decoder.isComplete());
    EXPECT_TRUE(decoder.items()[0].bytes == bytes.right(10).toStdString());
}

TEST_F(LZFDownloadResumeTest, PrefixesAroundThePiecesOfTheHashMatch) {
    const QByteArray bytes = noise(2 * PrefixHash::kPieceBytes + 2);
    writeTestFile(kFile, bytes);
    for (const int offset : {1, PrefixHash::kPieceBytes - 1, PrefixHash::kPieceBytes,
                             PrefixHash::kPieceBytes + 1, 2 * PrefixHash::kPieceBytes + 1}) {
        const DownloadDecoder::Item item = downloadOne(resume(kFile, bytes.left(offset)));
        EXPECT_TRUE(item.isResumed) << offset;
        EXPECT_TRUE(item.bytes == bytes.mid(offset).toStdString()) << offset;
    }
}

TEST_F(LZFDownloadResumeTest, SignsOfLifeGoOnWhileAPrefixIsHashed) {
    const QByteArray bytes = noise(3 * PrefixHash::kPieceBytes);
    writeTestFile(kFile, bytes);
    startDrained(resume(kFile, bytes));
    manager.runSlice();
    manager.runSlice();
    clock.advance(4);
    manager.runSlice();
    EXPECT_EQ(takePieces(), QList<QByteArray>{""});
    runToEnd();
    EXPECT_EQ(takeStream().toHex(), "150000040000");
}

TEST_F(LZFDownloadResumeTest, AFileThatShrinksWhileItsPrefixIsHashedIsSentFromItsStart) {
    const QByteArray bytes = noise(3 * PrefixHash::kPieceBytes);
    writeTestFile(kFile, bytes);
    startDrained(resume(kFile, bytes));
    manager.runSlice();
    manager.runSlice();
    ASSERT_EQ(truncate(kFile, 100), 0);
    runToEnd();
    DownloadDecoder decoder;
    decoder.add(takeStream().toStdString());
    EXPECT_TRUE(decoder.isComplete()) << decoder.fault();
    ASSERT_EQ(decoder.items().size(), 1U);
    EXPECT_FALSE(decoder.items()[0].isResumed);
    EXPECT_TRUE(decoder.items()[0].bytes == bytes.left(100).toStdString());
    EXPECT_EQ(decoder.items()[0].failure, "Read error");
}

TEST_F(LZFDownloadResumeTest, AFileThatShrinksToWhatTheHashIsOfDoesNotProveTheOffset) {
    const QByteArray bytes = noise(3 * PrefixHash::kPieceBytes);
    const QByteArray piece = bytes.left(PrefixHash::kPieceBytes);
    writeTestFile(kFile, bytes);
    startDrained(QString("%1|%2|%3").arg(kFile, hashOf(piece)).arg(bytes.size()));
    manager.runSlice();
    ASSERT_EQ(truncate(kFile, piece.size()), 0);
    runToEnd();
    DownloadDecoder decoder;
    decoder.add(takeStream().toStdString());
    ASSERT_EQ(decoder.items().size(), 1U);
    EXPECT_FALSE(decoder.items()[0].isResumed);
    EXPECT_TRUE(decoder.items()[0].bytes == piece.toStdString());
}

TEST_F(LZFDownloadResumeTest, AnOffsetThatCannotBeReachedIsAnOpenErrorAndTheNextEntryFollows) {
    const QByteArray prefix = noise(PrefixHash::kPieceBytes + 1);
    writeTestFile(kFile, prefix + "more");
    startDrained(resume(kFile, prefix) + "\n/none");
    manager.runSlice();
    {
        const FailingSeek failing;
        manager.runSlice();
    }
    warnings.clear();  // Qt complains of the seek.
    runToEnd();
    // Type 132, 10 bytes; type 132, 7 bytes; the end.
    EXPECT_EQ(takeStream(), QByteArray::fromHex("840a00") + "Open error" +
                                QByteArray::fromHex("840700") + "Missing" +
                                QByteArray::fromHex("040000"));
}

TEST_F(LZFDownloadResumeTest, AFileThatIsReplacedMeanwhileIsStillTheOneThatWasHashed) {
    const QByteArray bytes = noise(3 * PrefixHash::kPieceBytes + 100);
    writeTestFile(kFile, bytes);
    startDrained(resume(kFile, bytes.left(3 * PrefixHash::kPieceBytes)));
    manager.runSlice();
    manager.runSlice();
    writeTestFile("/root/data/other", noise(static_cast<int>(bytes.size())));
    ASSERT_EQ(rename("/root/data/other", kFile), 0);
    runToEnd();
    DownloadDecoder decoder;
    decoder.add(takeStream().toStdString());
    EXPECT_TRUE(decoder.items()[0].isResumed);
    EXPECT_TRUE(decoder.items()[0].bytes == bytes.right(100).toStdString());
}

TEST_F(LZFDownloadResumeTest, AResumedEntryLeavesNoTraceInTheNext) {
    const QByteArray bytes = noise(1000);
    writeTestFile(kFile, bytes);
    const DownloadDecoder decoder = download(resume(kFile, bytes) + '\n' + kFile + '\n' +
                                             resume(kFile, bytes.left(999)) + '\n' + kFile);
    ASSERT_EQ(decoder.items().size(), 4U);
    EXPECT_EQ(decoder.items()[0].kind, Kind::NothingLeft);
    EXPECT_FALSE(decoder.items()[1].isResumed);
    EXPECT_TRUE(decoder.items()[2].isResumed);
    EXPECT_FALSE(decoder.items()[3].isResumed);
    EXPECT_TRUE(decoder.items()[3].bytes == bytes.toStdString());
}

TEST_F(LZFDownloadResumeTest, ADirectoryBehindAFileWithNothingLeftIsNotAResumedOne) {
    writeTestFile("/root/data/folder/a", "x");
    writeTestFile(kFile, "hello");
    startDrained(resume(kFile, "hello") + "\n/root/data/folder");
    runToEnd();
    // Type 21; type 1 + 4 + 8, 14 bytes.
    EXPECT_TRUE(takeStream().startsWith(QByteArray::fromHex("1500000d0e00")));
}

}  // namespace

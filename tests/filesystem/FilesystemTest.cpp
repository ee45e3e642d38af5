#include "filesystem/Filesystem.h"

#include "filesystem/FileProtocol.h"
#include "tests/filesystem/FilesystemFixture.h"

#include <QCryptographicHash>
#include <QFile>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <limits>

namespace {

const QString kFile = QStringLiteral("/root/data/file");

class FilesystemTest : public FilesystemFixture {};

QByteArray md5(const QByteArray& data) {
    return QCryptographicHash::hash(data, QCryptographicHash::Md5);
}

}  // namespace

TEST_F(FilesystemTest, FirstHandleIsZeroAndNumbersAreNotReused) {
    writeTestFile(kFile, "x");
    EXPECT_EQ(open(kFile), 0);
    EXPECT_TRUE(files.closeFile(0));
    EXPECT_EQ(open(kFile), 1);
    EXPECT_EQ(openFolder("/root/data/."), -1);
    EXPECT_EQ(openFolder("/mmc"), 2) << "files and directories share the numbers";
    EXPECT_EQ(open(kFile), 3);
}

TEST_F(FilesystemTest, NumbersRunToTheLargestIntegerAndThenFromZero) {
    FilesystemState::setNextHandle(files, std::numeric_limits<int>::max());
    EXPECT_EQ(files.nextHandle(), 2147483647);
    EXPECT_EQ(files.nextHandle(), 0);
    EXPECT_EQ(files.nextHandle(), 1);
}

TEST_F(FilesystemTest, NumbersInUseAreSkippedWhenTheCounterWraps) {
    writeTestFile(kFile, "x");
    EXPECT_EQ(open(kFile), 0);
    EXPECT_EQ(open(kFile), 1);
    FilesystemState::setNextHandle(files, std::numeric_limits<int>::max());
    EXPECT_EQ(open(kFile), 2147483647);
    EXPECT_EQ(open(kFile), 2);
    FilesystemState::setNextHandle(files, std::numeric_limits<int>::max());
    EXPECT_EQ(open(kFile), 3) << "the largest is in use as well";
    EXPECT_EQ(FilesystemState::openHandles(files), 5);
}

TEST_F(FilesystemTest, FailedOpenStillAdvancesTheCounter) {
    EXPECT_EQ(open("/root/data/missing", kReadOnly), -1);
    EXPECT_EQ(open(kFile, kWriteOnly), 1);
}

TEST_F(FilesystemTest, RefusedNamesTakeNoNumber) {
    EXPECT_EQ(open("/etc/passwd", kReadOnly), -1);
    EXPECT_EQ(openFolder("/etc"), -1);
    EXPECT_EQ(open(kFile), 0);
}

TEST_F(FilesystemTest, HandleLivesAt29SecondsAndIsClosedAt30) {
    writeTestFile(kFile, "x");
    const int handle = open(kFile);
    clock.advance(29);
    files.expireHandles();
    EXPECT_EQ(FilesystemState::openHandles(files), 1);
    clock.advance(1);
    files.expireHandles();
    EXPECT_EQ(FilesystemState::openHandles(files), 0);
    EXPECT_FALSE(files.closeFile(handle));
}

TEST_F(FilesystemTest, ExpiryClosesOnlyWhatIsDueAndLogsNothing) {
    ASSERT_EQ(openFolder("/mmc"), 0);
    clock.advance(10);
    ASSERT_EQ(open(kFile), 1);
    clock.advance(10);
    ASSERT_EQ(openFolder("/mmc"), 2);
    log.clear();
    clock.advance(20);
    files.expireHandles();
    EXPECT_TRUE(log.lines().isEmpty());
    EXPECT_FALSE(files.closeDirectory(0));
    EXPECT_FALSE(files.closeFile(1));
    EXPECT_TRUE(files.closeDirectory(2));
}

TEST_F(FilesystemTest, EveryOperationByHandleMakesItLive30SecondsMore) {
    writeTestFile("/mmc/file", "0123456789");
    const int file = open("/mmc/file");
    const int folder = openFolder("/mmc");
    QByteArray data;
    QString name;
    int length = 0;
    long created = 0;
    long modified = 0;
    const std::function<bool()> operations[] = {
        [&] { return files.readFile(file, 0, 1, data); },
        [&] { return files.writeFile(file, 0, 1, "x"); },
        [&] { return files.generateHash(file, 0, 1, data); },
        [&] { return files.truncateFile(file, 5); },
    };
    for (const auto& operation : operations) {
        clock.advance(29);
        EXPECT_TRUE(operation());
        EXPECT_TRUE(files.fileInDirectory(folder, 0, name, length, created, modified));
        files.expireHandles();
    }
    EXPECT_EQ(FilesystemState::openHandles(files), 2);
    clock.advance(30);
    files.expireHandles();
    EXPECT_EQ(FilesystemState::openHandles(files), 0);
}

TEST_F(FilesystemTest, FailedOperationOnAnOpenHandleCountsAsUseToo) {
    const int file = open(kFile);
    QByteArray data;
    clock.advance(29);
    EXPECT_FALSE(files.readFile(file, 0, 1, data));
    clock.advance(29);
    files.expireHandles();
    EXPECT_TRUE(files.closeFile(file));
}

TEST_F(FilesystemTest, IndexOutOfRangeIsNoUse) {
    const int folder = openFolder("/mmc");
    QString name;
    int length = 0;
    long created = 0;
    long modified = 0;
    clock.advance(29);
    EXPECT_FALSE(files.fileInDirectory(folder, 0, name, length, created, modified));
    clock.advance(1);
    files.expireHandles();
    EXPECT_FALSE(files.closeDirectory(folder));
}

TEST_F(FilesystemTest, ClockSetBackDoesNotKeepAHandleOpenForEver) {
    const int file = open(kFile);
    clock.wall -= 3600;
    files.expireHandles();
    clock.wall += 29;
    files.expireHandles();
    EXPECT_EQ(FilesystemState::openHandles(files), 1);
    clock.wall += 1;
    files.expireHandles();
    EXPECT_FALSE(files.closeFile(file));
}

TEST_F(FilesystemTest, DestructionClosesOpenFiles) {
    const int before = ::dup(0);
    ::close(before);
    {
        Filesystem other(nullptr);
        int length = 0;
        ASSERT_EQ(other.openFile(kFile, QIODevice::ReadWrite, length), 0);
        ASSERT_EQ(other.openDirectory("/mmc", "*", length), 1);
        EXPECT_EQ(::fcntl(before, F_GETFD), FD_CLOEXEC) << "the file's descriptor";
    }
    EXPECT_EQ(::fcntl(before, F_GETFD), -1);
}

TEST_F(FilesystemTest, OpenTellsTheSizeAndLogsTheName) {
    writeTestFile(kFile, "0123456789");
    int length = -7;
    EXPECT_EQ(files.openFile(kFile, QIODevice::ReadOnly, length), 0);
    EXPECT_EQ(length, 10);
    EXPECT_EQ(log.lines(), QList<QByteArray>{"Filesystem: OPENED FILE \"/root/data/file\""});
}

TEST_F(FilesystemTest, OpenTellsTheLow32BitsOfALargeSize) {
    makeSparseFile(kFile, (1LL << 32) + 5);
    int length = -7;
    EXPECT_EQ(files.openFile(kFile, QIODevice::ReadOnly, length), 0);
    EXPECT_EQ(length, 5);
}

TEST_F(FilesystemTest, OpenOfANameOutsideTheRootsIsLogged) {
    EXPECT_EQ(open("/root/data/../../etc/passwd", kReadOnly), -1);
    EXPECT_EQ(log.lines(),
              QList<QByteArray>{"Filesystem: INVALID FILENAME \"/root/data/../../etc/passwd\""});
}

TEST_F(FilesystemTest, FailedOpenIsLoggedWithTheClientsFlags) {
    EXPECT_EQ(open("/root/data/no/file", 0x1A), -1);
    EXPECT_EQ(log.lines(),
              QList<QByteArray>{
                  "Filesystem: FAILED TO OPEN FILE \"/root/data/no/file\" with flags 0x0000001A"});
    log.clear();
    EXPECT_EQ(open("/root/data/file", static_cast<int>(0x80000000)), -1);
    EXPECT_TRUE(
        log.contains("Filesystem: FAILED TO OPEN FILE \"/root/data/file\" with flags 0x80000000"));
}

TEST_F(FilesystemTest, NothingButARegularFileIsOpened) {
    ASSERT_EQ(::mkfifo("/root/data/fifo", 0600), 0);
    ASSERT_EQ(::mkdir("/root/data/folder", 0700), 0);
    ASSERT_EQ(::symlink("/dev/zero", "/root/data/device"), 0);
    for (const char* name : {"fifo", "folder", "device"}) {
        const QByteArray path = QByteArray("/root/data/") + name;
        EXPECT_EQ(open(QString::fromLatin1(path), kReadOnly), -1);
        EXPECT_TRUE(
            log.contains("Filesystem: FAILED TO OPEN FILE \"" + path + "\" with flags 0x00000001"));
    }
}

TEST_F(FilesystemTest, WriteOnlyAloneEmptiesTheFileAndAppendDoesNot) {
    writeTestFile(kFile, "0123456789");
    const int appended = open(kFile, kAppend);
    EXPECT_TRUE(files.writeFile(appended, 2, 3, "abc"));
    EXPECT_EQ(readTestFile(kFile), "0123456789abc") << "at the end, whatever the offset";
    EXPECT_GE(open(kFile, kWriteOnly), 0);
    EXPECT_EQ(readTestFile(kFile), "");
}

TEST_F(FilesystemTest, NoMoreThan4096HandlesAreOpen) {
    for (int i = 0; i < 4095; ++i) {
        ASSERT_EQ(openFolder("/mmc"), i);
    }
    ASSERT_EQ(open(kFile), 4095);
    EXPECT_EQ(openFolder("/mmc"), -1);
    EXPECT_EQ(open("/root/data/other"), -1);
    EXPECT_EQ(readTestFile("/root/data/other"), "(missing)");
    EXPECT_TRUE(
        log.contains("Filesystem: FAILED TO OPEN FILE \"/root/data/other\" with flags 0x00000003"));
    EXPECT_TRUE(files.closeDirectory(7));
    EXPECT_EQ(open(kFile), 4097) << "the failed open took its number";
}

TEST_F(FilesystemTest, ReadPastTheEndIsFalseAndEmpty) {
    writeTestFile(kFile, "0123456789");
    const int file = open(kFile);
    QByteArray data = "left over";
    EXPECT_FALSE(files.readFile(file, 10, 1, data));
    EXPECT_EQ(data, "");
    data = "left over";
    EXPECT_FALSE(files.readFile(file, std::numeric_limits<int>::max(), 100'000, data));
    EXPECT_EQ(data, "");
}

TEST_F(FilesystemTest, ReadAcrossTheEndIsFalseAndHoldsWhatThereIs) {
    writeTestFile(kFile, "0123456789");
    const int file = open(kFile);
    QByteArray data;
    EXPECT_FALSE(files.readFile(file, 6, 100, data));
    EXPECT_EQ(data, "6789");
    EXPECT_FALSE(files.readFile(file, 6, 100'000, data));
    EXPECT_EQ(data, "6789");
}

TEST_F(FilesystemTest, ReadGivesTheBytesAtTheOffset) {
    writeTestFile(kFile, "0123456789");
    const int file = open(kFile, kReadOnly);
    QByteArray data;
    EXPECT_TRUE(files.readFile(file, 3, 4, data));
    EXPECT_EQ(data, "3456");
    EXPECT_TRUE(files.readFile(file, 0, 10, data));
    EXPECT_EQ(data, "0123456789");
    EXPECT_TRUE(files.readFile(file, 4, 0, data));
    EXPECT_EQ(data, "");
    EXPECT_TRUE(files.readFile(file, 400, 0, data)) << "nothing is there to be had";
}

TEST_F(FilesystemTest, ReadSeesWhatOthersHaveWrittenMeanwhile) {
    writeTestFile(kFile, "0123456789");
    const int file = open(kFile, kReadOnly);
    const int textFile = open(kFile, kReadOnly | kText);
    QByteArray data;
    ASSERT_TRUE(files.readFile(file, 0, 4, data));
    ASSERT_TRUE(files.readFile(textFile, 0, 4, data));
    const int writer = open(kFile);
    ASSERT_TRUE(files.writeFile(writer, 0, 4, "abcd"));
    EXPECT_TRUE(files.readFile(file, 0, 4, data));
    EXPECT_EQ(data, "abcd");
    EXPECT_TRUE(files.readFile(textFile, 0, 4, data));
    EXPECT_EQ(data, "abcd");
}

TEST_F(FilesystemTest, ReadOfNegativeOffsetOrLengthFails) {
    writeTestFile(kFile, "0123456789");
    QByteArray data;
    for (const int flags : {kReadOnly, kReadOnly | kText}) {
        const int file = open(kFile, flags);
        EXPECT_FALSE(files.readFile(file, -1, 1, data));
        EXPECT_FALSE(files.readFile(file, std::numeric_limits<int>::min(), 0, data));
        EXPECT_FALSE(files.readFile(file, 0, -1, data));
        EXPECT_FALSE(files.readFile(file, 0, std::numeric_limits<int>::min(), data));
    }
}

TEST_F(FilesystemTest, ReadOfAWriteOnlyHandleFails) {
    for (const int flags : {kWriteOnly, kWriteOnly | kText}) {
        const int file = open(kFile, flags);
        ASSERT_TRUE(files.writeFile(file, 0, 3, "abc"));
        QByteArray data;
        EXPECT_FALSE(files.readFile(file, 0, 3, data));
        EXPECT_EQ(data, "");
        EXPECT_FALSE(files.generateHash(file, 0, 3, data));
    }
}

TEST_F(FilesystemTest, TextModeLeavesOutCarriageReturnsAsQtDoes) {
    const QByteArray contents = "one\r\ntwo\rthree\r\n\n\r";
    writeTestFile(kFile, contents);
    const int file = open(kFile, kReadOnly | kText);
    QFile reference(kFile);
    ASSERT_TRUE(reference.open(QIODevice::ReadOnly | QIODevice::Text));
    for (int offset = 0; offset <= contents.size(); ++offset) {
        for (int length = 0; length <= contents.size(); ++length) {
            QByteArray data;
            ASSERT_TRUE(reference.seek(offset));
            const QByteArray expected = reference.read(length);
            EXPECT_EQ(files.readFile(file, offset, length, data), expected.size() == length);
            EXPECT_EQ(data, expected) << offset << " " << length;
        }
    }
}

TEST_F(FilesystemTest, AReadTakesMemoryForWhatTheFileHasNotForWhatIsAsked) {
    writeTestFile(kFile, "0123456789");
    const int file = open(kFile);
    QByteArray data;
    EXPECT_FALSE(files.readFile(file, 2, std::numeric_limits<int>::max(), data));
    EXPECT_EQ(data, "23456789");
    EXPECT_LT(data.capacity(), 1024);
}

TEST_F(FilesystemTest, AReadOfMoreThanAReplyMayCarryFails) {
    makeSparseFile(kFile, kMaximumReadReplyBytes + 1);
    const int file = open(kFile);
    QByteArray data;
    EXPECT_TRUE(files.readFile(file, 1, kMaximumReadReplyBytes, data));
    EXPECT_EQ(data.size(), kMaximumReadReplyBytes);
    EXPECT_FALSE(files.readFile(file, 0, kMaximumReadReplyBytes + 1, data));
    EXPECT_EQ(data, "");
}

TEST_F(FilesystemTest, AWriteIsInTheFileBeforeItIsAnswered) {
    const int file = open(kFile);
    EXPECT_TRUE(files.writeFile(file, 0, 5, "hello"));
    EXPECT_EQ(readTestFile(kFile), "hello");
    EXPECT_TRUE(files.writeFile(file, 7, 2, "!!"));
    EXPECT_EQ(readTestFile(kFile), QByteArray("hello\0\0!!", 9));
}

TEST_F(FilesystemTest, AWriteToAFullDiskFails) {
    const int file = open(kFile);
    const QByteArray block(6000, 'x');
    {
        const FullDiskAt limit(4096);
        EXPECT_FALSE(files.writeFile(file, 0, 6000, block.constData()));
        EXPECT_FALSE(files.writeFile(file, 4096, 1, block.constData()));
        EXPECT_TRUE(files.writeFile(file, 4000, 96, block.constData()));
    }
    EXPECT_EQ(readTestFile(kFile).size(), 4096);
}

TEST_F(FilesystemTest, AWriteOfNothingTellsWhetherTheHandleCanBeWritten) {
    writeTestFile(kFile, "x");
    EXPECT_TRUE(files.writeFile(open(kFile), 0, 0, nullptr));
    EXPECT_FALSE(files.writeFile(open(kFile, kReadOnly), 0, 0, nullptr));
    EXPECT_FALSE(files.writeFile(open(kFile, kReadOnly), 0, 1, "y"));
    EXPECT_EQ(readTestFile(kFile), "x");
}

TEST_F(FilesystemTest, AWriteAtANegativeOffsetFails) {
    const int file = open(kFile);
    EXPECT_FALSE(files.writeFile(file, -1, 1, "x"));
    EXPECT_FALSE(files.writeFile(file, 0, -1, "x"));
}

TEST_F(FilesystemTest, HashOfARangeIsItsRawDigest) {
    writeTestFile(kFile, "0123456789");
    const int file = open(kFile);
    QByteArray hash;
    EXPECT_TRUE(files.generateHash(file, 2, 5, hash));
    EXPECT_EQ(hash, md5("23456"));
    EXPECT_FALSE(files.generateHash(file, 5, 6, hash));
    EXPECT_EQ(hash, "");
    EXPECT_FALSE(files.generateHash(file, -1, 1, hash));
}

TEST_F(FilesystemTest, HashOfANegativeLengthIsTheDigestOfNoData) {
    writeTestFile(kFile, "0123456789");
    const int file = open(kFile);
    QByteArray hash;
    EXPECT_TRUE(files.generateHash(file, 3, -1, hash));
    EXPECT_EQ(hash, md5(""));
    EXPECT_TRUE(files.generateHash(file, 99, 0, hash)) << "no bounds test is made";
    EXPECT_EQ(hash, md5(""));
}

TEST_F(FilesystemTest, TruncateCutsAndLengthens) {
    writeTestFile(kFile, "0123456789");
    const int file = open(kFile);
    EXPECT_TRUE(files.truncateFile(file, 4));
    EXPECT_EQ(readTestFile(kFile), "0123");
    EXPECT_TRUE(files.truncateFile(file, 6));
    EXPECT_EQ(readTestFile(kFile), QByteArray("0123\0\0", 6));
    EXPECT_TRUE(files.truncateFile(file, 0));
    EXPECT_EQ(readTestFile(kFile), "");
}

TEST_F(FilesystemTest, TruncateFailsForNegativeSizesAndReadOnlyHandles) {
    writeTestFile(kFile, "0123456789");
    EXPECT_FALSE(files.truncateFile(open(kFile), -1));
    EXPECT_FALSE(files.truncateFile(open(kFile, kReadOnly), 3));
    EXPECT_EQ(readTestFile(kFile), "0123456789");
}

TEST_F(FilesystemTest, UnknownNumbersFailAndOnlyTheEntryLookUpLogs) {
    QByteArray data;
    QString name;
    int length = 0;
    long created = 0;
    long modified = 0;
    for (const int handle : {0, 1, -1, std::numeric_limits<int>::max()}) {
        EXPECT_FALSE(files.closeFile(handle));
        EXPECT_FALSE(files.readFile(handle, 0, 0, data));
        EXPECT_FALSE(files.writeFile(handle, 0, 0, ""));
        EXPECT_FALSE(files.generateHash(handle, 0, 0, data));
        EXPECT_FALSE(files.truncateFile(handle, 0));
        EXPECT_FALSE(files.closeDirectory(handle));
        EXPECT_TRUE(log.lines().isEmpty());
        EXPECT_FALSE(files.fileInDirectory(handle, 0, name, length, created, modified));
        EXPECT_EQ(log.lines(),
                  QList<QByteArray>{"Filesystem: _handles does not contain the handle!"});
        log.clear();
    }
}

TEST_F(FilesystemTest, AHandleOfTheOtherKindIsRefusedAndStaysOpen) {
    writeTestFile(kFile, "x");
    const int file = open(kFile);
    const int folder = openFolder("/mmc");
    QByteArray data;
    QString name;
    int length = 0;
    long created = 0;
    long modified = 0;
    EXPECT_FALSE(files.closeFile(folder));
    EXPECT_FALSE(files.readFile(folder, 0, 0, data));
    EXPECT_FALSE(files.writeFile(folder, 0, 0, ""));
    EXPECT_FALSE(files.generateHash(folder, 0, 0, data));
    EXPECT_FALSE(files.truncateFile(folder, 0));
    EXPECT_FALSE(files.closeDirectory(file));
    EXPECT_FALSE(files.fileInDirectory(file, 0, name, length, created, modified));
    EXPECT_TRUE(files.closeFile(file));
    EXPECT_TRUE(files.closeDirectory(folder));
}

TEST_F(FilesystemTest, DeleteRemovesAFileAndLogsNothing) {
    writeTestFile(kFile, "x");
    EXPECT_TRUE(files.deleteFile(kFile));
    EXPECT_EQ(readTestFile(kFile), "(missing)");
    EXPECT_FALSE(files.deleteFile(kFile));
    ASSERT_EQ(::mkdir("/root/data/folder", 0700), 0);
    EXPECT_FALSE(files.deleteFile("/root/data/folder"));
    writeTestFile("/tmp/outside", "x");
    EXPECT_FALSE(files.deleteFile("/tmp/outside"));
    EXPECT_FALSE(files.deleteFile("/root/data/../../tmp/outside"));
    EXPECT_FALSE(files.deleteFile(""));
    EXPECT_EQ(readTestFile("/tmp/outside"), "x");
    EXPECT_TRUE(log.lines().isEmpty());
}

TEST_F(FilesystemTest, ADeletedFileCanStillBeReadByItsHandle) {
    writeTestFile(kFile, "abc");
    const int file = open(kFile);
    ASSERT_TRUE(files.deleteFile(kFile));
    QByteArray data;
    EXPECT_TRUE(files.readFile(file, 0, 3, data));
    EXPECT_EQ(data, "abc");
}

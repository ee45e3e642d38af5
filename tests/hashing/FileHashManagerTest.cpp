#include "hashing/FileHashManager.h"

#include "tests/support/Files.h"
#include "tests/support/LogCapture.h"
#include "tests/support/QtWarnings.h"

#include <QCryptographicHash>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <csignal>
#include <limits>
#include <tuple>

namespace {

const QString kFile = QStringLiteral("/root/data/hashed");
const QString kEmptyDigest = QStringLiteral("1B2M2Y8AsgTpgAmY7PhCfg==");

QByteArray md5(const QByteArray& data) {
    return QCryptographicHash::hash(data, QCryptographicHash::Md5);
}

QString base64(const QByteArray& data) {
    return QString::fromLatin1(md5(data).toBase64());
}

/// A file that hands out at most `step` bytes a read.
class SlowFile : public QFile {
public:
    SlowFile(const QString& name, qint64 step) : QFile(name), _step(step) {}
    int reads = 0;

protected:
    qint64 readData(char* data, qint64 length) override {
        ++reads;
        return QFile::readData(data, qMin(length, _step));
    }

private:
    qint64 _step;
};

/// A file that is cut to `size` bytes after its first read.
class ShrinkingFile : public QFile {
public:
    ShrinkingFile(const QString& name, qint64 size) : QFile(name), _size(size) {}

protected:
    qint64 readData(char* data, qint64 length) override {
        const qint64 count = QFile::readData(data, length);
        QFile::resize(fileName(), _size);
        return count;
    }

private:
    qint64 _size;
};

void cutHashedFile(int) {
    std::ignore = ::truncate("/root/data/hashed", 100);
}

class FileHashManagerTest : public testing::Test {
protected:
    void SetUp() override { emptyRoots(); }
    void TearDown() override {
        EXPECT_TRUE(log.lines().isEmpty()) << "hashing writes no log line";
        EXPECT_TRUE(warnings.lines().isEmpty()) << warnings.lines().value(0).toStdString();
    }

    LogCapture log;
    QtWarnings warnings;
};

}  // namespace

TEST_F(FileHashManagerTest, LengthZeroAtOffsetZeroIsTheDigestOfNoData) {
    writeTestFile(kFile, "0123456789");
    EXPECT_EQ(FileHashManager::calculateFileHash(kFile, 0, 0), kEmptyDigest);
    writeTestFile(kFile, "");
    EXPECT_EQ(FileHashManager::calculateFileHash(kFile, 0, 0), kEmptyDigest);
    EXPECT_EQ(kEmptyDigest.size(), 24);
}

TEST_F(FileHashManagerTest, LengthMinusOneIsTheWholeFileAndIsNotClippedBehindAnOffset) {
    writeTestFile(kFile, "0123456789");
    EXPECT_EQ(FileHashManager::calculateFileHash(kFile, 0, -1), base64("0123456789"));
    EXPECT_EQ(FileHashManager::calculateFileHash(kFile, 0, std::numeric_limits<int>::min()),
              base64("0123456789"));
    EXPECT_TRUE(FileHashManager::calculateFileHash(kFile, 4, -1).isNull());
}

TEST_F(FileHashManagerTest, ARangeMayEndAtTheEndOfTheFileAndNotBehindIt) {
    writeTestFile(kFile, "0123456789");
    EXPECT_EQ(FileHashManager::calculateFileHash(kFile, 10, 0), kEmptyDigest);
    EXPECT_TRUE(FileHashManager::calculateFileHash(kFile, 11, 0).isNull());
    EXPECT_EQ(FileHashManager::calculateFileHash(kFile, 4, 6), base64("456789"));
    EXPECT_TRUE(FileHashManager::calculateFileHash(kFile, 4, 7).isNull());
}

TEST_F(FileHashManagerTest, AFileThatShrinksWhileItIsHashedGivesANullString) {
    // 256 MiB take many times the processor time after which the file is cut, and opening it
    // takes next to none.
    makeSparseFile(kFile, 256LL << 20);
    void (*const before)(int) = std::signal(SIGPROF, cutHashedFile);
    const itimerval once = {{0, 0}, {0, 20'000}};
    ASSERT_EQ(::setitimer(ITIMER_PROF, &once, nullptr), 0);
    const QString digest = FileHashManager::calculateFileHash(kFile, 0, 256 << 20);
    const itimerval never = {};
    ASSERT_EQ(::setitimer(ITIMER_PROF, &never, nullptr), 0);
    std::signal(SIGPROF, before);
    EXPECT_EQ(QFile(kFile).size(), 100) << "it was cut";
    EXPECT_TRUE(digest.isNull());
}

TEST_F(FileHashManagerTest, AnOpenFileThatShrinksWhileItIsHashedGivesAnEmptyArray) {
    writeTestFile(kFile, QByteArray(100'000, 'x'));
    ShrinkingFile file(kFile, 10'000);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly | QIODevice::Unbuffered));
    EXPECT_TRUE(FileHashManager::calculateFileHash(file, 0, 100'000).isEmpty());
    EXPECT_TRUE(file.isOpen());
}

TEST_F(FileHashManagerTest, PathsAreCleanedBeforeTheyAreTestedAgainstTheRoots) {
    EXPECT_FALSE(FileHashManager::validateFilename("/root/data/../../etc/passwd"));
    EXPECT_TRUE(FileHashManager::validateFilename("/etc/../root//data/./x"));
    EXPECT_TRUE(FileHashManager::validateFilename("/root/config/x"));
    EXPECT_TRUE(FileHashManager::validateFilename("/mmc/x"));
}

TEST_F(FileHashManagerTest, ARootWithoutItsSlashIsRefused) {
    EXPECT_FALSE(FileHashManager::validateFilename("/root/config"));
    EXPECT_FALSE(FileHashManager::validateFilename("/root/config/"));
    EXPECT_FALSE(FileHashManager::validateFilename("/root/data"));
    EXPECT_FALSE(FileHashManager::validateFilename("/root/datax/y"));
    EXPECT_FALSE(FileHashManager::validateFilename("/ROOT/data/x"));
    EXPECT_FALSE(FileHashManager::validateFilename("root/data/x"));
    EXPECT_FALSE(FileHashManager::validateFilename(""));
    EXPECT_FALSE(FileHashManager::validateFilename(QString()));
}

TEST_F(FileHashManagerTest, KeptBarePrefixOfTheCardLetsItsDevicesPass) {
    EXPECT_TRUE(FileHashManager::validateFilename("/mmcblk0"));
    EXPECT_TRUE(FileHashManager::validateFilename("/mmc"));
    EXPECT_TRUE(FileHashManager::validateFilename("/mmcfoo/x"));
    EXPECT_FALSE(FileHashManager::validateFilename("/MMC/x"));
    EXPECT_FALSE(FileHashManager::validateFilename("/mm"));
}

TEST_F(FileHashManagerTest, MemoryHashOfZeroBytesIsTheStartOfTheEmptyDigest) {
    EXPECT_EQ(static_cast<quint32>(FileHashManager::calculate32BitMemoryHash("", 0)), 0xD98C1DD4u);
    EXPECT_EQ(static_cast<quint32>(FileHashManager::calculate32BitMemoryHash(nullptr, 0)),
              0xD98C1DD4u);
    EXPECT_EQ(static_cast<quint32>(FileHashManager::calculate32BitMemoryHash("abc", -1)),
              0xD98C1DD4u);
}

TEST_F(FileHashManagerTest, MemoryHashReadsTheFirstFourBytesLittleEndian) {
    // MD5("abc") = 90 01 50 98 3c d2 ...
    EXPECT_EQ(static_cast<quint32>(FileHashManager::calculate32BitMemoryHash("abcdef", 3)),
              0x98500190u);
}

TEST_F(FileHashManagerTest, ANegativeOffsetIsRefused) {
    writeTestFile(kFile, "0123456789");
    EXPECT_TRUE(FileHashManager::calculateFileHash(kFile, -1, 1).isNull());
    EXPECT_TRUE(FileHashManager::calculateFileHash(kFile, -1, -1).isNull());
    EXPECT_TRUE(
        FileHashManager::calculateFileHash(kFile, std::numeric_limits<int>::min(), 0).isNull());
}

TEST_F(FileHashManagerTest, KeptRangeWhoseEndWrapsPastTheLargestIntegerFindsNoData) {
    writeTestFile(kFile, "0123456789");
    EXPECT_TRUE(
        FileHashManager::calculateFileHash(kFile, std::numeric_limits<int>::max(), 10).isNull());
    EXPECT_TRUE(FileHashManager::calculateFileHash(kFile, std::numeric_limits<int>::max(),
                                                   std::numeric_limits<int>::max())
                    .isNull());
}

TEST_F(FileHashManagerTest, KeptSizeOfAFileBeyondTwoGigabytesIsNegativeAndHashesNoData) {
    makeSparseFile(kFile, 3LL << 30);
    EXPECT_EQ(FileHashManager::calculateFileHash(kFile, 0, -1), kEmptyDigest);
}

TEST_F(FileHashManagerTest, KeptSizeOfAFileBeyondFourGigabytesCountsInItsLow32Bits) {
    makeSparseFile(kFile, (1LL << 32) + 10);
    EXPECT_EQ(FileHashManager::calculateFileHash(kFile, 0, -1), base64(QByteArray(10, '\0')));
}

TEST_F(FileHashManagerTest, WhatCannotBeReadGivesANullString) {
    EXPECT_TRUE(FileHashManager::calculateFileHash("/root/data/missing", 0, -1).isNull());
    EXPECT_TRUE(FileHashManager::calculateFileHash("/root/data", 0, 0).isNull());
    EXPECT_TRUE(FileHashManager::calculateFileHash("/dev/zero", 0, 0).isNull());
    EXPECT_TRUE(FileHashManager::calculateFileHash(QString(), 0, 0).isNull());
    EXPECT_TRUE(FileHashManager::calculateFileHash(QString(100'000, 'x'), 0, 0).isNull());
}

TEST_F(FileHashManagerTest, AFifoIsRefusedInsteadOfWaitedFor) {
    ASSERT_EQ(::mkfifo("/root/data/fifo", 0600), 0);
    EXPECT_TRUE(FileHashManager::calculateFileHash("/root/data/fifo", 0, 0).isNull());
}

TEST_F(FileHashManagerTest, AnOpenFileGivesTheRawDigestOfTheRangeAndStandsBehindIt) {
    writeTestFile(kFile, "0123456789");
    QFile file(kFile);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_EQ(FileHashManager::calculateFileHash(file, 2, 5), md5("23456"));
    EXPECT_EQ(file.pos(), 7);
    EXPECT_TRUE(file.isOpen());
    EXPECT_EQ(FileHashManager::calculateFileHash(file, 2, 5).size(), 16);
}

TEST_F(FileHashManagerTest, AnOpenFileIsHashedOverManyBuffers) {
    QByteArray contents;
    for (int i = 0; i < 50'000; ++i) {
        contents.append(static_cast<char>(i * 31));
    }
    writeTestFile(kFile, contents);
    QFile file(kFile);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    for (const int length : {1, 8191, 8192, 8193, 16384, 49'993}) {
        EXPECT_EQ(FileHashManager::calculateFileHash(file, 7, length), md5(contents.mid(7, length)))
            << length;
    }
    EXPECT_TRUE(FileHashManager::calculateFileHash(file, 7, 49'994).isEmpty());
}

TEST_F(FileHashManagerTest, AShortReadIsFollowedByAnother) {
    writeTestFile(kFile, QByteArray(1000, 'y'));
    SlowFile file(kFile, 7);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly | QIODevice::Unbuffered));
    EXPECT_EQ(FileHashManager::calculateFileHash(file, 0, 1000), md5(QByteArray(1000, 'y')));
    EXPECT_GE(file.reads, 143);
}

TEST_F(FileHashManagerTest, ANegativeLengthOfAnOpenFileHashesNoData) {
    writeTestFile(kFile, "0123456789");
    QFile file(kFile);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_EQ(FileHashManager::calculateFileHash(file, 3, -5), md5(""));
    EXPECT_EQ(FileHashManager::calculateFileHash(file, 300, 0), md5(""));
}

TEST_F(FileHashManagerTest, AnOpenFileThatCannotBeReadThereGivesAnEmptyArray) {
    writeTestFile(kFile, "0123456789");
    QFile file(kFile);
    EXPECT_TRUE(FileHashManager::calculateFileHash(file, 0, 1).isEmpty()) << "not open";
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_TRUE(FileHashManager::calculateFileHash(file, -1, 1).isEmpty());
    EXPECT_TRUE(FileHashManager::calculateFileHash(file, 10, 1).isEmpty());
    QFile written(kFile);
    ASSERT_TRUE(written.open(QIODevice::WriteOnly));
    EXPECT_TRUE(FileHashManager::calculateFileHash(written, 0, 1).isEmpty()) << "write-only";
    EXPECT_EQ(FileHashManager::calculateFileHash(written, 0, 0), md5("")) << "nothing is read";
}

TEST_F(FileHashManagerTest, AnInstanceBelongsToItsParent) {
    QObject parent;
    auto* const manager = new FileHashManager(&parent);
    EXPECT_EQ(manager->parent(), &parent);
    EXPECT_STREQ(manager->metaObject()->className(), "FileHashManager");
}

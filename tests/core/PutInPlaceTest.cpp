#include "core/shared/PutInPlace.h"

#include "tests/support/Files.h"

#include <QDir>
#include <QFile>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const QByteArray kBeside = "/root/data/folder/.new";
const QByteArray kPlace = "/root/data/folder/place";
const QString kFolder = QStringLiteral("/root/data/folder");

/// A file with contents, open for writing while this lives.
class OpenFile {
public:
    OpenFile(const QByteArray& name, const QByteArray& contents) {
        writeTestFile(QString::fromLatin1(name), contents);
        _descriptor = ::open(name.constData(), O_RDWR | O_CLOEXEC);
    }
    ~OpenFile() { ::close(_descriptor); }
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;

    int descriptor() const { return _descriptor; }

private:
    int _descriptor = -1;
};

QByteArray contentsOf(const QByteArray& name) {
    return readTestFile(QString::fromLatin1(name));
}

QStringList namesIn(const QString& folder) {
    return QDir(folder).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
}

class PutInPlace : public testing::Test {
protected:
    void SetUp() override { emptyRoots(); }
};

TEST_F(PutInPlace, ANewFileStandsAtItsPlaceAlone) {
    const OpenFile file(kBeside, "new");
    EXPECT_TRUE(putInPlace(file.descriptor(), kBeside, kPlace));
    EXPECT_EQ(contentsOf(kPlace), "new");
    EXPECT_EQ(namesIn(kFolder), QStringList("place"));
}

TEST_F(PutInPlace, AnOldFileIsReplaced) {
    writeTestFile(QString::fromLatin1(kPlace), "old and longer");
    const OpenFile file(kBeside, "new");
    EXPECT_TRUE(putInPlace(file.descriptor(), kBeside, kPlace));
    EXPECT_EQ(contentsOf(kPlace), "new");
    EXPECT_EQ(namesIn(kFolder), QStringList("place"));
}

TEST_F(PutInPlace, WhoeverHasTheOldFileOpenStillReadsIt) {
    const OpenFile old(kPlace, "old");
    const OpenFile file(kBeside, "new");
    ASSERT_TRUE(putInPlace(file.descriptor(), kBeside, kPlace));
    char bytes[4] = {};
    ASSERT_EQ(::pread(old.descriptor(), bytes, 3, 0), 3);
    EXPECT_STREQ(bytes, "old");
}

TEST_F(PutInPlace, TheDescriptorIsTheFileAtItsPlaceAndStaysOpen) {
    const OpenFile file(kBeside, "new");
    ASSERT_TRUE(putInPlace(file.descriptor(), kBeside, kPlace));
    ASSERT_EQ(::pwrite(file.descriptor(), "N", 1, 0), 1);
    EXPECT_EQ(contentsOf(kPlace), "New");
}

TEST_F(PutInPlace, ALinkAtThePlaceIsReplacedAndWhatItLedToStays) {
    writeTestFile(kFolder + QStringLiteral("/aim"), "aim");
    ASSERT_EQ(::symlink("aim", kPlace.constData()), 0);
    const OpenFile file(kBeside, "new");
    EXPECT_TRUE(putInPlace(file.descriptor(), kBeside, kPlace));
    EXPECT_FALSE(QFileInfo(QString::fromLatin1(kPlace)).isSymLink());
    EXPECT_EQ(contentsOf(kPlace), "new");
    EXPECT_EQ(contentsOf("/root/data/folder/aim"), "aim");
}

TEST_F(PutInPlace, AFolderAtThePlaceStaysAndTheNewFileIsGone) {
    ASSERT_TRUE(QDir().mkpath(QString::fromLatin1(kPlace)));
    const OpenFile file(kBeside, "new");
    EXPECT_FALSE(putInPlace(file.descriptor(), kBeside, kPlace));
    EXPECT_EQ(namesIn(kFolder), QStringList("place"));
    EXPECT_TRUE(QFileInfo(QString::fromLatin1(kPlace)).isDir());
}

TEST_F(PutInPlace, AMissingFolderOfThePlaceFailsAndTheNewFileIsGone) {
    const OpenFile file(kBeside, "new");
    EXPECT_FALSE(putInPlace(file.descriptor(), kBeside, "/root/data/missing/place"));
    EXPECT_TRUE(namesIn(kFolder).isEmpty());
}

TEST_F(PutInPlace, AnotherFileSystemFailsAndTheNewFileIsGone) {
    struct stat data;
    struct stat other;
    ASSERT_EQ(::stat("/root/data", &data), 0);
    ASSERT_EQ(::stat("/dev", &other), 0);
    ASSERT_NE(data.st_dev, other.st_dev);
    const OpenFile file(kBeside, "new");
    EXPECT_FALSE(putInPlace(file.descriptor(), kBeside, "/dev/scada-place"));
    EXPECT_TRUE(namesIn(kFolder).isEmpty());
    EXPECT_EQ(contentsOf("/dev/scada-place"), "(missing)");
}

TEST_F(PutInPlace, AMissingNewFileLeavesTheOldOne) {
    const OpenFile old(kPlace, "old");
    EXPECT_FALSE(putInPlace(old.descriptor(), kBeside, kPlace));
    EXPECT_EQ(contentsOf(kPlace), "old");
}

TEST_F(PutInPlace, WhatStorageDoesNotTakeIsNotPutThere) {
    writeTestFile(QString::fromLatin1(kPlace), "old");
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);  // a pipe cannot be forced to storage
    for (const int descriptor : {-1, ends[1]}) {
        writeTestFile(QString::fromLatin1(kBeside), "new");
        EXPECT_FALSE(putInPlace(descriptor, kBeside, kPlace)) << descriptor;
        EXPECT_EQ(contentsOf(kPlace), "old");
        EXPECT_EQ(namesIn(kFolder), QStringList("place"));
    }
    ::close(ends[0]);
    ::close(ends[1]);
}

TEST_F(PutInPlace, NamesWithoutAFolderAreOfTheCurrentOne) {
    const QString before = QDir::currentPath();
    const OpenFile file(kBeside, "new");
    ASSERT_TRUE(QDir::setCurrent(kFolder));
    EXPECT_TRUE(putInPlace(file.descriptor(), ".new", "place"));
    ASSERT_TRUE(QDir::setCurrent(before));
    EXPECT_EQ(contentsOf(kPlace), "new");
}

TEST_F(PutInPlace, NamesAreBytesInAnyEncoding) {
    const QByteArray place = "/root/data/folder/\xFF\xE9 \n%s";
    const OpenFile file(kBeside, "new");
    EXPECT_TRUE(putInPlace(file.descriptor(), kBeside, place));
    EXPECT_EQ(::access(place.constData(), F_OK), 0);
    EXPECT_NE(::access(kBeside.constData(), F_OK), 0);
    EXPECT_EQ(::unlink(place.constData()), 0);
}

TEST_F(PutInPlace, NoDescriptorIsLeftOpen) {
    const auto openCount = [] { return namesIn(QStringLiteral("/proc/self/fd")).size(); };
    const qsizetype before = openCount();
    for (int round = 0; round < 10; ++round) {
        const OpenFile file(kBeside, "new");
        putInPlace(file.descriptor(), kBeside, round % 2 == 0 ? kPlace : "/root/data/missing/x");
    }
    EXPECT_EQ(openCount(), before);
}

}  // namespace

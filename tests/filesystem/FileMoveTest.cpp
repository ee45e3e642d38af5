#include "filesystem/FileMove.h"

#include "tests/filesystem/FilesystemFixture.h"

#include <QDir>
#include <QFileInfo>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const QString kFrom = QStringLiteral("/root/data/from");
const QString kTo = QStringLiteral("/root/data/to");
// Another mount, so that a rename to it is refused as one to another file system is.
const QString kElsewhere = QStringLiteral("/mmc/to");

class FileMoveTest : public FilesystemFixture {
protected:
    static QStringList namesIn(const QString& folder) {
        return QDir(folder).entryList(QDir::AllEntries | QDir::Hidden | QDir::System |
                                      QDir::NoDotAndDotDot);
    }
};

}  // namespace

TEST_F(FileMoveTest, MoveOntoAnExistingFileReplacesIt) {
    writeTestFile(kFrom, "new");
    writeTestFile(kTo, "old");
    EXPECT_TRUE(files.moveFile(kFrom, kTo));
    EXPECT_EQ(readTestFile(kTo), "new");
    EXPECT_EQ(namesIn("/root/data"), QStringList{"to"});
    EXPECT_TRUE(log.lines().isEmpty());
}

TEST_F(FileMoveTest, MoveFromAMissingFileRemovesTheTargetAndFails) {
    writeTestFile(kTo, "old");
    EXPECT_FALSE(files.moveFile(kFrom, kTo));
    EXPECT_EQ(readTestFile(kTo), "(missing)");
    EXPECT_FALSE(files.moveFile(kFrom, kTo));
}

TEST_F(FileMoveTest, ASourceBelowAFileOrOfTooLongANameIsMissing) {
    writeTestFile("/root/data/other", "x");
    for (const QString& from : {QString("/root/data/other/below"), "/mmc/" + QString(300, 'x')}) {
        writeTestFile(kTo, "old");
        EXPECT_FALSE(files.moveFile(from, kTo));
        EXPECT_EQ(readTestFile(kTo), "(missing)") << from.toStdString();
    }
}

TEST_F(FileMoveTest, ASourceThatCannotBeLookedAtLeavesTheTarget) {
    writeTestFile(kTo, "old");
    ASSERT_EQ(::symlink("loop", "/root/data/loop"), 0);
    EXPECT_FALSE(files.moveFile("/root/data/loop/from", kTo));
    EXPECT_EQ(readTestFile(kTo), "old");
}

TEST_F(FileMoveTest, NamesOutsideTheRootsAreRefusedOnEitherSide) {
    writeTestFile(kFrom, "new");
    writeTestFile("/tmp/outside", "old");
    EXPECT_FALSE(files.moveFile(kFrom, "/tmp/outside"));
    EXPECT_FALSE(files.moveFile("/tmp/outside", kTo));
    EXPECT_FALSE(files.moveFile("/root/data/missing", "/tmp/outside"));
    EXPECT_EQ(readTestFile(kFrom), "new");
    EXPECT_EQ(readTestFile("/tmp/outside"), "old");
    EXPECT_TRUE(log.lines().isEmpty());
}

TEST_F(FileMoveTest, MoveOfAFileToItselfFailsAndTouchesNothing) {
    writeTestFile(kFrom, "data");
    EXPECT_FALSE(files.moveFile(kFrom, kFrom));
    EXPECT_FALSE(files.moveFile(kFrom, "/root/data/./from"));
    EXPECT_FALSE(files.moveFile(kFrom, "/root/config/../data//from"));
    EXPECT_EQ(readTestFile(kFrom), "data");
}

TEST_F(FileMoveTest, MoveOfAFileToAnotherNameOfItFailsAndTouchesNothing) {
    writeTestFile(kFrom, "data");
    ASSERT_EQ(::link("/root/data/from", "/root/data/hard"), 0);
    ASSERT_EQ(::symlink("from", "/root/data/soft"), 0);
    ASSERT_EQ(::symlink("gone", "/root/data/dangling"), 0);
    for (const char* name : {"/root/data/hard", "/root/data/soft"}) {
        EXPECT_FALSE(files.moveFile(kFrom, QString::fromLatin1(name)));
        EXPECT_FALSE(files.moveFile(QString::fromLatin1(name), kFrom));
    }
    EXPECT_FALSE(files.moveFile("/root/data/dangling", "/root/data/dangling"));
    EXPECT_EQ(readTestFile(kFrom), "data");
    EXPECT_EQ(namesIn("/root/data").size(), 4);
}

TEST_F(FileMoveTest, ALinkIsMovedAsALinkAndReplacedAsOne) {
    writeTestFile(kFrom, "data");
    ASSERT_EQ(::symlink("from", "/root/data/soft"), 0);
    EXPECT_TRUE(files.moveFile("/root/data/soft", kTo));
    EXPECT_TRUE(QFileInfo(kTo).isSymLink());
    writeTestFile("/root/data/other", "other");
    EXPECT_TRUE(files.moveFile("/root/data/other", kTo));
    EXPECT_FALSE(QFileInfo(kTo).isSymLink());
    EXPECT_EQ(readTestFile(kFrom), "data");
}

TEST_F(FileMoveTest, ADirectoryIsMovedToAFreeNameOrOverAFile) {
    writeTestFile("/root/data/folder/inside", "x");
    EXPECT_TRUE(files.moveFile("/root/data/folder", "/root/data/other"));
    EXPECT_EQ(readTestFile("/root/data/other/inside"), "x");
    writeTestFile(kTo, "old");
    EXPECT_TRUE(files.moveFile("/root/data/other", kTo));
    EXPECT_EQ(readTestFile(kTo + "/inside"), "x");
}

TEST_F(FileMoveTest, ADirectoryIsNeverReplaced) {
    ASSERT_EQ(::mkdir("/root/data/to", 0700), 0);
    ASSERT_EQ(::mkdir("/root/data/folder", 0700), 0);
    writeTestFile(kFrom, "data");
    EXPECT_FALSE(files.moveFile(kFrom, kTo));
    EXPECT_FALSE(files.moveFile("/root/data/folder", kTo));
    EXPECT_FALSE(files.moveFile("/root/data/missing", kTo));
    EXPECT_FALSE(files.moveFile("/root/data/folder", "/root/data/folder/below"));
    EXPECT_EQ(namesIn("/root/data"), (QStringList{"folder", "from", "to"}));
}

TEST_F(FileMoveTest, ADirectoryThatCannotBeMovedLeavesTheTarget) {
    writeTestFile("/root/data/folder/inside", "x");
    writeTestFile(kElsewhere, "old");
    EXPECT_FALSE(files.moveFile("/root/data/folder", kElsewhere)) << "on another file system";
    EXPECT_EQ(readTestFile(kElsewhere), "old");
    EXPECT_FALSE(files.moveFile("/root/data/folder", "/root/data/folder/inside"));
    EXPECT_FALSE(files.moveFile("/root/data/folder", "/root/data/folder/inside/below"));
    EXPECT_EQ(readTestFile("/root/data/folder/inside"), "x");
}

TEST_F(FileMoveTest, AFailedRenameLeavesTheTargetAsItWas) {
    writeTestFile(kFrom, "new");
    EXPECT_FALSE(files.moveFile(kFrom, "/root/data/no/folder"));
    EXPECT_FALSE(files.moveFile(kFrom, "/root/data/" + QString(300, 'x')));
    EXPECT_EQ(readTestFile(kFrom), "new");
}

TEST_F(FileMoveTest, AcrossFileSystemsTheFileIsCopiedIntoPlaceWithItsModeAndTime) {
    QByteArray contents;
    for (int i = 0; i < 300'000; ++i) {
        contents.append(static_cast<char>(i * 7));
    }
    writeTestFile(kFrom, contents);
    writeTestFile(kElsewhere, "old");
    ASSERT_EQ(::chmod("/root/data/from", 0640), 0);
    const timespec times[2] = {{1'000'000'000, 0}, {1'100'000'000, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, "/root/data/from", times, 0), 0);
    ASSERT_NE(::rename("/root/data/from", "/mmc/to"), 0) << "this must be another mount";
    EXPECT_TRUE(files.moveFile(kFrom, kElsewhere));
    EXPECT_EQ(readTestFile(kElsewhere), contents);
    EXPECT_EQ(namesIn("/root/data"), QStringList{});
    EXPECT_EQ(namesIn("/mmc"), QStringList{"to"});
    struct stat status;
    ASSERT_EQ(::stat("/mmc/to", &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640u);
    EXPECT_EQ(status.st_mtim.tv_sec, 1'100'000'000);
}

TEST_F(FileMoveTest, AcrossFileSystemsAFullDiskLeavesBothFilesAsTheyWere) {
    writeTestFile(kFrom, QByteArray(100'000, 'n'));
    writeTestFile(kElsewhere, "old");
    {
        const FullDiskAt limit(70'000);
        EXPECT_FALSE(files.moveFile(kFrom, kElsewhere));
    }
    EXPECT_EQ(readTestFile(kFrom).size(), 100'000);
    EXPECT_EQ(readTestFile(kElsewhere), "old");
    EXPECT_EQ(namesIn("/mmc"), QStringList{"to"}) << "no partial copy is left";
}

TEST_F(FileMoveTest, AcrossFileSystemsALinkIsMovedAsTheFileThatItLeadsTo) {
    writeTestFile(kFrom, "data");
    ASSERT_EQ(::symlink("from", "/root/data/soft"), 0);
    EXPECT_TRUE(files.moveFile("/root/data/soft", kElsewhere));
    EXPECT_FALSE(QFileInfo(kElsewhere).isSymLink());
    EXPECT_EQ(readTestFile(kElsewhere), "data");
    EXPECT_EQ(readTestFile(kFrom), "data");
    EXPECT_EQ(namesIn("/root/data"), QStringList{"from"});
}

TEST_F(FileMoveTest, AcrossFileSystemsOnlyRegularFilesAreMoved) {
    writeTestFile("/root/data/folder/inside", "x");
    ASSERT_EQ(::mkfifo("/root/data/fifo", 0600), 0);
    writeTestFile(kElsewhere, "old");
    EXPECT_FALSE(files.moveFile("/root/data/fifo", kElsewhere));
    EXPECT_FALSE(files.moveFile("/root/data/folder", "/mmc/folder"));
    EXPECT_EQ(readTestFile("/root/data/folder/inside"), "x");
    EXPECT_EQ(readTestFile(kElsewhere), "old");
    EXPECT_EQ(namesIn("/mmc"), QStringList{"to"});
}

TEST_F(FileMoveTest, AcrossFileSystemsAMissingFolderFails) {
    writeTestFile(kFrom, "new");
    EXPECT_FALSE(files.moveFile(kFrom, "/mmc/no/folder"));
    EXPECT_FALSE(files.moveFile("/root/data/missing", kElsewhere));
    EXPECT_EQ(readTestFile(kFrom), "new");
}

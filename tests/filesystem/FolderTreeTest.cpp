#include "filesystem/FolderTree.h"
#include "tests/support/Files.h"

#include <QDir>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

namespace {

class FolderTreeTest : public testing::Test {
protected:
    void SetUp() override {
        emptyRoots();
        _root = FolderTree::openFolder(AT_FDCWD, "/root/data");
    }

    int root() const { return _root.number(); }

    /// A chain of folders of this depth in a folder "deep".
    void makeDeep(int levels) {
        ASSERT_EQ(::mkdirat(root(), "deep", 0700), 0);
        Descriptor at = FolderTree::openFolder(root(), "deep");
        for (int i = 1; i < levels; ++i) {
            ASSERT_EQ(::mkdirat(at.number(), "0", 0700), 0);
            Descriptor next = FolderTree::openFolder(at.number(), "0");
            at = std::move(next);
        }
    }

private:
    Descriptor _root;
};

}  // namespace

TEST_F(FolderTreeTest, RemovesFilesLinksAndFolders) {
    writeTestFile(QStringLiteral("/root/data/tree/a/b/file"), "x");
    writeTestFile(QStringLiteral("/root/data/tree/0/1/file"), "x");
    writeTestFile(QStringLiteral("/root/data/tree/2"), "x");
    writeTestFile(QStringLiteral("/root/data/kept/file"), "x");
    ASSERT_EQ(::symlink("/root/data/kept", "/root/data/tree/a/way"), 0);
    ASSERT_EQ(::mkfifo("/root/data/tree/a/fifo", 0600), 0);
    ASSERT_EQ(::chmod("/root/data/tree/a/b", 0), 0);
    EXPECT_TRUE(FolderTree::remove(root(), "tree"));
    EXPECT_TRUE(FolderTree::remove(root(), "tree"));
    EXPECT_EQ(QDir(QStringLiteral("/root/data")).entryList(QDir::NoDotAndDotDot | QDir::AllEntries),
              QStringList{QStringLiteral("kept")});
    EXPECT_EQ(readTestFile(QStringLiteral("/root/data/kept/file")), "x");
}

TEST_F(FolderTreeTest, RemovesALinkAndNotWhatItLeadsTo) {
    writeTestFile(QStringLiteral("/root/data/kept/file"), "x");
    ASSERT_EQ(::symlink("kept", "/root/data/way"), 0);
    EXPECT_TRUE(FolderTree::remove(root(), "way"));
    EXPECT_EQ(readTestFile(QStringLiteral("/root/data/kept/file")), "x");
}

TEST_F(FolderTreeTest, RemovesMoreLevelsThanThereAreDescriptors) {
    makeDeep(1'200);
    EXPECT_TRUE(FolderTree::remove(root(), "deep"));
    EXPECT_FALSE(QFile::exists(QStringLiteral("/root/data/deep")));
}

TEST_F(FolderTreeTest, CopiesAsDeepAsItSaysAndNoDeeper) {
    makeDeep(FolderTree::kDeepestLevel);
    EXPECT_TRUE(FolderTree::copy(root(), "deep", root(), "copy"));
    EXPECT_TRUE(FolderTree::remove(root(), "deep"));
    EXPECT_TRUE(FolderTree::remove(root(), "copy"));
    makeDeep(FolderTree::kDeepestLevel + 1);
    EXPECT_FALSE(FolderTree::copy(root(), "deep", root(), "copy"));
}

TEST_F(FolderTreeTest, CopyOfWhatIsMissingIsNothing) {
    EXPECT_TRUE(FolderTree::copy(root(), "missing", root(), "copy"));
    EXPECT_TRUE(FolderTree::copyFile(root(), "missing", root(), "copy", true));
    EXPECT_FALSE(QFile::exists(QStringLiteral("/root/data/copy")));
}

TEST_F(FolderTreeTest, CopyOverSomethingFails) {
    writeTestFile(QStringLiteral("/root/data/file"), "new");
    writeTestFile(QStringLiteral("/root/data/copy"), "old");
    EXPECT_FALSE(FolderTree::copy(root(), "file", root(), "copy"));
    EXPECT_EQ(readTestFile(QStringLiteral("/root/data/copy")), "old");
}

TEST_F(FolderTreeTest, CopyKeepsNodes) {
    ASSERT_EQ(::mkfifo("/root/data/fifo", 0600), 0);
    EXPECT_TRUE(FolderTree::copy(root(), "fifo", root(), "copy"));
    struct stat status {};
    ASSERT_TRUE(FolderTree::findEntry(root(), "copy", status));
    EXPECT_TRUE(S_ISFIFO(status.st_mode));
}

TEST_F(FolderTreeTest, FileCopyFollowsALinkOnlyWhereItMay) {
    writeTestFile(QStringLiteral("/root/data/file"), "x");
    ASSERT_EQ(::symlink("file", "/root/data/link"), 0);
    EXPECT_TRUE(FolderTree::copyFile(root(), "link", root(), "copy", true));
    EXPECT_EQ(readTestFile(QStringLiteral("/root/data/copy")), "x");
    EXPECT_FALSE(FolderTree::copyFile(root(), "link", root(), "other", false));
}

TEST_F(FolderTreeTest, CopyOfAFileWithHolesTakesNoMoreRoomThanTheFile) {
    constexpr qint64 kBytes = 100'000'000'000;
    makeSparseFile(QStringLiteral("/root/data/file"), kBytes);
    const Descriptor file(::openat(root(), "file", O_RDWR | O_CLOEXEC));
    ASSERT_EQ(::pwrite(file.number(), "middle", 6, kBytes / 2), 6);
    ASSERT_TRUE(FolderTree::copy(root(), "file", root(), "copy"));
    struct stat status {};
    ASSERT_TRUE(FolderTree::findEntry(root(), "copy", status));
    EXPECT_EQ(status.st_size, kBytes);
    EXPECT_LT(status.st_blocks, 1000);
    const Descriptor copy(::openat(root(), "copy", O_RDONLY | O_CLOEXEC));
    char text[6] = {};
    EXPECT_EQ(::pread(copy.number(), text, 6, kBytes / 2), 6);
    EXPECT_EQ(std::string(text, 6), "middle");
}

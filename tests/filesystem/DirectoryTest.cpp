#include "tests/filesystem/FilesystemFixture.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const QString kFolder = QStringLiteral("/root/data/folder");

struct Entry {
    QString name;
    int length = -99;
    long created = -99;
    long modified = -99;
};

class DirectoryTest : public FilesystemFixture {
protected:
    Entry entry(int handle, int index) {
        Entry result;
        EXPECT_TRUE(files.fileInDirectory(handle, index, result.name, result.length, result.created,
                                          result.modified));
        return result;
    }

    QStringList namesOf(const QString& path, const QString& filter) {
        int count = -1;
        const int handle = files.openDirectory(path, filter, count);
        QStringList names;
        for (int i = 0; i < count; ++i) {
            names.append(entry(handle, i).name);
        }
        Entry beyond;
        EXPECT_FALSE(files.fileInDirectory(handle, count, beyond.name, beyond.length,
                                           beyond.created, beyond.modified));
        files.closeDirectory(handle);
        return names;
    }
};

}  // namespace

TEST_F(DirectoryTest, EmptyDirectoryIsAValidHandleWithoutEntries) {
    ASSERT_TRUE(QDir().mkpath(kFolder));
    int count = -1;
    EXPECT_EQ(files.openDirectory(kFolder, "*", count), 0);
    EXPECT_EQ(count, 0);
    EXPECT_TRUE(log.lines().isEmpty());
    Entry none;
    EXPECT_FALSE(files.fileInDirectory(0, 0, none.name, none.length, none.created, none.modified));
    EXPECT_EQ(log.lines(), QList<QByteArray>{"Filesystem: dir index out of range!"});
    EXPECT_TRUE(files.closeDirectory(0));
    EXPECT_FALSE(files.closeDirectory(0));
}

TEST_F(DirectoryTest, SubdirectoryHasTheLengthMinusOne) {
    ASSERT_TRUE(QDir().mkpath(kFolder + "/below"));
    const int handle = openFolder(kFolder);
    EXPECT_EQ(entry(handle, 0).name, "below");
    EXPECT_EQ(entry(handle, 0).length, -1);
}

TEST_F(DirectoryTest, MissingOrUnreadableDirectoryIsAValidHandleWithoutEntries) {
    writeTestFile("/root/data/file", "x");
    ASSERT_EQ(::mkfifo("/root/data/fifo", 0600), 0);
    for (const char* path : {"/root/data/missing", "/root/data/file", "/root/data/fifo"}) {
        int count = -1;
        EXPECT_GE(files.openDirectory(QString::fromLatin1(path), "*", count), 0);
        EXPECT_EQ(count, 0);
    }
}

TEST_F(DirectoryTest, DirectoryOutsideTheRootsIsRefusedWithoutALogLine) {
    int count = 0;
    EXPECT_EQ(files.openDirectory("/etc", "*", count), -1);
    EXPECT_EQ(files.openDirectory("/root/data", "*", count), -1) << "the bare root as well";
    EXPECT_EQ(files.openDirectory("/root/data/..", "*", count), -1);
    EXPECT_EQ(files.openDirectory("", "*", count), -1);
    EXPECT_TRUE(log.lines().isEmpty());
}

TEST_F(DirectoryTest, EntriesAreSortedByNameWithUpperCaseFirstAndDirectoriesAmongTheFiles) {
    for (const char* name : {"b", "a", "B", "10", "9", "\xC3\xA9"}) {
        writeTestFile(kFolder + "/" + QString::fromUtf8(name), "");
    }
    ASSERT_TRUE(QDir().mkpath(kFolder + "/aa"));
    EXPECT_EQ(namesOf(kFolder, "*"),
              (QStringList{"10", "9", "B", "a", "aa", "b", QString::fromUtf8("\xC3\xA9")}));
}

TEST_F(DirectoryTest, DotNamesAndWhatIsNoFileOrDirectoryAreLeftOut) {
    writeTestFile(kFolder + "/.hidden", "x");
    writeTestFile(kFolder + "/seen", "x");
    ASSERT_EQ(::mkfifo("/root/data/folder/fifo", 0600), 0);
    ASSERT_EQ(::symlink("nowhere", "/root/data/folder/broken"), 0);
    ASSERT_EQ(::symlink("seen", "/root/data/folder/link"), 0);
    EXPECT_EQ(namesOf(kFolder, "*"), (QStringList{"link", "seen"}));
    EXPECT_EQ(namesOf(kFolder, ".*"), QStringList{});
}

TEST_F(DirectoryTest, ListsWhatQtListsForTheSameFilter) {
    for (const char* name : {"a",        "A1",
                             "ab",       "abc.gdf",
                             "ABC.GDT",  "a[b]c",
                             "x-y",      "^",
                             "]",        "-",
                             "a b",      "\\",
                             "1.5",      "\xC3\xA9t\xC3\xA9",
                             "\xC3\x89", "long.name.txt",
                             "$",        "(x)",
                             "{1}",      "+",
                             "a|b",      "a\nb",
                             "k",        "\xE2\x84\xAA"}) {
        writeTestFile(kFolder + "/" + QString::fromUtf8(name), "");
    }
    ASSERT_TRUE(QDir().mkpath(kFolder + "/abdir"));
    for (const char* filter : {"*",
                               "",
                               "?",
                               "??",
                               "a*",
                               "A*",
                               "*.gd?",
                               "*.GDF",
                               "[ab]*",
                               "[!ab]*",
                               "[^ab]*",
                               "[]]",
                               "[!]]",
                               "[a-c]?",
                               "[c-a]",
                               "[",
                               "[a",
                               "a[",
                               "a[[]b]c",
                               "[]-a]",
                               "[a-]",
                               "[--0]",
                               "\\",
                               "[\\]",
                               "*.*",
                               "**",
                               "*?*",
                               ".*",
                               "..",
                               ".",
                               "[[:digit:]]*",
                               "[[:upper:]]",
                               "[^[:alpha:]]",
                               "[[:nonsense:]]",
                               "[[.a.]]",
                               "a/b",
                               "[a/]",
                               "(*)",
                               "{*}",
                               "$",
                               "+",
                               "a|b",
                               "*|*",
                               "*\n*",
                               "\xC3\x89*",
                               "[\xC3\xA9]*",
                               "K",
                               "[^]a]",
                               "[^]*]",
                               "[!",
                               "[!]",
                               "a b",
                               "*.gdf;*.gdt"}) {
        const QString pattern = QString::fromUtf8(filter);
        QStringList expected = QDir(kFolder).entryList({pattern}, QDir::NoFilter, QDir::Name);
        expected.removeAll(".");
        expected.removeAll("..");
        warnings.clear();  // Qt's own, of the patterns that it could not use
        EXPECT_EQ(namesOf(kFolder, pattern), expected) << filter;
    }
}

TEST_F(DirectoryTest, EntryHasItsSizeAndTimes) {
    writeTestFile(kFolder + "/file", "0123456789");
    const timespec times[2] = {{1'000'000'000, 0}, {1'234'567'890, 999'999'999}};
    ASSERT_EQ(::utimensat(AT_FDCWD, "/root/data/folder/file", times, 0), 0);
    struct statx status;
    ASSERT_EQ(::statx(AT_FDCWD, "/root/data/folder/file", 0, STATX_BTIME | STATX_CTIME, &status),
              0);
    const bool hasBirth = (status.stx_mask & STATX_BTIME) != 0;
    const Entry file = entry(openFolder(kFolder), 0);
    EXPECT_EQ(file.name, "file");
    EXPECT_EQ(file.length, 10);
    EXPECT_EQ(file.modified, 1'234'567'890);
    EXPECT_EQ(file.created, hasBirth ? status.stx_btime.tv_sec : status.stx_ctime.tv_sec);
    EXPECT_EQ(log.lines(), QList<QByteArray>{"Filesystem: file file"});
}

TEST_F(DirectoryTest, SizeBeyond32BitsKeepsItsLow32Bits) {
    makeSparseFile(kFolder + "/large", (1LL << 32) + 5);
    EXPECT_EQ(entry(openFolder(kFolder), 0).length, 5);
}

TEST_F(DirectoryTest, IndexOutsideTheEntriesIsRefused) {
    writeTestFile(kFolder + "/file", "");
    const int handle = openFolder(kFolder);
    Entry none;
    for (const int index : {-1, 1, 2147483647, -2147483647 - 1}) {
        log.clear();
        EXPECT_FALSE(files.fileInDirectory(handle, index, none.name, none.length, none.created,
                                           none.modified));
        EXPECT_EQ(log.lines(), QList<QByteArray>{"Filesystem: dir index out of range!"});
    }
}

TEST_F(DirectoryTest, SnapshotDoesNotChangeWithTheDirectory) {
    writeTestFile(kFolder + "/changed", "0123456789");
    writeTestFile(kFolder + "/removed", "01234");
    writeTestFile(kFolder + "/replaced", "012");
    const int handle = openFolder(kFolder);
    const int untouched = openFolder(kFolder);
    QList<Entry> before;
    for (int i = 0; i < 3; ++i) {
        before.append(entry(untouched, i));
    }
    writeTestFile(kFolder + "/added", "x");
    writeTestFile(kFolder + "/changed", "x");
    const timespec times[2] = {{1, 0}, {1, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, "/root/data/folder/changed", times, 0), 0);
    ASSERT_TRUE(QFile::remove(kFolder + "/removed"));
    ASSERT_TRUE(QFile::remove(kFolder + "/replaced"));
    ASSERT_TRUE(QDir().mkdir(kFolder + "/replaced"));
    // The first handle was not asked before the change.
    for (int i = 0; i < 3; ++i) {
        const Entry after = entry(handle, i);
        EXPECT_EQ(after.name, before.at(i).name);
        EXPECT_EQ(after.length, before.at(i).length);
        EXPECT_EQ(after.created, before.at(i).created);
        EXPECT_EQ(after.modified, before.at(i).modified);
    }
    EXPECT_EQ(before.at(0).length, 10);
    EXPECT_EQ(namesOf(kFolder, "*"), (QStringList{"added", "changed", "replaced"}));
}

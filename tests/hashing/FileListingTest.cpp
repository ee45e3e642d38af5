#include "hashing/FileListing.h"
#include "tests/hashing/FileListingFixture.h"
#include "tests/support/FullDisk.h"

#include <QFileInfo>

#include <optional>
#include <utility>

namespace {

class FileListingTest : public FileListingFixture {
protected:
    static QStringList namesIn(const QString& folder) {
        return QDir(folder).entryList(QDir::AllEntries | QDir::Hidden | QDir::System |
                                      QDir::NoDotAndDotDot);
    }
    static QString listingName(const char* root) {
        return QString(root).replace('/', '.').replace('\\', '.').prepend(".files.");
    }

    static inline const QByteArray kComplete =
        "FileHashManager: generateFileListing complete in 0 ms";
    static inline const QByteArray kNotCreated =
        "FileHashManager: generateFileListing failed to create listing file";
    static inline const QByteArray kNotStored =
        "FileHashManager: generateFileListing failed to store listing file";
};

}  // namespace

TEST_F(FileListingTest, AListingHasALineOfSizeTimeAndPathForEachFile) {
    makeFile("/mmc/a", "hello", 1'234'567'890);
    makeFile("/mmc/sub/b", QByteArray(70'000, 'x'), 1);
    EXPECT_EQ(cardListing(), "5,1234567890,/mmc/a\n70000,1,/mmc/sub/b\n");
    EXPECT_EQ(log.lines(), QList<QByteArray>{kComplete});
    EXPECT_EQ(namesIn(kFolder), QStringList{".files..mmc"});
}

TEST_F(FileListingTest, AListingInTheFolderThatItListsIsNotListed) {
    makeFile(kFolder + "/a");
    const QString listing = kFolder + "/.files..root.data.user1";
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(generate(kFolder), listing);
        EXPECT_EQ(readTestFile(listing), line("/root/data/user1/a"));
    }
}

TEST_F(FileListingTest, AnEmptyRootGivesAnEmptyListing) {
    EXPECT_EQ(cardListing(), "");
    EXPECT_TRUE(QFileInfo::exists(kCardListing));
    EXPECT_EQ(log.lines(), QList<QByteArray>{kComplete});
}

TEST_F(FileListingTest, ARootThatDoesNotExistGivesANullString) {
    makeFile("/mmc/file");
    for (const char* root : {"/mmc/missing", "/mmc/file", "", ":/", ":/qt-project.org"}) {
        log.clear();
        EXPECT_TRUE(generate(root).isNull()) << root;
        EXPECT_EQ(log.lines(), QList<QByteArray>{"FileHashManager: generateFileListing root \"" +
                                                 QByteArray(root) + "\" does not exist!"});
    }
    EXPECT_TRUE(generate("/mmc/" + QString(100'000, 'x')).isNull());
    EXPECT_TRUE(namesIn(kFolder).isEmpty());
}

TEST_F(FileListingTest, TheRootsSlashesAndBackslashesAreDotsInTheListingsName) {
    for (const char* root : {"/mmc/x", "/mmc/x/", "/mmc/a\\b", "/mmc/x/../x"}) {
        makeFolder(root);
        EXPECT_EQ(generate(root), kFolder + '/' + listingName(root));
        EXPECT_TRUE(QFileInfo::exists(kFolder + '/' + listingName(root))) << root;
    }
    EXPECT_EQ(listingName("/mmc/a\\b"), ".files..mmc.a.b");
}

TEST_F(FileListingTest, ARootIsCleanedInTheLinesPaths) {
    makeFile("/mmc/x/a");
    EXPECT_EQ(readTestFile(generate("/mmc//x/")), line("/mmc/x/a"));
    EXPECT_EQ(readTestFile(generate("/mmc/./x/../x")), line("/mmc/x/a"));
}

TEST_F(FileListingTest, ARootMayBeGivenFromTheWorkingFolder) {
    makeFile("/mmc/x/a");
    const QString before = QDir::currentPath();
    ASSERT_TRUE(QDir::setCurrent("/mmc"));
    EXPECT_EQ(generate("x"), kFolder + "/.files.x");
    EXPECT_EQ(readTestFile(kFolder + "/.files.x"), line("/mmc/x/a"));
    ASSERT_TRUE(QDir::setCurrent(before));
}

TEST_F(FileListingTest, ANewListingReplacesTheLastOne) {
    makeFile("/mmc/a");
    EXPECT_EQ(cardListing(), line("/mmc/a"));
    ASSERT_TRUE(QFile::remove("/mmc/a"));
    makeFile("/mmc/b");
    EXPECT_EQ(cardListing(), line("/mmc/b"));
}

TEST_F(FileListingTest, WhoeverReadsTheLastListingReadsItToItsEnd) {
    makeFile("/mmc/a");
    EXPECT_EQ(cardListing(), line("/mmc/a"));
    QFile reader(kCardListing);
    ASSERT_TRUE(reader.open(QIODevice::ReadOnly | QIODevice::Unbuffered));
    makeFile("/mmc/0");
    EXPECT_EQ(cardListing(), lines({"/mmc/0", "/mmc/a"}));
    EXPECT_EQ(reader.readAll(), line("/mmc/a"));
}

TEST_F(FileListingTest, WhatAnEarlierEndLeftBesideItsPlaceIsOverwritten) {
    writeTestFile(kCardTemporary, QByteArray(1000, 'x'));
    makeFile("/mmc/a");
    EXPECT_EQ(cardListing(), line("/mmc/a"));
    EXPECT_EQ(namesIn(kFolder), QStringList{".files..mmc"});
}

TEST_F(FileListingTest, AFolderThatDoesNotExistIsNotMade) {
    EXPECT_TRUE(generate(kCard, "user2").isNull());
    EXPECT_EQ(log.lines(), QList<QByteArray>{kNotCreated});
    EXPECT_FALSE(QFileInfo::exists("/root/data/user2"));
}

TEST_F(FileListingTest, AFolderThatIsNotRightBelowTheDataRootIsNotWritten) {
    makeFolder("/root/data/user1/inner");
    for (const char* folder : {"", ".", "..", "../config", "user1/inner", "/root/config", "/",
                               "user1/", "./user1", "user1/.."}) {
        log.clear();
        EXPECT_TRUE(generate(kCard, folder).isNull()) << folder;
        EXPECT_EQ(log.lines(), QList<QByteArray>{kNotCreated}) << folder;
    }
    EXPECT_EQ(namesIn("/root/data"), QStringList{"user1"});
    EXPECT_EQ(namesIn(kFolder), QStringList{"inner"});
    EXPECT_TRUE(namesIn("/root/config").isEmpty());
}

TEST_F(FileListingTest, AFolderThatIsAFileIsNotWritten) {
    writeTestFile("/root/data/file", "x");
    EXPECT_TRUE(generate(kCard, "file").isNull());
    EXPECT_EQ(log.lines(), QList<QByteArray>{kNotCreated});
    EXPECT_EQ(readTestFile("/root/data/file"), "x");
}

TEST_F(FileListingTest, AFifoBesideTheListingsPlaceIsNotWaitedFor) {
    makeFifo(kCardTemporary);
    EXPECT_TRUE(generate(kCard).isNull());
    EXPECT_EQ(log.lines(), QList<QByteArray>{kNotCreated});
}

TEST_F(FileListingTest, ARootWhoseNameIsTooLongForAFileGivesNoListing) {
    QString root = kCard;
    for (int i = 0; i < 3; ++i) {
        root += '/' + QString(100, 'x');
    }
    makeFolder(root);
    EXPECT_TRUE(generate(root).isNull());
    EXPECT_EQ(log.lines(), QList<QByteArray>{kNotCreated});
}

TEST_F(FileListingTest, OnAFullDiskTheLastListingStaysAndItsPathIsReturned) {
    makeFile("/mmc/a");
    EXPECT_EQ(cardListing(), line("/mmc/a"));
    makeFile("/mmc/b");
    for (const rlim_t room : {0, 1, 20, 39}) {
        log.clear();
        {
            const FullDiskAt limit(room);
            EXPECT_EQ(generate(kCard), kCardListing);
        }
        EXPECT_EQ(readTestFile(kCardListing), line("/mmc/a")) << room;
        EXPECT_EQ(log.lines(), (QList<QByteArray>{kComplete, kNotStored})) << room;
        EXPECT_EQ(namesIn(kFolder), QStringList{".files..mmc"});
    }
    const FullDiskAt limit(40);
    EXPECT_EQ(cardListing(), lines({"/mmc/a", "/mmc/b"})) << "exactly enough";
}

TEST_F(FileListingTest, OnADiskThatIsFullInTheMiddleOfALongListingNothingHalfIsPutInPlace) {
    for (int i = 0; i < 5000; ++i) {
        writeTestFile("/mmc/" + QString::number(i), "");
    }
    for (const rlim_t room : {1, 65'536, 70'000, 100'000}) {
        const FullDiskAt limit(room);
        EXPECT_EQ(generate(kCard), kCardListing);
        EXPECT_FALSE(QFileInfo::exists(kCardListing)) << room;
        EXPECT_FALSE(QFileInfo::exists(kCardTemporary)) << room;
    }
    EXPECT_EQ(cardListing().count('\n'), 5000);
}

TEST_F(FileListingTest, ADiskThatHasRoomAgainLaterLeavesNoHoleUnnoticed) {
    for (int i = 0; i < 400; ++i) {  // more than is written at a time
        writeTestFile("/mmc/" + QString::number(i).rightJustified(200, 'n'), "");
    }
    QFile out(kCardTemporary);
    ASSERT_TRUE(out.open(QIODevice::WriteOnly | QIODevice::Unbuffered));
    std::optional<FullDiskAt> limit(std::in_place, 1000);
    FileListing listing(out);
    listing.addTree("/mmc/", [&](int total, int done) {
        if (done == total) {
            limit.reset();
        }
    });
    listing.flush();
    EXPECT_NE(out.error(), QFileDevice::NoError);
    EXPECT_EQ(out.size(), 1000);
}

TEST_F(FileListingTest, KeptPathIsReturnedWhereTheListingCannotBePutInItsPlace) {
    makeFolder(kCardListing);
    EXPECT_EQ(generate(kCard), kCardListing);
    EXPECT_EQ(log.lines(), (QList<QByteArray>{kComplete, kNotStored}));
    EXPECT_EQ(namesIn(kFolder), QStringList{".files..mmc"});
}

TEST_F(FileListingTest, TheHelperAppendsTheLinesOfOneTree) {
    makeFile("/mmc/a");
    makeFile("/mmc/x/b");
    QFile out("/root/data/out");
    ASSERT_TRUE(out.open(QIODevice::WriteOnly));
    ASSERT_EQ(out.write("before\n"), 7);
    FileHashManager::generateFileListingHelper(out, "/mmc/x", -1, -1);
    FileHashManager::generateFileListingHelper(out, "/mmc/missing", -1, -1);
    FileHashManager::generateFileListingHelper(out, "/mmc/", -1, -1);
    out.close();
    EXPECT_EQ(readTestFile("/root/data/out"),
              "before\n" + lines({"/mmc/x/b", "/mmc/a", "/mmc/x/b"}));
}

TEST_F(FileListingTest, RemovingKeepsTheListingOfTheCardOnly) {
    for (const char* name : {".files..mmc.user1", ".files..mmc.user2", ".files..mmc", ".files.",
                             ".files.temp..mmc", ".FILES.x", ".files", "files.x", "x.files."}) {
        writeTestFile(kFolder + '/' + name, "");
    }
    makeFolder(kFolder + "/.files.folder");
    FileHashManager::removeUserFileListings(kUser, kFolder);
    QStringList left = namesIn(kFolder);
    left.sort();
    EXPECT_EQ(left, (QStringList{".FILES.x", ".files", ".files..mmc.user1", ".files.folder",
                                 "files.x", "x.files."}));
}

TEST_F(FileListingTest, RemovingFromAFolderThatDoesNotExistDoesNothing) {
    FileHashManager::removeUserFileListings(kUser, "/root/data/missing");
    EXPECT_EQ(namesIn("/root/data"), QStringList{"user1"});
    EXPECT_TRUE(log.lines().isEmpty());
}

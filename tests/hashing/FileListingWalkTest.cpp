#include "tests/hashing/FileListingFixture.h"
#include "tests/hashing/PlainListing.h"
#include "tests/hashing/RandomTree.h"

#include <filesystem>

namespace {

using FileListingWalkTest = FileListingFixture;

/// Also of names that are no text.
void emptyCard() {
    for (const auto& entry : std::filesystem::directory_iterator("/mmc")) {
        std::filesystem::remove_all(entry.path());
    }
}

/// A user to whom nothing belongs, where this process may become one.
class OtherUser {
public:
    OtherUser() { _isOther = geteuid() == 0 && seteuid(65534) == 0; }
    ~OtherUser() {
        if (_isOther) {
            EXPECT_EQ(seteuid(0), 0);
        }
    }
    OtherUser(const OtherUser&) = delete;
    OtherUser& operator=(const OtherUser&) = delete;

private:
    bool _isOther;
};

/// The lines alone, not forced to the disk, as a user sees them or as another one.
template <typename User>
QByteArray linesOfCardFor() {
    QFile out("/root/data/out");
    EXPECT_TRUE(out.open(QIODevice::WriteOnly));
    {
        [[maybe_unused]] const User user;
        FileHashManager::generateFileListingHelper(out, "/mmc", -1, -1);
    }
    out.close();
    return readTestFile("/root/data/out");
}

struct SameUser {};

/// The lines that a user sees to whom a folder of the card is closed.
QByteArray linesBehindAMode(const char* folder, mode_t mode) {
    EXPECT_EQ(::chmod(folder, mode), 0);
    const QByteArray lines = linesOfCardFor<OtherUser>();
    EXPECT_EQ(::chmod(folder, 0755), 0);
    return lines;
}

}  // namespace

TEST_F(FileListingWalkTest, FilesComeBeforeDirectoriesAndEachGroupIsSortedByName) {
    for (const char* path :
         {"/mmc/z", "/mmc/b", "/mmc/a/1", "/mmc/y/2", "/mmc/y/a/3", "/mmc/y/z", "/mmc/aa/4"}) {
        makeFile(path);
    }
    EXPECT_EQ(cardListing(), lines({"/mmc/b", "/mmc/z", "/mmc/a/1", "/mmc/aa/4", "/mmc/y/2",
                                    "/mmc/y/z", "/mmc/y/a/3"}));
}

TEST_F(FileListingWalkTest, UpperCaseComesBeforeLowerCase) {
    for (const char* path :
         {"/mmc/a", "/mmc/B", "/mmc/b", "/mmc/A", "/mmc/_", "/mmc/10", "/mmc/9"}) {
        makeFile(path);
    }
    EXPECT_EQ(cardListing(),
              lines({"/mmc/10", "/mmc/9", "/mmc/A", "/mmc/B", "/mmc/_", "/mmc/a", "/mmc/b"}));
}

TEST_F(FileListingWalkTest, NamesSortAsTheirUtf16UnitsDo) {
    makeFile(QStringLiteral("/mmc/\uFB00"));
    makeFile(QStringLiteral("/mmc/\uE000"));
    makeFile(QStringLiteral("/mmc/\U0001F600"));
    makeFile(QStringLiteral("/mmc/\u00E9"));
    makeFile(QStringLiteral("/mmc/e"));
    EXPECT_EQ(cardListing(), lines({"/mmc/e", "/mmc/\xE9", "/mmc/??", "/mmc/?", "/mmc/?"}));
}

TEST_F(FileListingWalkTest, CharactersOutsideLatin1AreQuestionMarks) {
    makeFile(QStringLiteral("/mmc/m\u00E4rz \u65E5\u672C/\u00FCber\u20AC"));
    EXPECT_EQ(cardListing(), line("/mmc/m\xE4rz ?"
                                  "?/\xFC"
                                  "ber?"));
}

TEST_F(FileListingWalkTest, ANameThatIsNoUtf8IsLeftOut) {
    makeFile("/mmc/a");
    ASSERT_EQ(::mkdir("/mmc/d\xE9", 0755), 0);
    ASSERT_EQ(::mknod("/mmc/d\xE9/a", S_IFREG | 0644, 0), 0);
    ASSERT_EQ(::mknod("/mmc/\xC3", S_IFREG | 0644, 0), 0);
    EXPECT_EQ(cardListing(), line("/mmc/a"));
    emptyCard();
}

TEST_F(FileListingWalkTest, HiddenNamesAreLeftOut) {
    for (const char* path : {"/mmc/.a", "/mmc/.d/b", "/mmc/c.", "/mmc/..d", "/mmc/e/.f"}) {
        makeFile(path);
    }
    EXPECT_EQ(cardListing(), line("/mmc/c."));
}

TEST_F(FileListingWalkTest, ACommaInAPathStaysAsItIs) {
    makeFile("/mmc/1,2/3,4");
    EXPECT_EQ(cardListing(), line("/mmc/1,2/3,4"));
}

TEST_F(FileListingWalkTest, ALinkIsListedAsWhatItLeadsTo) {
    makeFile("/root/data/target", "12345");
    makeFile("/root/data/folder/x");
    makeLink("/mmc/file", "/root/data/target");
    makeLink("/mmc/z", "../root/data/folder");
    makeLink("/mmc/broken", "nowhere");
    makeLink("/mmc/itself", "itself");
    EXPECT_EQ(cardListing(), "5,1600000000,/mmc/file\n0,1600000000,/mmc/z/x\n");
}

TEST_F(FileListingWalkTest, WhatIsNeitherFileNorDirectoryHasNoLine) {
    makeFifo("/mmc/fifo");
    makeLink("/mmc/device", "/dev/zero");
    makeLink("/mmc/link", "fifo");
    EXPECT_EQ(cardListing(), "");
}

TEST_F(FileListingWalkTest, ADirectoryOnTheWayDownIsNotEnteredAgain) {
    makeFile("/mmc/a");
    makeFile("/mmc/x/b");
    makeLink("/mmc/here", ".");
    makeLink("/mmc/here2", ".");
    makeLink("/mmc/x/up", "..");
    makeLink("/mmc/x/self", "/mmc/x");
    makeLink("/mmc/x/out", "../../mmc");
    EXPECT_EQ(cardListing(), lines({"/mmc/a", "/mmc/x/b"}));
}

TEST_F(FileListingWalkTest, ADirectoryThatIsReachedTwiceBesideItselfIsListedTwice) {
    makeFile("/mmc/x/b");
    makeLink("/mmc/y", "x");
    EXPECT_EQ(cardListing(), lines({"/mmc/x/b", "/mmc/y/b"}));
}

TEST_F(FileListingWalkTest, TwoDirectoriesThatLeadToEachOtherEnd) {
    makeFile("/mmc/x/1");
    makeFile("/mmc/y/2");
    makeLink("/mmc/x/to", "../y");
    makeLink("/mmc/y/to", "../x");
    EXPECT_EQ(cardListing(), lines({"/mmc/x/1", "/mmc/x/to/2", "/mmc/y/2", "/mmc/y/to/1"}));
}

TEST_F(FileListingWalkTest, ADirectoryThatCannotBeReadHasNoLines) {
    makeFile("/mmc/a");
    makeFile("/mmc/closed/b");
    makeFile("/mmc/d/c");
    EXPECT_EQ(linesBehindAMode("/mmc/closed", 0), lines({"/mmc/a", "/mmc/d/c"}));
}

TEST_F(FileListingWalkTest, FilesThatCannotBeLookedAtHaveNoLines) {
    makeFile("/mmc/a");
    makeFile("/mmc/closed/b");
    EXPECT_EQ(linesBehindAMode("/mmc/closed", 0444), line("/mmc/a"));
}

TEST_F(FileListingWalkTest, APathThatIsTooLongForTheSystemEndsTheWalkThere) {
    const std::string name(250, 'd');
    std::string inner = "/mmc";
    ASSERT_EQ(::chdir("/mmc"), 0);
    constexpr int kLevels = 20;  // 5,000 bytes of path
    for (int i = 0; i < kLevels; ++i) {
        ASSERT_EQ(::mknod("f", S_IFREG | 0644, 0), 0);
        ASSERT_EQ(::mkdir(name.c_str(), 0755), 0);
        ASSERT_EQ(::chdir(name.c_str()), 0);
    }
    // The 17th directory's path has 4,020 bytes, the 18th's is beyond the system's 4,096.
    EXPECT_EQ(cardListing().count('\n'), 17);
    for (int i = 0; i < kLevels; ++i) {
        ASSERT_EQ(::chdir(".."), 0);
        ASSERT_EQ(::rmdir(name.c_str()), 0);
        ASSERT_EQ(::unlink("f"), 0);
    }
    ASSERT_EQ(::chdir("/"), 0);
}

TEST_F(FileListingWalkTest, SizesBeyond32BitsAreWhole) {
    makeSparseFile("/mmc/large", 5'000'000'000);
    EXPECT_TRUE(cardListing().startsWith("5000000000,"));
}

TEST_F(FileListingWalkTest, TimesAreUnsignedNumbersOf32Bits) {
    makeFile("/mmc/a", "", 0);
    makeFile("/mmc/b", "", 4'294'967'295);
    makeFile("/mmc/c", "", -1);
    EXPECT_EQ(cardListing(), "0,0,/mmc/a\n0,4294967295,/mmc/b\n0,4294967295,/mmc/c\n");
}

TEST_F(FileListingWalkTest, OneDirectoryMayHaveManyThousandNames) {
    constexpr int kFiles = 5000;
    QStringList paths;
    for (int i = 0; i < kFiles; ++i) {
        paths.append("/mmc/" + QString::number(i));
        ASSERT_EQ(::mknod(paths.last().toUtf8().constData(), S_IFREG | 0644, 0), 0);
    }
    paths.sort();
    QStringList listed;
    for (const QByteArray& entry : cardListing().split('\n')) {
        listed.append(entry.mid(entry.lastIndexOf(',') + 1));
    }
    listed.removeLast();
    EXPECT_EQ(listed, paths);
}

TEST_F(FileListingWalkTest, RandomTreesAreListedAsThePlainWayListsThem) {
    constexpr unsigned kTrees = 300;
    for (unsigned seed = 0; seed < kTrees; ++seed) {
        RandomTree(seed).fill("/mmc");
        EXPECT_EQ(linesOfCardFor<SameUser>(), PlainListing::of(kCard)) << "seed " << seed;
        emptyCard();
    }
}

#include "hashing/ListingFile.h"

#include "tests/hashing/FileListingFixture.h"

#include <sched.h>

#include <optional>
#include <thread>

namespace {

using ListingFileTest = FileListingFixture;

/// Whether anybody waits for a lock on the whole of a file. (A process's own waits are among them.)
bool isALockWaitedFor() {
    for (const QByteArray& entry : readTestFile("/proc/locks").split('\n')) {
        if (entry.contains("-> FLOCK")) {
            return true;
        }
    }
    return false;
}

}  // namespace

TEST_F(ListingFileTest, ASecondWriterOfTheSameListingWaitsForTheFirst) {
    ListingFile first(kUser, kCard);
    ASSERT_TRUE(first.open());
    ASSERT_EQ(first.file().write("first\n"), 6);

    QByteArray inPlaceWhenItsTurnCame;
    ListingFile second(kUser, kCard);
    std::thread other([&] {
        ASSERT_TRUE(second.open());
        inPlaceWhenItsTurnCame = readTestFile(kCardListing);
    });
    while (!isALockWaitedFor()) {
        sched_yield();
    }
    EXPECT_TRUE(first.putInPlace());
    other.join();

    EXPECT_EQ(inPlaceWhenItsTurnCame, "first\n");
    EXPECT_EQ(readTestFile(kCardTemporary), "") << "a file of its own";
    ASSERT_EQ(second.file().write("second\n"), 7);
    EXPECT_EQ(readTestFile(kCardListing), "first\n");
    EXPECT_TRUE(second.putInPlace());
    EXPECT_EQ(readTestFile(kCardListing), "second\n");
}

TEST_F(ListingFileTest, AWriterWhoGivesUpLeavesTheTurnToTheNext) {
    std::optional<ListingFile> first(std::in_place, kUser, kCard);
    ASSERT_TRUE(first->open());
    ListingFile second(kUser, kCard);
    std::thread other([&] { ASSERT_TRUE(second.open()); });
    while (!isALockWaitedFor()) {
        sched_yield();
    }
    first.reset();
    other.join();
    ASSERT_EQ(second.file().write("second\n"), 7);
    EXPECT_TRUE(second.putInPlace());
    EXPECT_EQ(readTestFile(kCardListing), "second\n");
}

TEST_F(ListingFileTest, ListingsOfOtherRootsAndFoldersDoNotWaitForEachOther) {
    makeFolder("/root/data/user2");
    ListingFile first(kUser, kCard);
    ListingFile ofAnotherRoot(kUser, "/mmc/x");
    ListingFile ofAnotherFolder("user2", kCard);
    EXPECT_TRUE(first.open());
    EXPECT_TRUE(ofAnotherRoot.open());
    EXPECT_TRUE(ofAnotherFolder.open());
}

TEST_F(ListingFileTest, AFileTakenAwayWhileItIsWrittenIsNotPutInPlace) {
    writeTestFile(kCardListing, "before\n");
    ListingFile listing(kUser, kCard);
    ASSERT_TRUE(listing.open());
    ASSERT_TRUE(QFile::remove(kCardTemporary));
    EXPECT_FALSE(listing.putInPlace());
    EXPECT_EQ(readTestFile(kCardListing), "before\n");
}

#include "tools/storagectl/Listing.h"

#include <gtest/gtest.h>

#include <utility>

namespace {

using storagectl::isPlainRelativePath;
using storagectl::Listing;

TEST(ListingTest, ALineIsSizeTimeAndPath) {
    const Listing listing("5,1714521600,/mmc/a/b\n", "/mmc");
    ASSERT_EQ(listing.entries().size(), 1u);
    EXPECT_EQ(listing.entries()[0].size, 5);
    EXPECT_EQ(listing.entries()[0].modified, 1'714'521'600);
    EXPECT_EQ(Listing::pathOf(listing.entries()[0]), "/mmc/a/b");
    EXPECT_EQ(listing.nameOf(listing.entries()[0]), "a/b");
    EXPECT_EQ(listing.bytes(), 5);
    EXPECT_EQ(listing.unfitLines(), 0);
}

TEST(ListingTest, APathMayHoldCommas) {
    const Listing listing("5,6,/mmc/a,7,b\n", "/mmc");
    ASSERT_EQ(listing.entries().size(), 1u);
    EXPECT_EQ(listing.nameOf(listing.entries()[0]), "a,7,b");
}

TEST(ListingTest, TheTextIsLatin1AndNamesAreUtf8) {
    const Listing listing("1,2,/mmc/m\xE4rz/\xFC\n", "/mmc/m\u00E4rz");
    ASSERT_EQ(listing.entries().size(), 1u);
    EXPECT_EQ(listing.nameOf(listing.entries()[0]), "\u00FC");
    EXPECT_FALSE(listing.hasDoubtfulNames());
}

TEST(ListingTest, AQuestionMarkInANameIsDoubtful) {
    EXPECT_TRUE(Listing("1,2,/mmc/a?b\n", "/mmc").hasDoubtfulNames());
    EXPECT_FALSE(Listing("1,2,/mmc/?/b\n", "/mmc/?").hasDoubtfulNames()) << "it is the root's";
}

TEST(ListingTest, AnEmptyTextHasNoEntriesAndNoFault) {
    const Listing listing("", "/mmc");
    EXPECT_TRUE(listing.entries().empty());
    EXPECT_EQ(listing.unfitLines(), 0);
}

TEST(ListingTest, TheRootOfTheUnitIsARootToo) {
    const Listing listing("1,2,/a\n", "/");
    ASSERT_EQ(listing.entries().size(), 1u);
    EXPECT_EQ(listing.nameOf(listing.entries()[0]), "a");
}

TEST(ListingTest, LinesThatAreNoneAreLeftOutAndCounted) {
    const char* const kLines[] = {"",
                                  "nonsense",
                                  ",,",
                                  "1,2",
                                  "1,/mmc/a",
                                  "-1,2,/mmc/a",
                                  "1,-2,/mmc/a",
                                  "+1,2,/mmc/a",
                                  " 1,2,/mmc/a",
                                  "1 ,2,/mmc/a",
                                  "0x1,2,/mmc/a",
                                  "1,2.5,/mmc/a",
                                  "9223372036854775808,2,/mmc/a",
                                  "1,4294967296,/mmc/a",
                                  "1,2,",
                                  "1,2,mmc/a",
                                  "1,2,/mmc",
                                  "1,2,/mmc/",
                                  "1,2,/mmcblk/a",
                                  "1,2,/etc/passwd",
                                  "1,2,/mmc//a",
                                  "1,2,/mmc/a/",
                                  "1,2,/mmc/./a",
                                  "1,2,/mmc/../etc/passwd",
                                  "1,2,/mmc/a/..",
                                  "1,2,/mmc/a/../../../etc"};
    for (const char* const line : kLines) {
        const Listing listing(QByteArray(line) + "\n7,8,/mmc/good\n", "/mmc");
        EXPECT_EQ(listing.unfitLines(), 1) << line;
        ASSERT_EQ(listing.entries().size(), 1u) << line;
        EXPECT_EQ(listing.nameOf(listing.entries()[0]), "good") << line;
    }
}

TEST(ListingTest, AZeroByteInANameIsUnfit) {
    EXPECT_EQ(Listing(QByteArray("1,2,/mmc/a\0b\n", 13), "/mmc").unfitLines(), 1);
}

TEST(ListingTest, ATextThatWasCutLosesItsLastLineAtEveryLength) {
    const QByteArray text = "5,1714521600,/mmc/first\n6,1714521601,/mmc/second\n";
    const qsizetype firstEnd = text.indexOf('\n') + 1;
    for (qsizetype length = 0; length < text.size(); ++length) {
        const Listing listing(text.left(length), "/mmc");
        const bool atAnEnd = length == 0 || length == firstEnd;
        EXPECT_EQ(listing.unfitLines(), atAnEnd ? 0 : 1) << length;
        EXPECT_EQ(listing.entries().size(), length < firstEnd ? 0u : 1u) << length;
    }
}

TEST(ListingTest, SizesThatTogetherLeaveTheirRangeAreUnfit) {
    const Listing listing("9223372036854775807,1,/mmc/a\n9223372036854775807,1,/mmc/b\n", "/mmc");
    EXPECT_EQ(listing.entries().size(), 1u);
    EXPECT_EQ(listing.unfitLines(), 1);
}

TEST(ListingTest, EntriesOutliveAMove) {
    Listing first("1,2,/mmc/a\n", "/mmc");
    const Listing second = std::move(first);
    EXPECT_EQ(Listing::pathOf(second.entries()[0]), "/mmc/a");
}

TEST(ListingTest, PlainRelativePathsStayWhereTheyArePut) {
    for (const char* const path : {"a", "a/b", "...", "a..b/c", ".hidden", "a b"}) {
        EXPECT_TRUE(isPlainRelativePath(path)) << path;
    }
    for (const char* const path :
         {"", "/", "/a", "a/", "a//b", ".", "..", "../a", "a/..", "a/./b"}) {
        EXPECT_FALSE(isPlainRelativePath(path)) << path;
    }
}

}  // namespace

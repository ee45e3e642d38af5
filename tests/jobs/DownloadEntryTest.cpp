#include "jobs/DownloadEntry.h"

#include <gtest/gtest.h>

namespace {

TEST(DownloadEntry, APathAlone) {
    for (const char* path : {"", " ", "/root/data/a b", "a", "/\xc3\xb8", "\\"}) {
        const DownloadEntry entry = DownloadEntry::parsed(path);
        EXPECT_EQ(entry.path, QString::fromUtf8(path));
        EXPECT_TRUE(entry.prefixHash.isEmpty());
        EXPECT_EQ(entry.offset, 0);
    }
}

TEST(DownloadEntry, APathAHashAndAnOffset) {
    const DownloadEntry entry = DownloadEntry::parsed("/a|1B2M2Y8AsgTpgAmY7PhCfg==|2147483647");
    EXPECT_EQ(entry.path, "/a");
    EXPECT_EQ(entry.prefixHash, "1B2M2Y8AsgTpgAmY7PhCfg==");
    EXPECT_EQ(entry.offset, 2147483647);
}

TEST(DownloadEntry, MissingOrBadPartsCountAsAnEmptyHashAndOffset0) {
    for (const char* line :
         {"/a|", "/a||", "/a|h", "/a|h|", "/a|h|x", "/a|h|5x", "/a|h|0x5", "/a|h|5.0", "/a|h|1e3",
          "/a|h|-1", "/a|h|-2147483648", "/a|h|0", "/a|h|2147483648", "/a|h|99999999999999999999",
          "/a|h|5|", "/a|h|5|6", "/a|||||||||"}) {
        const DownloadEntry entry = DownloadEntry::parsed(line);
        EXPECT_EQ(entry.path, "/a") << line;
        EXPECT_TRUE(entry.prefixHash.isEmpty()) << line;
        EXPECT_EQ(entry.offset, 0) << line;
    }
}

TEST(DownloadEntry, AnOffsetMayHaveAPlusZerosInFrontAndSpacesAround) {
    for (const char* offset : {"+12", " 12", "12 ", "\t12\r", "0012"}) {
        EXPECT_EQ(DownloadEntry::parsed(QString("/a|h|") + offset).offset, 12) << offset;
    }
}

TEST(DownloadEntry, AnOffsetIsOneDecimalNumber) {
    for (const char* offset : {" ", "+", "+ 12", "1 2", "1,200", "1'200", "0b11", "++1", "+-1",
                               "\xd9\xa1\xd9\xa2", "\xef\xbc\x91"}) {
        EXPECT_EQ(DownloadEntry::parsed(QString("/a|h|") + offset).offset, 0) << offset;
    }
}

TEST(DownloadEntry, ALineOfMillionsOfSeparatorsIsReadLikeAnyOther) {
    const DownloadEntry entry = DownloadEntry::parsed("/a" + QString(4'000'000, '|') + "5");
    EXPECT_EQ(entry.path, "/a");
    EXPECT_EQ(entry.offset, 0);
}

TEST(DownloadEntry, AnEmptyPathWithAHashHasAnEmptyPath) {
    EXPECT_EQ(DownloadEntry::parsed("|h|5").path, "");
    EXPECT_EQ(DownloadEntry::parsed("||").path, "");
}

TEST(DownloadEntry, AnEmptyHashNeverClaimsAnything) {
    EXPECT_FALSE(DownloadEntry::parsed("/a||5").claimsPrefixOf(10));
}

TEST(DownloadEntry, APrefixIsNotEmptyAndNotLongerThanTheFile) {
    const DownloadEntry entry = DownloadEntry::parsed("/a|h|5");
    EXPECT_FALSE(entry.claimsPrefixOf(0));
    EXPECT_FALSE(entry.claimsPrefixOf(4));
    EXPECT_TRUE(entry.claimsPrefixOf(5));
    EXPECT_TRUE(entry.claimsPrefixOf(6));
    EXPECT_FALSE(DownloadEntry::parsed("/a|h|0").claimsPrefixOf(5));
}

}  // namespace

#include "core/shared/StoragePaths.h"

#include <gtest/gtest.h>

namespace {

struct PathCase {
    const char* path;
    bool isAllowed;
};

class StoragePathsTest : public testing::TestWithParam<PathCase> {};

}  // namespace

TEST_P(StoragePathsTest, OnlyWhatLiesUnderARootIsAllowed) {
    EXPECT_EQ(StoragePaths::isAllowed(QString::fromUtf8(GetParam().path)), GetParam().isAllowed)
        << GetParam().path;
}

INSTANTIATE_TEST_SUITE_P(
    Paths, StoragePathsTest,
    testing::Values(PathCase{"/root/data/x", true}, PathCase{"/root/data//x/./y", true},
                    PathCase{"/root/config/x", true}, PathCase{"/mmc/x", true},
                    PathCase{"/root/data", false}, PathCase{"/root/data/", false},
                    PathCase{"/root/config/..", false}, PathCase{"/root/data/../config/x", true},
                    PathCase{"/root/data/../../etc/passwd", false}, PathCase{"/../mmc/x", false},
                    PathCase{"/root/Data/x", false}, PathCase{"/root/database/x", false},
                    PathCase{"data/x", false}, PathCase{"", false}, PathCase{"/", false}));

TEST(StoragePaths, KeptBarePrefixOfTheCardHasNoSeparator) {
    EXPECT_TRUE(StoragePaths::isAllowed("/mmc"));
    EXPECT_TRUE(StoragePaths::isAllowed("/mmcblk0"));
    EXPECT_TRUE(StoragePaths::isAllowed("/mmcfoo/x"));
}

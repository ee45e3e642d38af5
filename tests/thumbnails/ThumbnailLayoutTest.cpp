#include "thumbnails/ThumbnailLayout.h"

#include "tests/support/DataFileBytes.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RecordedSource.h"

#include <gtest/gtest.h>

namespace {

using ThumbnailLayout::slotMap;

QMap<int, int> mapOf(const QByteArray& header, int fallbackType = 5) {
    return slotMap(header.constData(), static_cast<int>(header.size()), fallbackType);
}

struct Fallback {
    int type;
    int slotBytes;
};

class FallbackSlotTest : public testing::TestWithParam<Fallback> {};

TEST_P(FallbackSlotTest, AHeaderWithoutTypesOrWithMoreThan7HasOneSlotForTheFallbackCode) {
    const QMap<int, int> expected = [] {
        QMap<int, int> map = {{-GetParam().type, 0}, {GetParam().type, GetParam().slotBytes}};
        map[-100] = GetParam().slotBytes;
        return map;
    }();
    for (const quint32 stated : {0U, 8U, 9U, 255U, 256U, 0x80000000U, 0xFFFFFFFFU}) {
        RecordedSource source;
        for (int type = 0; type < 8; ++type) {
            source.describe(30 + type, 10);
        }
        DataFileBytes::setField(source.bytes, 76, stated);
        EXPECT_EQ(mapOf(source.bytes, GetParam().type), expected) << stated;
    }
}

INSTANTIATE_TEST_SUITE_P(Codes, FallbackSlotTest,
                         testing::Values(Fallback{5, 15}, Fallback{90, 18}, Fallback{100, 17},
                                         Fallback{20, 14}, Fallback{103, 10}, Fallback{255, 23}),
                         [](const auto& row) { return "Type" + std::to_string(row.param.type); });

TEST(ThumbnailLayout, SlotsLieEndToEndInTheOrderOfTheDescriptors) {
    RecordedSource source;
    source.describe(9, 5).describe(200, 10).describe(30, 1).describe(7, 119);
    EXPECT_EQ(mapOf(source.bytes), (QMap<int, int>{{9, 10},
                                                   {-9, 0},
                                                   {200, 15},
                                                   {-200, 10},
                                                   {30, 6},
                                                   {-30, 25},
                                                   {7, 124},
                                                   {-7, 31},
                                                   {-100, 155}}));
}

TEST(ThumbnailLayout, SevenTypesAllHaveSlots) {
    RecordedSource source;
    for (int type = 0; type < 7; ++type) {
        source.describe(30 + type, 10);
    }
    const QMap<int, int> map = mapOf(source.bytes);
    EXPECT_EQ(map.size(), 15);
    EXPECT_EQ(map.value(-36), 90);
    EXPECT_EQ(map.value(-100), 105);
}

struct Described {
    int type;
    int length;
    int slotBytes;  ///< 0 where it gets none
};

class DescribedSlotTest : public testing::TestWithParam<Described> {};

TEST_P(DescribedSlotTest, HasTheSlotThatItsLengthGives) {
    RecordedSource source;
    source.describe(GetParam().type, GetParam().length).describe(33, 4);
    const QMap<int, int> map = mapOf(source.bytes);
    EXPECT_EQ(map.value(GetParam().type), GetParam().slotBytes);
    EXPECT_EQ(map.contains(GetParam().type), GetParam().slotBytes > 0);
    EXPECT_EQ(map.value(-33), GetParam().slotBytes);
    EXPECT_EQ(map.value(-100), GetParam().slotBytes + 9);
}

INSTANTIATE_TEST_SUITE_P(Lengths, DescribedSlotTest,
                         testing::Values(Described{100, 4, 17}, Described{100, 0, 17},
                                         Described{100, 19, 17}, Described{100, 20, 25},
                                         Described{100, 119, 124}, Described{100, 120, 0},
                                         Described{40, 0, 5}, Described{40, 1, 6},
                                         Described{40, 19, 24}, Described{40, 119, 124},
                                         Described{40, 120, 0}, Described{40, 255, 0}),
                         [](const auto& row) {
                             return "Type" + std::to_string(row.param.type) + "Length" +
                                    std::to_string(row.param.length);
                         });

TEST(ThumbnailLayout, KeptOneKeyIsTheStrideAndCode100sOffsetAndTheStrideWins) {
    RecordedSource source;
    source.describe(40, 10).describe(100, 12).describe(41, 10);
    const QMap<int, int> map = mapOf(source.bytes);
    EXPECT_EQ(map.value(-100), 15 + 17 + 15) << "not 15, where its slot begins";
    EXPECT_EQ(ThumbnailLayout::slotOffset(map, 1000, 3, 100), 1000 + 4 * 47)
        << "where the next block begins";
    EXPECT_EQ(ThumbnailLayout::slotOffset(map, 1000, 3, 41), 1000 + 3 * 47 + 32);
}

TEST(ThumbnailLayout, OfTwoDescriptorsOfOneCodeTheLastCountsAndBothTakeRoom) {
    RecordedSource source;
    source.describe(40, 10).describe(40, 20);
    EXPECT_EQ(mapOf(source.bytes), (QMap<int, int>{{40, 25}, {-40, 15}, {-100, 40}}));
}

TEST(ThumbnailLayout, ADescribedEmptyRecordTakesRoom) {
    RecordedSource source;
    source.describe(40, 10).describe(0, 10).describe(41, 10);
    const QMap<int, int> map = mapOf(source.bytes);
    EXPECT_EQ(map.value(-41), 30);
    EXPECT_EQ(map.value(-100), 45);
}

TEST(ThumbnailLayout, ACountThatLiesReachesNoFurtherThanTheHeader) {
    RecordedSource source;
    source.describe(40, 10).describe(41, 10);
    DataFileBytes::setField(source.bytes, 76, 7);
    EXPECT_EQ(mapOf(source.bytes),
              (QMap<int, int>{{40, 15}, {-40, 0}, {41, 15}, {-41, 15}, {-100, 30}}));
    EXPECT_EQ(mapOf(source.bytes.left(80 + 1024 + 1023)),
              (QMap<int, int>{{40, 15}, {-40, 0}, {-100, 15}}));
    EXPECT_EQ(mapOf(source.bytes.left(80)), (QMap<int, int>{{-100, 0}}));
}

TEST(ThumbnailLayout, AnUnknownFallbackCodeIsLoggedAndHasASlotForItsTypeByte) {
    LogCapture log;
    EXPECT_EQ(mapOf(RecordedSource().bytes, 50), (QMap<int, int>{{50, 6}, {-50, 0}, {-100, 6}}));
    EXPECT_EQ(log.lines(), QList<QByteArray>{"UNKNOWN RECORD TYPE 50"});
}

TEST(ThumbnailLayout, AMonthStartsWithItsFirstSecondInUtc) {
    EXPECT_EQ(ThumbnailLayout::monthStart("1970-01"), 0U);
    EXPECT_EQ(ThumbnailLayout::monthStart("2024-05"), 1'714'521'600U);
    EXPECT_EQ(ThumbnailLayout::monthStart("2024-02"), 1'706'745'600U);
    EXPECT_EQ(ThumbnailLayout::monthStart("2024-03"), 1'709'251'200U) << "29 days later";
    EXPECT_EQ(ThumbnailLayout::monthStart("2106-02"), 4'294'425'600U) << "above 31 bits";
}

TEST(ThumbnailLayout, NoSuchMonthStartsAt0) {
    for (const char* month : {"2024-13", "2024-00", "0000-01", "", "abcd-ef", "2024"}) {
        EXPECT_EQ(ThumbnailLayout::monthStart(month), 0U) << month;
    }
}

TEST(ThumbnailLayout, AnIntervalIs900SecondsAndAMonthOf31DaysHas2976) {
    EXPECT_EQ(ThumbnailLayout::interval(5000, 5000), 0U);
    EXPECT_EQ(ThumbnailLayout::interval(5899, 5000), 0U);
    EXPECT_EQ(ThumbnailLayout::interval(5900, 5000), 1U);
    EXPECT_EQ(ThumbnailLayout::interval(5000 + 31 * 86400 - 1, 5000), 2975U);
    EXPECT_EQ(ThumbnailLayout::interval(4999, 5000), 0xFFFFFFFFU / 900) << "unsigned";
}

TEST(ThumbnailLayout, ADayHasItsFirstAndItsLastSecondAndNoOther) {
    constexpr unsigned kMonth = 1'714'521'600;
    EXPECT_FALSE(ThumbnailLayout::isInDay(kMonth + 86399, 1, kMonth));
    EXPECT_TRUE(ThumbnailLayout::isInDay(kMonth + 86400, 1, kMonth));
    EXPECT_TRUE(ThumbnailLayout::isInDay(kMonth + 2 * 86400 - 1, 1, kMonth));
    EXPECT_FALSE(ThumbnailLayout::isInDay(kMonth + 2 * 86400, 1, kMonth));
    EXPECT_FALSE(ThumbnailLayout::isInDay(0, 1, kMonth));
    EXPECT_FALSE(ThumbnailLayout::isInDay(0xFFFFFFFF, 1, kMonth));
}

TEST(ThumbnailLayout, ABlockBeginsAtTheHeadersEndAndItsNumberTimesTheStride) {
    const QMap<int, int> map = {{40, 15}, {-40, 0}, {41, 25}, {-41, 15}, {-100, 40}};
    EXPECT_EQ(ThumbnailLayout::slotOffset(map, 2128, 0, 40), 2128);
    EXPECT_EQ(ThumbnailLayout::slotOffset(map, 2128, 0, 41), 2143);
    EXPECT_EQ(ThumbnailLayout::slotOffset(map, 2128, 2975, 41), 2128 + 2975 * 40 + 15);
    EXPECT_EQ(ThumbnailLayout::slotOffset(map, 2128, 0xFFFFFFFF, 40), 171'798'693'928)
        << "not cut to 32 bits";
}

}  // namespace

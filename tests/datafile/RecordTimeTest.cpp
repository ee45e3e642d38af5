#include "datafile/RecordTime.h"

#include <QByteArray>

#include <gtest/gtest.h>

#include <climits>

namespace {

quint32 after(const char* hex, quint32 current) {
    return RecordTime::after(QByteArray::fromHex(hex).leftJustified(5, 0).constData(), current);
}

struct Row {
    const char* record;
    quint32 current;
    quint32 expected;
};

class RecordTimeTest : public testing::TestWithParam<Row> {};

TEST_P(RecordTimeTest, ARecordChangesTheTimeAsItsRowSays) {
    EXPECT_EQ(after(GetParam().record, GetParam().current), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(AbsoluteTimes, RecordTimeTest,
                         testing::Values(Row{"01 00000000", 1000, 0}, Row{"01 01000000", 1000, 1},
                                         Row{"01 00F15365", 0, 1'700'000'000},
                                         Row{"01 FFFFFF7F", 1, 0x7FFFFFFF},
                                         Row{"01 00000080", 1, 0x80000000},
                                         Row{"01 FFFFFFFF", 1, UINT_MAX}));

INSTANTIATE_TEST_SUITE_P(MediumStepsAreSigned, RecordTimeTest,
                         testing::Values(Row{"03 0000", 1000, 1000}, Row{"03 8000", 1000, 1128},
                                         Row{"03 FF7F", 1000, 33767},
                                         Row{"03 0080", 100'000, 67232}, Row{"03 FFFF", 1000, 999},
                                         Row{"03 7FFF", 1000, 871}, Row{"03 FFFF", 0, UINT_MAX},
                                         Row{"03 0100", UINT_MAX, 0}));

INSTANTIATE_TEST_SUITE_P(KEPT_ShortStepsAreUnsigned, RecordTimeTest,
                         testing::Values(Row{"02 00", 1000, 1000}, Row{"02 01", 1000, 1001},
                                         Row{"02 7F", 1000, 1127}, Row{"02 80", 1000, 1128},
                                         Row{"02 FF", 1000, 1255}, Row{"02 01", UINT_MAX, 0}));

TEST(RecordTime, EveryOtherRecordLeavesTheTime) {
    for (int type = 0; type < 256; ++type) {
        if (type == 0 || type > 3) {
            const char record[5] = {static_cast<char>(type), 1, 2, 3, 4};
            EXPECT_EQ(RecordTime::after(record, 1234), 1234U) << type;
        }
    }
}

TEST(RecordTime, TheCodes1To3AreTimeRecords) {
    for (int type = -1; type < 257; ++type) {
        EXPECT_EQ(RecordTime::isTimeRecord(type), type >= 1 && type <= 3) << type;
    }
}

TEST(RecordTime, TheRecordNeedNotBeAligned) {
    alignas(8) const char bytes[] = "\0\x01\x00\xF1\x53\x65";
    EXPECT_EQ(RecordTime::after(bytes + 1, 0), 1'700'000'000U);
}

}  // namespace

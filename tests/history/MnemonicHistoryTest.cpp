#include "history/MnemonicHistory.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <limits>
#include <random>
#include <vector>

namespace {

using Time = unsigned long long;
using Row = std::vector<float>;

constexpr Time kLatestTime = std::numeric_limits<Time>::max();

Row rowOf(const MnemonicHistory& history) {
    return {history.history(), history.history() + MnemonicHistory::kSlots};
}

/// The newest values, oldest last, and 0.0 in the rest.
Row row(std::initializer_list<float> newest) {
    Row values(newest);
    values.resize(MnemonicHistory::kSlots);
    return values;
}

TEST(MnemonicHistory, AFreshHistoryIsEmptyAndReadsZeros) {
    const MnemonicHistory history("Depth");
    EXPECT_EQ(history.name(), QString("Depth"));
    EXPECT_TRUE(history.isEmpty());
    EXPECT_FALSE(history.isFull());
    EXPECT_EQ(history.count(), 0);
    EXPECT_EQ(rowOf(history), row({}));
}

TEST(MnemonicHistory, TheFirstSampleAtTheStartTimeOpensASlotThatBeginsThere) {
    MnemonicHistory history("");
    history.setStartTimestamp(1000);
    EXPECT_FALSE(history.isEmpty());
    EXPECT_EQ(history.count(), 0);
    EXPECT_TRUE(history.timeForRecord(1000));
    history.addRecord(1000, 5.0F);
    EXPECT_EQ(history.count(), 1);
    EXPECT_EQ(rowOf(history), row({5.0F}));
    EXPECT_FALSE(history.timeForRecord(1000));
    EXPECT_FALSE(history.timeForRecord(1059));
    EXPECT_TRUE(history.timeForRecord(1060));
}

TEST(MnemonicHistory, TheLastSampleOfAMinuteIsItsValueAndTheNextMinuteOpensASlot) {
    MnemonicHistory history("");
    history.setStartTimestamp(1000);
    history.addRecord(1000, 1.0F);
    history.addRecord(1059, 2.0F);
    EXPECT_EQ(history.count(), 1);
    EXPECT_EQ(rowOf(history), row({2.0F}));
    history.addRecord(1060, 3.0F);
    EXPECT_EQ(history.count(), 2);
    EXPECT_EQ(rowOf(history), row({3.0F, 2.0F}));
}

TEST(MnemonicHistory, WithoutAStartTimeTheFirstSampleOpensTheSlotThatBeginsAtIt) {
    MnemonicHistory history("");
    history.addRecord(1000, 4.0F);
    EXPECT_EQ(history.count(), 1);
    EXPECT_EQ(rowOf(history), row({4.0F}));
    EXPECT_FALSE(history.timeForRecord(1000));
    EXPECT_FALSE(history.timeForRecord(1059));
    EXPECT_TRUE(history.timeForRecord(1060));
}

TEST(MnemonicHistory, KeptZeroInEachMinuteOfAGapOfFive) {
    MnemonicHistory history("");
    history.addRecord(1000, 1.0F);
    history.addRecord(1060, 2.0F);
    history.addRecord(1360, 7.0F);
    EXPECT_EQ(history.count(), 7);
    EXPECT_EQ(rowOf(history), row({7.0F, 0.0F, 0.0F, 0.0F, 0.0F, 2.0F, 1.0F}));
}

TEST(MnemonicHistory, TheOldestOfThirtySlotsIsLost) {
    MnemonicHistory history("");
    for (int minute = 0; minute < 30; ++minute) {
        EXPECT_FALSE(history.isFull());
        history.addRecord(1000 + static_cast<Time>(minute) * 60, static_cast<float>(minute));
    }
    EXPECT_TRUE(history.isFull());
    EXPECT_EQ(history.history()[29], 0.0F);
    EXPECT_EQ(history.history()[28], 1.0F);
    history.addRecord(1000 + 30 * 60, 30.0F);
    EXPECT_EQ(history.count(), 31);
    EXPECT_EQ(history.history()[0], 30.0F);
    EXPECT_EQ(history.history()[29], 1.0F);
}

TEST(MnemonicHistory, AFarSampleStopsAHaltingRowAtThirtyAndIsDropped) {
    MnemonicHistory history("");
    history.setHaltWhenFull();
    history.setStartTimestamp(1000);
    history.addRecord(1000 + 100 * 60, 9.0F);
    EXPECT_EQ(history.count(), 30);
    EXPECT_TRUE(history.isFull());
    EXPECT_EQ(rowOf(history), row({}));
    EXPECT_FALSE(history.timeForRecord(1000 + 29 * 60));
    EXPECT_TRUE(history.timeForRecord(1000 + 30 * 60));
}

TEST(MnemonicHistory, KeptSampleExactlyAtTheNextMinuteGoesIntoTheSlotWhereTheRowHalted) {
    const Time halted = 1000 + 29 * 60;
    MnemonicHistory history("");
    history.setHaltWhenFull();
    history.setStartTimestamp(1000);
    history.addRecord(halted + 60, 9.0F);
    EXPECT_EQ(history.count(), 30);
    EXPECT_EQ(rowOf(history), row({9.0F}));
    EXPECT_TRUE(history.timeForRecord(halted + 60));

    MnemonicHistory later("");
    later.setHaltWhenFull();
    later.setStartTimestamp(1000);
    later.addRecord(halted + 61, 9.0F);
    EXPECT_EQ(later.count(), 30);
    EXPECT_EQ(rowOf(later), row({}));
}

TEST(MnemonicHistory, KeptFullRowOpensOneMoreSlotInEachFurtherCall) {
    MnemonicHistory history("");
    history.setHaltWhenFull();
    history.setStartTimestamp(1000);
    history.addRecord(1000 + 29 * 60, 1.0F);
    ASSERT_EQ(history.count(), 30);
    history.addRecord(1000 + 200 * 60, 2.0F);
    EXPECT_EQ(history.count(), 31);
    history.addRecord(1000 + 200 * 60, 2.0F);
    EXPECT_EQ(history.count(), 32);
    EXPECT_EQ(rowOf(history), row({0.0F, 0.0F, 1.0F}));
}

TEST(MnemonicHistory, WithoutTheHaltAFarSampleMovesEverythingOut) {
    MnemonicHistory history("");
    history.addRecord(1000, 1.0F);
    history.addRecord(1000 + 100 * 60, 2.0F);
    EXPECT_EQ(history.count(), 101);
    EXPECT_EQ(rowOf(history), row({2.0F}));
}

TEST(MnemonicHistory, TimeForRecordTellsWhetherASampleIsPastTheCurrentMinute) {
    MnemonicHistory history("");
    EXPECT_TRUE(history.timeForRecord(0));
    EXPECT_TRUE(history.timeForRecord(kLatestTime));
    history.addRecord(1000, 1.0F);
    EXPECT_FALSE(history.timeForRecord(1000));
    EXPECT_FALSE(history.timeForRecord(1059));
    EXPECT_TRUE(history.timeForRecord(1060));
    EXPECT_TRUE(history.timeForRecord(kLatestTime));
}

TEST(MnemonicHistory, KeptTimeBeforeTheCurrentMinuteIsTimeForARecord) {
    MnemonicHistory history("");
    history.addRecord(1000, 1.0F);
    EXPECT_TRUE(history.timeForRecord(999));
    EXPECT_TRUE(history.timeForRecord(0));
}

TEST(MnemonicHistory, KeptSampleFromBeforeTheCurrentMinuteGoesIntoIt) {
    MnemonicHistory history("");
    history.addRecord(1000, 1.0F);
    history.addRecord(1060, 2.0F);
    history.addRecord(5, 3.0F);
    EXPECT_EQ(history.count(), 2);
    EXPECT_EQ(rowOf(history), row({3.0F, 1.0F}));
}

TEST(MnemonicHistory, ClearEmptiesTheRowAndTheNextSampleStartsItAnew) {
    MnemonicHistory history("Depth");
    history.addRecord(1000, 1.0F);
    history.addRecord(1060, 2.0F);
    history.clear();
    EXPECT_TRUE(history.isEmpty());
    EXPECT_EQ(history.count(), 0);
    EXPECT_EQ(rowOf(history), row({}));
    EXPECT_EQ(history.name(), QString("Depth"));
    history.addRecord(77, 3.0F);
    EXPECT_EQ(history.count(), 1);
    EXPECT_EQ(rowOf(history), row({3.0F}));
    EXPECT_FALSE(history.timeForRecord(77 + 59));
}

TEST(MnemonicHistory, KeptHaltSurvivesClear) {
    MnemonicHistory history("");
    history.setHaltWhenFull();
    history.clear();
    history.addRecord(1000, 1.0F);
    history.addRecord(1000 + 100 * 60, 2.0F);
    EXPECT_EQ(history.count(), 30);
}

TEST(MnemonicHistory, AStartTimeEmptiesARowThatWasInUse) {
    MnemonicHistory history("");
    history.addRecord(1000, 1.0F);
    history.setStartTimestamp(5000);
    EXPECT_FALSE(history.isEmpty());
    EXPECT_EQ(history.count(), 0);
    EXPECT_EQ(rowOf(history), row({}));
}

TEST(MnemonicHistory, AStartTimeBelowAMinuteWrapsAndItsFirstSampleStillOpensASlot) {
    MnemonicHistory history("");
    history.setStartTimestamp(30);
    EXPECT_TRUE(history.timeForRecord(30));
    EXPECT_FALSE(history.timeForRecord(29));
    history.addRecord(30, 1.0F);
    EXPECT_EQ(history.count(), 1);
    EXPECT_EQ(rowOf(history), row({1.0F}));
    EXPECT_FALSE(history.timeForRecord(89));
    EXPECT_TRUE(history.timeForRecord(90));
}

TEST(MnemonicHistory, TheLatestTimeThereIsComesBackAtOnceAndTheCountStaysALargeInteger) {
    MnemonicHistory history("");
    history.addRecord(0, 1.0F);
    history.addRecord(kLatestTime - 100, 2.0F);
    EXPECT_EQ(history.count(), std::numeric_limits<int>::max());
    EXPECT_TRUE(history.isFull());
    EXPECT_EQ(rowOf(history), row({2.0F}));
    history.addRecord(kLatestTime, 3.0F);
    EXPECT_EQ(history.count(), std::numeric_limits<int>::max());
    EXPECT_FALSE(history.timeForRecord(kLatestTime));
}

TEST(MnemonicHistory, TheLatestTimeThereIsStopsAHaltingRowAtThirty) {
    MnemonicHistory history("");
    history.setHaltWhenFull();
    history.addRecord(0, 1.0F);
    history.addRecord(kLatestTime, 2.0F);
    EXPECT_EQ(history.count(), 30);
    EXPECT_FALSE(history.timeForRecord(29 * 60));
    EXPECT_TRUE(history.timeForRecord(30 * 60));
}

/// The same row moved on slot by slot.
struct SlotBySlot {
    std::array<float, 30> values{};
    Time start = 0;
    bool started = false;
    bool halts = false;
    int count = 0;

    void add(Time ts, float value) {
        if (!started) {
            started = true;
            start = ts;
            ++count;
            values[0] = value;
            return;
        }
        while (ts >= start + 60) {
            start += 60;
            for (int i = 29; i > 0; --i) {
                values[i] = values[i - 1];
            }
            values[0] = 0.0F;
            ++count;
            if (halts && count > 29) {
                break;
            }
        }
        if (ts <= start + 60) {
            values[0] = value;
        }
    }
};

TEST(MnemonicHistory, OneStepOverAGapEndsWhereSlotBySlotDoes) {
    constexpr std::array<Time, 14> kSteps = {0,    1,    59,   60,   61,   119,   300,
                                             1740, 1799, 1800, 1801, 1860, 36000, 60000};
    std::mt19937 random(6);
    for (int round = 0; round < 500; ++round) {
        MnemonicHistory history("");
        SlotBySlot model;
        if (round % 2 == 1) {
            history.setHaltWhenFull();
            model.halts = true;
        }
        Time ts = 1000 + random() % 1000;
        if (round % 4 >= 2) {
            history.setStartTimestamp(ts);
            model.started = true;
            model.start = ts - 60;
        }
        for (int sample = 0; sample < 20; ++sample) {
            ts += kSteps[random() % kSteps.size()];
            const Time late = random() % 8 == 0 ? random() % 200 : 0;
            const auto value = static_cast<float>(random() % 1000);
            history.addRecord(ts - late, value);
            model.add(ts - late, value);
            ASSERT_EQ(history.count(), model.count);
            ASSERT_EQ(rowOf(history), Row(model.values.begin(), model.values.end()));
            ASSERT_FALSE(history.timeForRecord(model.start + 59));
            ASSERT_FALSE(history.timeForRecord(model.start));
            ASSERT_TRUE(history.timeForRecord(model.start + 60));
        }
    }
}

}  // namespace

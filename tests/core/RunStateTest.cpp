#include "core/RunState.h"

#include "tests/support/FakeClock.h"

#include <gtest/gtest.h>

namespace {

class RunStateTest : public testing::Test {
protected:
    RunStateTest() { state.noteKeepalive(); }

    FakeClock clock;
    RunState state;
};

TEST_F(RunStateTest, AGapOf15SecondsIsNotOverdueAndOneOf16Is) {
    clock.advance(15);
    EXPECT_FALSE(state.isKeepaliveOverdue());
    clock.advance(1);
    EXPECT_TRUE(state.isKeepaliveOverdue());
}

TEST_F(RunStateTest, AKeepaliveStartsTheGapAgain) {
    clock.advance(14);
    state.noteKeepalive();
    clock.advance(15);
    EXPECT_FALSE(state.isKeepaliveOverdue());
}

TEST_F(RunStateTest, AWallClockThatLeapsAheadIsNoGap) {
    clock.wall += 86'400;
    EXPECT_FALSE(state.isKeepaliveOverdue());
}

TEST_F(RunStateTest, AfterALeapAheadTheMonotonicClockDecides) {
    clock.wall += 86'400;
    clock.tick += 14'999;
    EXPECT_FALSE(state.isKeepaliveOverdue());
    clock.tick += 1;
    EXPECT_TRUE(state.isKeepaliveOverdue());
}

TEST_F(RunStateTest, AWallClockThatStepsBackPutsTheEndOffByNothing) {
    for (const qint64 step : {5, 10, 86'400}) {
        state.noteKeepalive();
        clock.advance(10);
        clock.wall -= step;
        EXPECT_FALSE(state.isKeepaliveOverdue()) << step;
        clock.advance(5);
        EXPECT_FALSE(state.isKeepaliveOverdue()) << step;
        clock.advance(1);
        EXPECT_TRUE(state.isKeepaliveOverdue()) << step;
    }
}

TEST_F(RunStateTest, AWallClockThatStepsBackAgainAndAgainDoesNotPutItOffEither) {
    for (int second = 0; second < 16; ++second) {
        EXPECT_FALSE(state.isKeepaliveOverdue()) << second;
        clock.advance(1);
        clock.wall -= 100;
    }
    EXPECT_TRUE(state.isKeepaliveOverdue());
}

TEST_F(RunStateTest, TheGapIsCountedAcrossTheWrapOfTheTicks) {
    clock.tick = 0xffff'f000U;
    state.noteKeepalive();
    clock.advance(15);
    EXPECT_FALSE(state.isKeepaliveOverdue());
    clock.advance(1);
    EXPECT_TRUE(state.isKeepaliveOverdue());
}

}  // namespace

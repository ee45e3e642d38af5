#include "bus/Clock.h"

#include "tests/support/FakeClock.h"

#include <gtest/gtest.h>

#include <ctime>

namespace {

TEST(ClockTest, WallSecondsAreTheSystems) {
    const qint64 before = time(nullptr);
    const qint64 shown = Clock::wallSeconds();
    EXPECT_LE(before, shown);
    EXPECT_LE(shown, time(nullptr));
}

TEST(ClockTest, TicksCountFromProcessStart) {
    timespec cpu{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &cpu);
    const quint32 ticks = Clock::ticks();
    EXPECT_GE(ticks + 1'000, quint32(cpu.tv_sec * 1'000));
    EXPECT_LT(ticks, 600'000U) << "not milliseconds since this program was started";
}

TEST(ClockTest, TicksDoNotGoBack) {
    quint32 before = Clock::ticks();
    for (int i = 0; i < 10'000; ++i) {
        const quint32 now = Clock::ticks();
        ASSERT_LE(now - before, 10'000U);
        before = now;
    }
}

TEST(ClockTest, AReplacedClockIsShownUntilNullRestoresTheRealOne) {
    {
        FakeClock fake;
        fake.wall = 17;
        fake.tick = 0xffff'ffffU;
        EXPECT_EQ(Clock::wallSeconds(), 17);
        EXPECT_EQ(Clock::ticks(), 0xffff'ffffU);
        fake.tick += 2;
        EXPECT_EQ(Clock::ticks(), 1U);
    }
    EXPECT_GT(Clock::wallSeconds(), 1'600'000'000);
    EXPECT_LT(Clock::ticks(), 600'000U);
}

}  // namespace

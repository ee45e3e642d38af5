#include "jobs/RemoteJob.h"

#include "tests/support/FakeClock.h"
#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

namespace {

class ShortJob : public RemoteJob {
public:
    ShortJob() : RemoteJob(nullptr, 1) { _timeoutMilliseconds = 10; }
};

TEST(RemoteJob, AFreshJobWasActiveAtItsConstructionAndIsNotOver) {
    FakeClock clock;
    clock.tick = 1234;
    const RemoteJob job(nullptr, 7);
    EXPECT_EQ(job.connectionID(), 7);
    EXPECT_EQ(job.lastActivity(), 1234U);
    EXPECT_FALSE(job.needsToClose());
    EXPECT_EQ(job.type(), "RemoteJob");
}

TEST(RemoteJob, TheBaseSliceDoesNothing) {
    FakeClock clock;
    RemoteJob job(nullptr, 7);
    clock.tick += 5;
    job.runSlice();
    EXPECT_FALSE(job.needsToClose());
    EXPECT_EQ(job.lastActivity(), clock.tick - 5);
}

TEST(RemoteJob, ActivityIsTheSystemTicksOfTheCall) {
    FakeClock clock;
    RemoteJob job(nullptr, 7);
    clock.tick = 99'999;
    job.hadActivity();
    EXPECT_EQ(job.lastActivity(), 99'999U);
}

TEST(RemoteJob, TimeoutWithExactly30000MsElapsedIsFalse) {
    FakeClock clock;
    LogCapture log;
    const RemoteJob job(nullptr, 7);
    clock.tick += 30'000;
    EXPECT_FALSE(job.timeout());
    EXPECT_TRUE(log.lines().isEmpty());
}

TEST(RemoteJob, TimeoutWith30001MsElapsedIsTrueAndLogged) {
    FakeClock clock;
    LogCapture log;
    const RemoteJob job(nullptr, 7);
    clock.tick += 30'001;
    EXPECT_TRUE(job.timeout());
    EXPECT_TRUE(log.contains("RemoteJob: TIMEOUT !!! (30001 elapsed, 30000 timeout)"));
}

TEST(RemoteJob, ASubclassHasItsOwnLimit) {
    FakeClock clock;
    LogCapture log;
    const ShortJob job;
    clock.tick += 10;
    EXPECT_FALSE(job.timeout());
    clock.tick += 1;
    EXPECT_TRUE(job.timeout());
    EXPECT_TRUE(log.contains("RemoteJob: TIMEOUT !!! (11 elapsed, 10 timeout)"));
}

TEST(RemoteJob, TimeoutCountsAcrossTheWrapOfTheTicks) {
    FakeClock clock;
    LogCapture log;
    clock.tick = 0xffff'fff0U;
    const RemoteJob job(nullptr, 7);
    clock.tick += 30'000;
    EXPECT_FALSE(job.timeout());
    clock.tick += 1;
    EXPECT_TRUE(job.timeout());
}

}  // namespace

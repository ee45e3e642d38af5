#include "bus/ReconnectPolicy.h"

#include <gtest/gtest.h>

namespace {

TEST(ReconnectPolicyTest, TheFirstAttemptIsDueAtOnce) {
    const ReconnectPolicy policy;
    EXPECT_EQ(policy.millisecondsUntilDue(0), 0);
    EXPECT_EQ(policy.millisecondsUntilDue(0xffff'ffffU), 0);
}

TEST(ReconnectPolicyTest, AfterAConnectionThatLastedTheFirstAttemptIsDueAtOnce) {
    ReconnectPolicy policy;
    policy.failed(1'000);
    policy.failed(1'050);
    policy.connected(2'000);
    policy.lost(3'000);
    EXPECT_EQ(policy.millisecondsUntilDue(3'000), 0);
    policy.failed(3'000);
    EXPECT_EQ(policy.millisecondsUntilDue(3'000), 50);
}

TEST(ReconnectPolicyTest, PausesDoubleUpTo800Milliseconds) {
    ReconnectPolicy policy;
    for (const int pause : {50, 100, 200, 400, 800, 800, 800}) {
        policy.failed(7'000);
        EXPECT_EQ(policy.millisecondsUntilDue(7'000), pause);
    }
}

TEST(ReconnectPolicyTest, APauseRunsDownAndStaysOver) {
    ReconnectPolicy policy;
    policy.failed(7'000);
    EXPECT_EQ(policy.millisecondsUntilDue(7'049), 1);
    EXPECT_EQ(policy.millisecondsUntilDue(7'050), 0);
    EXPECT_EQ(policy.millisecondsUntilDue(1'000'000), 0);
}

TEST(ReconnectPolicyTest, AConnectionThatDidNotLastASecondDoesNotResetThePause) {
    ReconnectPolicy policy;
    quint32 now = 10'000;
    for (const int pause : {50, 100, 200, 400, 800, 800}) {
        policy.connected(now);
        now += 999;
        policy.lost(now);
        EXPECT_EQ(policy.millisecondsUntilDue(now), pause);
    }
}

TEST(ReconnectPolicyTest, WhileConnectedNothingIsPausing) {
    ReconnectPolicy policy;
    policy.failed(7'000);
    policy.connected(7'010);
    EXPECT_EQ(policy.millisecondsUntilDue(7'010), 0);
}

TEST(ReconnectPolicyTest, APauseGoesOnAcrossTheWrapOfTheTicks) {
    ReconnectPolicy policy;
    policy.failed(0xffff'fff0U);
    EXPECT_EQ(policy.millisecondsUntilDue(0xffff'fff0U), 50);
    EXPECT_EQ(policy.millisecondsUntilDue(0x10U), 18);
    EXPECT_EQ(policy.millisecondsUntilDue(0x22U), 0);
}

TEST(ReconnectPolicyTest, AConnectionsLifeIsCountedAcrossTheWrapOfTheTicks) {
    ReconnectPolicy policy;
    policy.connected(0xffff'ff00U);
    policy.lost(0xffff'ff00U + 1'000U);
    EXPECT_EQ(policy.millisecondsUntilDue(1'000), 0);
    policy.connected(0xffff'ff00U);
    policy.lost(0xffff'ff00U + 999U);
    EXPECT_EQ(policy.millisecondsUntilDue(0xffff'ff00U + 999U), 50);
}

TEST(ReconnectPolicyTest, AConnectionOfThirtyDaysDidLast) {
    ReconnectPolicy policy;
    policy.connected(1'000);
    const quint32 later = 1'000U + 30U * 24U * 3'600U * 1'000U;
    policy.lost(later);
    EXPECT_EQ(policy.millisecondsUntilDue(later), 0);
}

}  // namespace

#include "tools/storagectl/Pacing.h"

#include "tests/support/FakeClock.h"

#include <gtest/gtest.h>
#include <QList>

namespace {

using storagectl::Pacing;

constexpr qint64 kMessageBytes = 8150;
/// A download that is told this sends 11 messages of 8,150 bytes, until its count is 90,113.
constexpr int kElevenMessages = 463;
constexpr int kOneMessage = 81'963;

TEST(PacingTest, NothingIsToldBeforeTheDaemonAsks) {
    const FakeClock clock;
    Pacing pacing(0);
    pacing.begin();
    EXPECT_EQ(pacing.report(), std::nullopt);
    pacing.wanted();
    EXPECT_EQ(pacing.report(), kElevenMessages);
    EXPECT_EQ(pacing.report(), std::nullopt);
}

TEST(PacingTest, AGrantIsToldAgainWhenAllOfItHasArrived) {
    const FakeClock clock;
    Pacing pacing(0);
    pacing.begin();
    pacing.wanted();
    pacing.report();
    for (int grant = 0; grant < 5; ++grant) {
        for (int i = 0; i < 10; ++i) {
            pacing.received(kMessageBytes);
            EXPECT_EQ(pacing.report(), std::nullopt) << i;
        }
        pacing.received(kMessageBytes);
        EXPECT_EQ(pacing.report(), kElevenMessages);
    }
}

TEST(PacingTest, ASecondOfSilenceGrantsOneMessageMoreAndTheNextTakesLonger) {
    FakeClock clock;
    Pacing pacing(0);
    pacing.begin();
    pacing.wanted();
    pacing.report();
    EXPECT_EQ(pacing.millisecondsUntilDue(), 1000);
    clock.tick += 999;
    EXPECT_EQ(pacing.report(), std::nullopt);
    clock.tick += 1;
    EXPECT_EQ(pacing.report(), kOneMessage);
    clock.tick += 1999;
    EXPECT_EQ(pacing.report(), std::nullopt);
    clock.tick += 1;
    EXPECT_EQ(pacing.report(), kOneMessage);
    pacing.received(kMessageBytes);
    clock.tick += 1000;
    EXPECT_EQ(pacing.report(), kOneMessage);
}

TEST(PacingTest, ALostWishIsMadeUpForAfterASecond) {
    FakeClock clock;
    Pacing pacing(0);
    pacing.begin();
    clock.tick += 1000;
    EXPECT_EQ(pacing.report(), kOneMessage);
}

/// Bytes that a download sends in a time if it sends at once what it is granted, and the most of
/// any second.
std::pair<qint64, qint64> sentWith(qint64 rate, int milliseconds, FakeClock& clock) {
    Pacing pacing(rate);
    pacing.begin();
    pacing.wanted();
    QList<std::pair<quint32, qint64>> sent;
    qint64 total = 0;
    for (const quint32 end = clock.tick + quint32(milliseconds); clock.tick < end; ++clock.tick) {
        const std::optional<int> count = pacing.report();
        for (int queued = count.value_or(1 << 30); queued <= 90'112; queued += kMessageBytes) {
            pacing.received(kMessageBytes);
            sent.append({clock.tick, kMessageBytes});
            total += kMessageBytes;
        }
    }
    qint64 most = 0;
    for (qsizetype from = 0; from < sent.size(); ++from) {
        qint64 sum = 0;
        for (qsizetype to = from; to < sent.size() && sent[to].first < sent[from].first + 1000;
             ++to) {
            sum += sent[to].second;
        }
        most = qMax(most, sum);
    }
    return {total, most};
}

TEST(PacingTest, TheRateHoldsAndNoSecondHasMoreThanAMessageBeyondIt) {
    FakeClock clock;
    for (const qint64 rate : {20'000, 100'000, 1'000'000, 5'000'000}) {
        const auto [total, most] = sentWith(rate, 10'000, clock);
        EXPECT_NEAR(double(total), double(rate) * 10, double(rate) * 0.2 + kMessageBytes) << rate;
        EXPECT_LE(most, rate + 2 * kMessageBytes) << rate;
    }
}

TEST(PacingTest, ARateBelowAMessageASecondStillWorksAndIsNotTakenForSilence) {
    FakeClock clock;
    const auto [total, most] = sentWith(100, 1'000'000, clock);
    EXPECT_NEAR(double(total), 100'000, 2 * kMessageBytes);
    EXPECT_EQ(most, kMessageBytes);

    Pacing pacing(100);
    pacing.begin();
    pacing.wanted();
    EXPECT_EQ(pacing.report(), kOneMessage);
    EXPECT_TRUE(pacing.isGranted());
    pacing.received(kMessageBytes);
    EXPECT_FALSE(pacing.isGranted());
    EXPECT_EQ(pacing.millisecondsUntilDue(), 81'500);
    clock.tick += 81'499;
    EXPECT_EQ(pacing.report(), std::nullopt);
    clock.tick += 1;
    EXPECT_EQ(pacing.report(), kOneMessage);
}

TEST(PacingTest, WhatAnEndedDownloadDidNotSendIsLeftToTheNext) {
    FakeClock clock;
    Pacing pacing(100);
    pacing.begin();
    pacing.wanted();
    EXPECT_EQ(pacing.report(), kOneMessage);
    pacing.received(50);
    pacing.end();
    pacing.begin();
    pacing.wanted();
    EXPECT_EQ(pacing.millisecondsUntilDue(), 500);
}

TEST(PacingTest, AMessageBeyondTheGrantIsPaidForOnce) {
    FakeClock clock;
    Pacing pacing(kMessageBytes);
    pacing.begin();
    pacing.wanted();
    EXPECT_EQ(pacing.report(), kOneMessage);
    clock.tick += 1000;
    EXPECT_EQ(pacing.report(), kOneMessage);
    pacing.received(2 * kMessageBytes);
    pacing.end();
    pacing.begin();
    pacing.wanted();
    EXPECT_EQ(pacing.millisecondsUntilDue(), 1000);
}

TEST(PacingTest, AStalledRoadCatchesUpOnATenthOfASecondAtTheMost) {
    FakeClock clock;
    Pacing pacing(1'000'000);
    pacing.begin();
    pacing.wanted();
    clock.tick += 60'000;
    qint64 granted = 0;
    while (const std::optional<int> count = pacing.report()) {
        granted += 90'113 - *count;
        pacing.received(90'113 - *count);
    }
    EXPECT_LE(granted, 100'000);
}

}  // namespace

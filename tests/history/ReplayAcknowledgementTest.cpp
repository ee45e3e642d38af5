#include "tests/history/ReplayFixture.h"

namespace {

using ReplayAcknowledgementTest = ReplayFixture;

TEST_F(ReplayAcknowledgementTest, BlocksAreNumberedFrom1EachAfterTheLastIsAcknowledged) {
    for (const char* day : {"2024-05-01", "2024-05-02", "2024-05-03"}) {
        putGauge("1", {100}, day);
    }
    const ChildReport report = replay("1=1");
    ASSERT_EQ(report.sent.size(), 4);
    for (int i = 1; i <= 3; ++i) {
        EXPECT_EQ(report.sent[i].message.parameterAsInt32(1), i);
    }
}

TEST_F(ReplayAcknowledgementTest, AnAcknowledgementWithTheWrongNumberOrJobLeavesTheJobWaiting) {
    putGauge("1", {100}, "2024-05-01");
    putGauge("1", {100}, "2024-05-02");
    int waits = 0;
    const ChildReport report = replay("1=1", [this, &waits] {
        const int sequence = lastBlock().parameterAsInt32(1);
        const std::pair<int, int> wrong[] = {{1, 0}, {1, 3}, {2, sequence}, {1, -sequence}, {0, 0}};
        if (++waits % 6 == 0) {
            return acknowledgeLast();
        }
        acknowledge(wrong[waits % 6 - 1].first, wrong[waits % 6 - 1].second);
        DebugText::plain("waits with block %d", sequence);
    });
    EXPECT_EQ(report.lines.count("waits with block 1"), 5);
    EXPECT_EQ(report.lines.count("waits with block 2"), 5);
    EXPECT_EQ(blocksOf(report).size(), 2);
    EXPECT_EQ(report.status, 0);
}

TEST_F(ReplayAcknowledgementTest, AnAcknowledgementTwiceCountsOnce) {
    putGauge("1", {100}, "2024-05-01");
    putGauge("1", {100}, "2024-05-02");
    int waits = 0;
    const ChildReport report = replay("1=1", [this, &waits] {
        DebugText::plain("wait %d", ++waits);
        acknowledgeLast();
        acknowledgeLast();
    });
    EXPECT_TRUE(report.lines.contains("wait 2"));
    EXPECT_FALSE(report.lines.contains("wait 3"));
    EXPECT_EQ(report.sent.last().message.parameterAsInt32(1), 2);
}

TEST_F(ReplayAcknowledgementTest, KeptAnAcknowledgementOfTheNegativeNumberTakesTheLastOneBack) {
    putGauge("1", {100});
    int waits = 0;
    const ChildReport report = replay("1=1", [this, &waits] {
        DebugText::plain("wait %d", ++waits);
        acknowledge(1, 1);
        if (waits == 1) {
            acknowledge(1, -1);
        }
    });
    EXPECT_TRUE(report.lines.contains("wait 2"));
    EXPECT_FALSE(report.lines.contains("wait 3"));
    EXPECT_EQ(report.status, 0);
}

TEST_F(ReplayAcknowledgementTest, NoAcknowledgementWithin60SecondsEndsTheReplayWithoutAMessage) {
    putGauge("1", {100}, "2024-05-01");
    putGauge("1", {100}, "2024-05-02");
    const ChildReport report = replay("1=1", [this] {
        clock.advance(10);
        DebugText::plain("waited until %u", clock.tick);
    });
    EXPECT_EQ(report.status, 0);
    EXPECT_EQ(report.sent.size(), 2);
    EXPECT_EQ(report.lines.last(), "waited until 75000") << "5 s and 70 s";
    EXPECT_TRUE(report.lines.contains("waited until 65000")) << "60,000 ms are not too many";
}

TEST_F(ReplayAcknowledgementTest, TheLimitIs60000MillisecondsAndNotOneMore) {
    putGauge("1", {100});
    for (const auto& [milliseconds, waits] : {std::pair{60'000U, 2}, {60'001U, 1}}) {
        const ChildReport report = replay("1=1", [this, milliseconds = milliseconds] {
            clock.tick += milliseconds;
            DebugText::plain("a wait");
        });
        EXPECT_EQ(report.lines.count("a wait"), waits) << milliseconds;
    }
}

TEST_F(ReplayAcknowledgementTest, AnAcknowledgementRestartsTheTime) {
    for (const char* day : {"2024-05-01", "2024-05-02", "2024-05-03", "2024-05-04"}) {
        putGauge("1", {100}, day);
    }
    const ChildReport report = replay("1=1", [this] {
        clock.advance(59);
        acknowledgeLast();
    });
    EXPECT_EQ(blocksOf(report).size(), 4);
}

TEST_F(ReplayAcknowledgementTest, AWrongAcknowledgementDoesNotRestartTheTime) {
    putGauge("1", {100});
    const ChildReport report = replay("1=1", [this] {
        clock.advance(31);
        acknowledge(1, 7);
        DebugText::plain("a wait");
    });
    EXPECT_EQ(report.lines.count("a wait"), 2);
}

TEST_F(ReplayAcknowledgementTest, KeptTheTimeOfTheFirstBlockRunsFromTheBeginningOfTheJob) {
    putGauge("1", {100}, "2024-05-01");
    putGauge("1", {100}, "2024-05-02");
    const auto continueLate = [this](bool acknowledges) {
        return worker("20240501000000", [this, acknowledges] {
            clock.advance(61);
            bus.transport().onWait = [this, acknowledges](int) {
                DebugText::plain("a wait");
                if (acknowledges) {
                    acknowledgeLast();
                }
            };
            continueJob(1, "1=1");
        });
    };
    EXPECT_EQ(continueLate(false).lines.count("a wait"), 1) << "it is over with the first wait";
    EXPECT_EQ(blocksOf(continueLate(true)).size(), 2) << "but for one who acknowledges in it";
}

TEST_F(ReplayAcknowledgementTest, KeptAnAcknowledgementOf0RestartsTheTimeOfAJobThatHasSentNothing) {
    putGauge("1", {100});
    const ChildReport report = worker("20240501000000", [this] {
        clock.advance(61);
        manager.ackReplayData(1, 0);
        bus.transport().onWait = [this](int) {
            clock.advance(31);
            DebugText::plain("a wait");
        };
        continueJob(1, "1=1");
    });
    EXPECT_EQ(report.lines.count("a wait"), 2);
}

TEST_F(ReplayAcknowledgementTest, AKeepaliveIsAnsweredBetweenTwoBlocks) {
    putGauge("1", {100});
    int waits = 0;
    const ChildReport report = replay("1=1", [this, &waits] {
        if (++waits == 1) {
            Message keepalive;
            bus.transport().deliver("StorageManager.to", {keepalive.buffer(), keepalive.length()});
        } else {
            acknowledge(1, 1);
        }
    });
    ASSERT_EQ(report.sent.size(), 3);
    EXPECT_EQ(report.sent[2].message.command(), 0);
    EXPECT_EQ(report.status, 0);
}

TEST_F(ReplayAcknowledgementTest, ASecondContinueWhileItIsStreamingDoesNothing) {
    putGauge("a", {100}, "2024-05-01");
    putGauge("a", {100}, "2024-05-02");
    putGauge("b", {100}, "2024-05-02");
    bool isAgain = false;
    const ChildReport report = replay("a=1", [this, &isAgain] {
        if (!isAgain) {
            isAgain = true;
            continueJob(1, "b=2");
            Message again;
            again.construct(232, "iS", 1, "b=2");
            bus.transport().deliver("StorageManager.to", {again.buffer(), again.length()});
            return;
        }
        acknowledgeLast();
    });
    EXPECT_EQ(blocksOf(report),
              (QList<QByteArray>{padded(statusItem(1, 1), 32), padded(statusItem(1, 1), 32)}));
    EXPECT_EQ(report.lines, QList<QByteArray>{kLaunched});
    EXPECT_EQ(report.status, 0);
}

TEST_F(ReplayAcknowledgementTest, AQuitInsideTheWaitLeavesTheReplayForTheLoopToEnd) {
    putGauge("1", {100}, "2024-05-01");
    putGauge("1", {100}, "2024-05-02");
    const ChildReport report = replay("1=1", [this] {
        Message quit;
        quit.construct(1, "");
        bus.transport().deliver("StorageManager.to", {quit.buffer(), quit.length()});
    });
    EXPECT_EQ(report.status, ForkObserver::kWentOn);
    EXPECT_EQ(blocksOf(report).size(), 1);
    EXPECT_EQ(report.lines.last(),
              "scada-storage-process: scada-storage-process: processMessage QUIT");
}

TEST_F(ReplayAcknowledgementTest, AWorkerIsAbandonedWhenItWasToldNothingForMoreThan600Seconds) {
    const ChildReport report = worker("no start", [this] {
        const auto tell = [this](const char* when) {
            DebugText::plain("%s: %s", when, manager.isAbandoned() ? "abandoned" : "kept");
        };
        tell("at once");
        clock.tick += 600'000;
        tell("after 600 s");
        clock.tick += 1;
        tell("and a millisecond");
        continueJob(1, "");
        tell("continued");
        clock.tick += 600'000;
        tell("600 s later");
        continueJob(2, "");
        clock.tick += 1;
        tell("another job continued");
    });
    EXPECT_EQ(
        report.lines.first(7).mid(1, 5),
        (QList<QByteArray>{"at once: kept", "after 600 s: kept", "and a millisecond: abandoned",
                           "continued: kept", "600 s later: kept"}));
    EXPECT_EQ(report.lines.last(), "another job continued: abandoned");
    EXPECT_FALSE(manager.isAbandoned());
}

TEST_F(ReplayAcknowledgementTest, ALostBrokerIsWaitedForAndTheReplayTimesOut) {
    putGauge("1", {100});
    const ChildReport report = replay("1=1", [this] {
        bus.transport().setBrokerPresent(false);
        clock.advance(10);
    });
    EXPECT_EQ(report.status, 0);
}

}  // namespace

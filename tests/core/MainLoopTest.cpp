#include "core/MainLoop.h"

#include "core/shared/ReapedChildren.h"
#include "filesystem/FileProtocol.h"
#include "tests/core/DaemonFixture.h"
#include "tests/support/ForkStandIn.h"

namespace {

constexpr char kLoopLine[] = "scada-storage-process: loop";
constexpr char kAbortingLine[] = "scada-storage-process: no keepalive, aborting...";

/// Does in each slice what the test says.
class SliceJob : public RemoteJob {
public:
    explicit SliceJob(std::function<void(SliceJob&)> slice)
        : RemoteJob(g_remoteManager, 1), _slice(std::move(slice)) {}
    void runSlice() override { _slice(*this); }
    void close() { _needsToClose = true; }

private:
    std::function<void(SliceJob&)> _slice;
};

class MainLoopTest : public DaemonFixture {
protected:
    /// A job that does nothing else than being idle, so that a pass shows how it waits.
    void settleActivity() { g_lastJobActivity = g_remoteManager->lastActivity(); }

    MainLoop loop;
};

TEST_F(MainLoopTest, APassGoesOnWhileKeepalivesCome) {
    for (int pass = 0; pass < 5; ++pass) {
        clock.advance(10);
        receive("Message.ExtProc.to.1", wire(0, ""));
        EXPECT_TRUE(loop.runPass());
    }
    EXPECT_EQ(g_runState.exitCode, 0);
    EXPECT_EQ(bus.takeSent().size(), 5);
}

TEST_F(MainLoopTest, AKeepaliveGapOfExactly15SecondsDoesNotFireTheWatchdog) {
    clock.advance(15);
    EXPECT_TRUE(loop.runPass());
    EXPECT_FALSE(log.contains(kAbortingLine));
    EXPECT_EQ(g_runState.exitCode, 0);
}

TEST_F(MainLoopTest, AKeepaliveGapOf16SecondsFiresTheWatchdog) {
    clock.advance(16);
    EXPECT_FALSE(loop.runPass());
    EXPECT_EQ(log.lines(), (QList<QByteArray>{kLoopLine, kAbortingLine}));
    EXPECT_EQ(g_runState.exitCode, -7);
}

TEST_F(MainLoopTest, TheRestOfThePassIsLeftOutWhenTheWatchdogFires) {
    bool sliced = false;
    g_remoteManager->addJob(new SliceJob([&](SliceJob&) { sliced = true; }));
    clock.advance(16);
    loop.runPass();
    EXPECT_FALSE(sliced);
    EXPECT_TRUE(bus.transport().waits.isEmpty());
}

TEST_F(MainLoopTest, AKeepaliveThatWaitsUnreadKeepsTheWatchdogFromFiring) {
    bus.transport().deliver("Message.ExtProc.to.1", wire(0, ""));
    clock.advance(60);
    EXPECT_TRUE(loop.runPass());
    EXPECT_EQ(bus.takeSent().size(), 1) << "the keep-alive was not answered in the same pass";
    clock.advance(15);
    EXPECT_TRUE(loop.runPass());
}

TEST_F(MainLoopTest, AKeepaliveInTheQueueKeepsTheWatchdogFromFiring) {
    receive("Message.ExtProc.to.1", wire(0, ""));
    clock.advance(60);
    EXPECT_TRUE(loop.runPass());
}

TEST_F(MainLoopTest, AKeepaliveBehindThousandsOfRequestsIsFound) {
    for (int i = 0; i < 5000; ++i) {
        bus.transport().deliver("Message.storage", framed(7, wire(99, "")));
    }
    bus.transport().deliver("Message.ExtProc.to.1", wire(0, ""));
    clock.advance(60);
    EXPECT_TRUE(loop.runPass());
    EXPECT_EQ(bus.takeSent().size(), 1);
}

TEST_F(MainLoopTest, OtherMessagesDoNotKeepTheWatchdogFromFiring) {
    bus.transport().deliver("StorageManager.to", wire(234, "ii", 1, 1));
    bus.transport().deliver("Message.ExtProc.to.1", QByteArray(2, '\0'));
    clock.advance(16);
    EXPECT_FALSE(loop.runPass());
}

TEST_F(MainLoopTest, WhatTheWatchdogTookInIsDispatchedWithoutAWait) {
    bus.transport().deliver("Message.ExtProc.to.1", wire(0, ""));
    clock.advance(60);
    loop.runPass();
    // The bus was not asked to wait at all: a wake-up was pending.
    EXPECT_TRUE(bus.transport().waits.isEmpty());
}

TEST_F(MainLoopTest, ALateKeepaliveIsNoticedAfterTheLongWait) {
    settleActivity();
    clock.tick += 20'000;
    g_runState.noteKeepalive();
    bus.transport().onWait = [this](int milliseconds) {
        clock.advance(milliseconds / 1000);
        bus.transport().onWait = nullptr;
    };
    EXPECT_TRUE(loop.runPass());
    EXPECT_EQ(bus.transport().waits, QList<int>{25'000});
    EXPECT_FALSE(loop.runPass());
    EXPECT_EQ(g_runState.exitCode, -7);
}

TEST_F(MainLoopTest, WithNoTrafficAndNoJobsAPassWaits25Seconds) {
    clock.tick = 10'000;
    EXPECT_TRUE(loop.runPass());
    EXPECT_EQ(bus.transport().waits, QList<int>{25'000});
}

TEST_F(MainLoopTest, AfterAJobHasRunTheNextWaitIs1Ms) {
    g_remoteManager->addJob(new SliceJob([](SliceJob& job) { job.hadActivity(); }));
    EXPECT_TRUE(loop.runPass());
    clock.tick += 30;
    EXPECT_TRUE(loop.runPass());
    EXPECT_EQ(bus.transport().waits, (QList<int>{1, 1}));
}

TEST_F(MainLoopTest, AJobThatMadeNoProgressWaitsByItsIdleTime) {
    g_remoteManager->addJob(new SliceJob([](SliceJob&) {}));
    loop.runPass();
    clock.tick += 499;
    loop.runPass();
    clock.tick += 1;
    loop.runPass();
    EXPECT_EQ(bus.transport().waits, (QList<int>{1, 50, 1'000}));
}

TEST_F(MainLoopTest, AJobSliceThatFailsEndsTheJobAndNotTheLoop) {
    g_remoteManager->addJob(new SliceJob([](SliceJob&) { throw std::bad_alloc(); }));
    EXPECT_TRUE(loop.runPass());
    EXPECT_TRUE(g_remoteManager->jobs().isEmpty());
}

TEST_F(MainLoopTest, IdleHandlesExpireInAPass) {
    receive("Message.storage", framed(7, wire(MESSAGE_FILE_OPEN, "Si", "/root/data/a", 3)));
    loop.runPass();
    const QList<FakeBus::Sent> opened = bus.takeSent();
    ASSERT_EQ(opened.size(), 1);
    const int handle = opened[0].message.parameterAsInt32(1);
    ASSERT_GE(handle, 0);
    clock.advance(31);
    receive("Message.ExtProc.to.1", wire(0, ""));
    loop.runPass();
    bus.takeSent();
    receive("Message.storage", framed(7, wire(MESSAGE_FILE_CLOSE, "i", handle)));
    loop.runPass();
    const QList<FakeBus::Sent> closed = bus.takeSent();
    ASSERT_EQ(closed.size(), 1);
    EXPECT_EQ(closed[0].message.parameterCount(), 0) << "the handle was still open";
}

TEST_F(MainLoopTest, APassStartsTheNextThumbnailDayBetweenTheSlicesAndTheWait) {
    QList<QByteArray> order;
    g_remoteManager->addJob(new SliceJob([&](SliceJob&) { order.append("slice"); }));
    FakeThumbnails::child = [&] {
        order.append("day");
        return FakeThumbnails::kNobody;
    };
    bus.transport().onWait = [&](int) { order.append("wait"); };
    ThumbnailSchedule::request("a", "2024-05-01");
    EXPECT_TRUE(loop.runPass());
    EXPECT_EQ(order, (QList<QByteArray>{"slice", "day", "wait"}));
}

TEST_F(MainLoopTest, ADayThatIsFinishedInsideTheWaitLetsTheNextOneStartInTheNextPass) {
    ThumbnailSchedule::request("a", "2024-05-01");
    ThumbnailSchedule::request("a", "2024-05-02");
    bus.transport().deliver("ThumbnailManager.dayFinished", QByteArray("2024-05-01", 11));
    loop.runPass();
    EXPECT_EQ(FakeThumbnails::started.size(), 1);
    loop.runPass();
    EXPECT_EQ(FakeThumbnails::started.size(), 2);
}

TEST_F(MainLoopTest, ALookupWaitsAsLongAsEightAreBusy) {
    const ForkStandIn fork(ForkStandIn::Outcome::IsBusy);
    for (int i = 0; i < 9; ++i) {
        g_pHistoricalDataManager->lookup("a", 0, 0, "2024-05-01", "10:00:00", "G");
    }
    ASSERT_EQ(fork.count(), 8);
    EXPECT_TRUE(loop.runPass());
    EXPECT_EQ(fork.count(), 8);
}

TEST_F(MainLoopTest, ALookupThatWaitsIsStartedInTheFirstPassWithRoom) {
    const ForkStandIn fork(ForkStandIn::Outcome::Works);
    int gate[2];
    ASSERT_EQ(pipe(gate), 0);
    for (int i = 0; i < 9; ++i) {
        ChildPools::g_lookupsAndListings.run([&gate] {
            close(gate[1]);
            char byte = 0;
            while (read(gate[0], &byte, 1) > 0) {
            }
            ForkedChild::end();
        });
    }
    EXPECT_TRUE(loop.runPass());
    EXPECT_EQ(fork.count(), 8);
    close(gate[1]);
    siginfo_t info{};
    ASSERT_EQ(waitid(P_ALL, 0, &info, WEXITED | WNOWAIT), 0);
    ReapedChildren::reap();
    QList<int> forks;
    FakeThumbnails::child = [&] {
        forks.append(fork.count());
        return FakeThumbnails::kNobody;
    };
    bus.transport().onWait = [&](int) { forks.append(fork.count()); };
    ThumbnailSchedule::request("a", "2024-05-01");
    EXPECT_TRUE(loop.runPass());
    EXPECT_EQ(forks.first(), 8) << "it is the thumbnails' turn first";
    EXPECT_EQ(forks.last(), 9) << "and then the wait's";
    while (waitpid(-1, nullptr, 0) > 0) {
    }
    close(gate[0]);
}

TEST_F(MainLoopTest, NoThumbnailDayStartsWhenTheWatchdogFires) {
    ThumbnailSchedule::request("a", "2024-05-01");
    clock.advance(16);
    loop.runPass();
    EXPECT_TRUE(FakeThumbnails::started.isEmpty());
}

TEST_F(MainLoopTest, LoopIsLoggedOncePerSecond) {
    loop.runPass();
    EXPECT_EQ(log.count(kLoopLine), 0) << "the second of the start is logged already";
    clock.advance(1);
    loop.runPass();
    loop.runPass();
    EXPECT_EQ(log.count(kLoopLine), 1);
    clock.advance(1);
    loop.runPass();
    EXPECT_EQ(log.count(kLoopLine), 2);
}

TEST_F(MainLoopTest, LoopIsLoggedWhenTheWallClockStepsBackToo) {
    clock.wall -= 1000;
    loop.runPass();
    EXPECT_EQ(log.count(kLoopLine), 1);
}

TEST_F(MainLoopTest, TheLoopEndsAtItsNextLookAfterAQuit) {
    receive("StorageManager.to", wire(1, ""));
    receive("Message.ExtProc.to.1", wire(0, ""));
    loop.run();
    EXPECT_TRUE(g_quit);
    EXPECT_EQ(bus.takeSent().size(), 1);
    EXPECT_EQ(bus.transport().waits.size(), 1);
}

TEST_F(MainLoopTest, TheLoopDoesNoPassWhenQuitIsSet) {
    g_quit = true;
    loop.run();
    EXPECT_TRUE(bus.transport().waits.isEmpty());
}

TEST_F(MainLoopTest, TheLoopEndsWhenTheWatchdogFires) {
    bus.transport().onWait = [this](int) { clock.advance(6); };
    loop.run();
    EXPECT_EQ(bus.transport().waits.size(), 3);
    EXPECT_EQ(g_runState.exitCode, -7);
    EXPECT_FALSE(g_quit);
}

}  // namespace

#include "core/shared/MessageQueue.h"

#include "bus/ForkedChild.h"
#include "tests/support/FakeBus.h"
#include "tests/support/FakeClock.h"

#include <gtest/gtest.h>

#include <QMutexLocker>

#include <malloc.h>
#include <sys/wait.h>

#include <functional>

namespace {

struct WaitRow {
    quint32 idle;
    int wait;
    const char* name;
};

void PrintTo(const WaitRow& row, std::ostream* out) {
    *out << row.idle << " ms idle";
}

class BusWait : public testing::TestWithParam<WaitRow> {};

TEST_P(BusWait, IsTheTables) {
    EXPECT_EQ(busWaitForIdle(GetParam().idle), GetParam().wait);
}

INSTANTIATE_TEST_SUITE_P(Borders, BusWait,
                         testing::Values(WaitRow{0, 50, "Is50MsAtOnce"},
                                         WaitRow{499, 50, "Is50MsAt499MsIdle"},
                                         WaitRow{500, 1'000, "Is1000MsAt500MsIdle"},
                                         WaitRow{1'999, 1'000, "Is1000MsAt1999MsIdle"},
                                         WaitRow{2'000, 2'000, "Is2000MsAt2000MsIdle"},
                                         WaitRow{4'999, 2'000, "Is2000MsAt4999MsIdle"},
                                         WaitRow{5'000, 10'000, "Is10000MsAt5000MsIdle"},
                                         WaitRow{9'999, 10'000, "Is10000MsAt9999MsIdle"},
                                         WaitRow{10'000, 25'000, "Is25000MsAt10000MsIdle"},
                                         WaitRow{863'999'999, 25'000, "Is25000MsJustBelowTenDays"},
                                         WaitRow{864'000'000, -1, "KEPTIsNoneFromTenDaysOn"},
                                         WaitRow{0xffff'ffffU, -1, "IsNoneAtTheLargestIdleTime"}),
                         [](const testing::TestParamInfo<WaitRow>& row) {
                             return std::string(row.param.name);
                         });

std::function<void(Message&)> g_onDispatch;
QList<int> g_dispatched;
quint32 g_activity = 0;

bool dispatch(Message& message) {
    g_dispatched.append(message.command());
    if (g_onDispatch) {
        g_onDispatch(message);
    }
    return true;
}

quint32 jobActivity() {
    return g_activity;
}

void enqueueDelivery(void*, PubSubMessage* delivery) {
    auto* message = new Message;
    message->construct(delivery->data, delivery->length);
    g_waitingMessages.append(message);
}

void enqueue(int command) {
    auto* message = new Message;
    message->construct(command, "");
    g_waitingMessages.append(message);
}

QByteArray wire(int command) {
    Message message;
    message.construct(command, "");
    return {message.buffer(), message.length()};
}

class Drain : public testing::Test {
protected:
    Drain() {
        bus.bus().addWantedToken("t");
        setDrainHooks({dispatch, jobActivity});
        g_activity = g_lastJobActivity = clock.tick;
        g_dispatched.clear();
        g_onDispatch = nullptr;
        bus.transport().waits.clear();
    }
    ~Drain() override {
        setDrainHooks({});
        dropWaitingMessages();
        g_lastJobActivity = 0;
    }

    /// Runs `what` in a forked child; its exit status says whether all its checks held.
    static bool holdsInChild(const std::function<bool()>& what) {
        const pid_t child = fork();
        if (child == 0) {
            _exit(what() ? 0 : 1);
        }
        int status = -1;
        waitpid(child, &status, 0);
        return status == 0;
    }

    FakeClock clock;
    FakeBus bus{enqueueDelivery};
};

TEST_F(Drain, WaitsOneMillisecondWhenTheJobsWereActive) {
    g_activity = clock.tick - 700;
    processWaitingMessages();
    EXPECT_EQ(bus.transport().waits, QList<int>{1});
    EXPECT_EQ(g_lastJobActivity, g_activity);
}

TEST_F(Drain, WaitsByTheIdleTimeWhenTheyWereNot) {
    for (const quint32 idle : {499U, 500U, 2'000U, 5'000U, 10'000U}) {
        clock.tick = g_lastJobActivity + idle;
        processWaitingMessages();
    }
    EXPECT_EQ(bus.transport().waits, (QList<int>{50, 1'000, 2'000, 10'000, 25'000}));
}

TEST_F(Drain, CountsTheIdleTimeAcrossTheWrapOfTheTicks) {
    g_activity = g_lastJobActivity = 0xffff'ff00U;
    clock.tick = 0x100U;
    processWaitingMessages();
    EXPECT_EQ(bus.transport().waits, QList<int>{1'000});
}

TEST_F(Drain, KEPTFromTenDaysIdleOnDoesNotWaitOnTheBusAndStillTakesInWhatArrived) {
    clock.tick = g_lastJobActivity + 864'000'000U;
    bus.transport().deliver("t", wire(5));
    processWaitingMessages();
    EXPECT_TRUE(bus.transport().waits.isEmpty());
    EXPECT_EQ(g_dispatched, QList<int>{5});
}

TEST_F(Drain, KEPTFromTenDaysIdleOnAPassWithNothingArrivedNapsInsteadOfSpinning) {
    clock.tick = g_lastJobActivity + 864'000'000U;
    PubSubInterface::wake();
    processWaitingMessages();
    const Clock real;
    const quint32 before = real.ticksNow();
    processWaitingMessages();
    EXPECT_GE(real.ticksNow() - before, 49U) << "a wake-up is good for one pass only";
    EXPECT_TRUE(bus.transport().waits.isEmpty());
}

TEST_F(Drain, AWakeUpOrADeliveryEndsTheNapOfTheTenDayRow) {
    clock.tick = g_lastJobActivity + 864'000'000U;
    const Clock real;
    const quint32 before = real.ticksNow();
    for (int pass = 0; pass < 100; ++pass) {
        if (pass % 2 == 0) {
            PubSubInterface::wake();
        } else {
            bus.transport().deliver("t", wire(5));
        }
        processWaitingMessages();
    }
    EXPECT_LT(real.ticksNow() - before, 50U * 50U);
    EXPECT_TRUE(bus.transport().waits.isEmpty());
}

TEST_F(Drain, DispatchesTwoMessagesOfOneWaitInArrivalOrder) {
    bus.transport().onWait = [this](int) {
        bus.transport().deliver("t", wire(5));
        bus.transport().deliver("t", wire(6));
    };
    processWaitingMessages();
    EXPECT_EQ(g_dispatched, (QList<int>{5, 6}));
    EXPECT_TRUE(g_waitingMessages.isEmpty());
}

// The address sanitizer has its own heap, and finds what is not freed by itself.
#if !defined(__SANITIZE_ADDRESS__)
std::size_t heapBytesInUse() {
    const auto heap = mallinfo2();
    return heap.uordblks + heap.hblkhd;
}

TEST_F(Drain, FreesBothMessagesOfOneWaitAfterTheirDispatch) {
    constexpr std::size_t kBlockBytes = 1 << 20;
    for (int i = 0; i < 2; ++i) {
        const QByteArray block(kBlockBytes, 'x');
        auto* message = new Message;
        message->construct(5, "B", int(block.size()), block.constData());
        g_waitingMessages.append(message);
    }
    const std::size_t queued = heapBytesInUse();
    std::size_t atSecond = 0;
    g_onDispatch = [&](Message&) { atSecond = heapBytesInUse(); };
    processWaitingMessages();
    EXPECT_LE(atSecond + kBlockBytes, queued + 10'000) << "the first outlived its dispatch";
    EXPECT_LE(heapBytesInUse() + 2 * kBlockBytes, queued + 10'000);
}
#endif

TEST_F(Drain, KEPTTheMutexBesideTheQueueIsNeverTaken) {
    const QMutexLocker taken(&g_waitingMessagesMutex);
    bus.transport().deliver("t", wire(5));
    processWaitingMessages();
    EXPECT_EQ(g_dispatched, QList<int>{5});
}

TEST_F(Drain, EmptiesTheQueueBeforeTheFirstDispatch) {
    enqueue(5);
    enqueue(6);
    qsizetype waitingAtDispatch = -1;
    g_onDispatch = [&](Message&) { waitingAtDispatch = g_waitingMessages.size(); };
    processWaitingMessages();
    EXPECT_EQ(waitingAtDispatch, 0);
}

TEST_F(Drain, AMessageQueuedByADispatchWaitsForTheNextDrain) {
    enqueue(5);
    g_onDispatch = [](Message& message) {
        if (message.command() == 5) {
            enqueue(6);
        }
    };
    processWaitingMessages();
    EXPECT_EQ(g_dispatched, QList<int>{5});
    processWaitingMessages();
    EXPECT_EQ(g_dispatched, (QList<int>{5, 6}));
}

TEST_F(Drain, ANestedDrainSeesOnlyWhatArrivedSinceAndEachMessageIsDispatchedOnce) {
    enqueue(5);
    enqueue(6);
    g_onDispatch = [](Message& message) {
        if (message.command() == 5) {
            enqueue(7);
            processWaitingMessages();
        }
    };
    processWaitingMessages();
    EXPECT_EQ(g_dispatched, (QList<int>{5, 7, 6}));
}

TEST_F(Drain, AMessageIsWholeWhileItsDispatchDrainsAgain) {
    enqueue(5);
    int commandAfterwards = 0;
    g_onDispatch = [&](Message& message) {
        if (message.command() == 5) {
            enqueue(7);
            processWaitingMessages();
            commandAfterwards = message.command();
        }
    };
    processWaitingMessages();
    EXPECT_EQ(commandAfterwards, 5);
}

TEST_F(Drain, AChildThatAMessageForkedDropsTheRestOfTheBatch) {
    for (const int command : {5, 6, 7}) {
        enqueue(command);
    }
    bool isChild = false;
    int childStatus = -1;
    g_onDispatch = [&](Message& message) {
        if (message.command() != 5) {
            return;
        }
        const pid_t child = ForkedChild::start();
        isChild = child == 0;
        if (!isChild) {
            waitpid(child, &childStatus, 0);
        }
    };
    processWaitingMessages();
    if (isChild) {
        _exit(g_dispatched == QList<int>{5} ? 0 : 1);
    }
    EXPECT_EQ(childStatus, 0) << "the child dispatched more than the message that forked it";
    EXPECT_EQ(g_dispatched, (QList<int>{5, 6, 7}));
}

TEST_F(Drain, AChildForkedInANestedDrainDropsTheOuterBatchToo) {
    const bool held = holdsInChild([] {
        enqueue(5);
        enqueue(6);
        g_onDispatch = [](Message& message) {
            if (message.command() == 5) {
                enqueue(7);
                enqueue(8);
                processWaitingMessages();
            }
            if (message.command() != 7) {
                return;
            }
            const pid_t child = ForkedChild::start();
            int status = 0;
            if (child > 0 && (waitpid(child, &status, 0) != child || status != 0)) {
                _exit(2);
            }
        };
        const unsigned generation = ForkedChild::generation();
        processWaitingMessages();
        if (ForkedChild::generation() != generation) {
            _exit(g_dispatched == QList<int>{5, 7} ? 0 : 1);
        }
        return g_dispatched == QList<int>{5, 7, 8, 6};
    });
    EXPECT_TRUE(held);
}

TEST_F(Drain, TenForkingMessagesOfOneBatchMakeTenChildren) {
    for (int command = 1; command <= 10; ++command) {
        enqueue(command);
    }
    const unsigned generation = ForkedChild::generation();
    QList<pid_t> children;
    g_onDispatch = [&](Message&) { children.append(ForkedChild::start()); };
    processWaitingMessages();
    if (ForkedChild::generation() != generation) {
        _exit(children.count(0) == 1 && ForkedChild::generation() == generation + 1 ? 0 : 1);
    }
    EXPECT_EQ(children.size(), 10);
    for (const pid_t child : std::as_const(children)) {
        int status = -1;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
    }
}

TEST_F(Drain, DroppedMessagesAreFreedUndispatched) {
    enqueue(5);
    enqueue(6);
    dropWaitingMessages();
    EXPECT_TRUE(g_waitingMessages.isEmpty());
    processWaitingMessages();
    EXPECT_TRUE(g_dispatched.isEmpty());
}

TEST_F(Drain, WithoutHooksMessagesAreFreedAndNoJobActivityIsSeen) {
    setDrainHooks({});
    enqueue(5);
    clock.tick = g_lastJobActivity + 600;
    processWaitingMessages();
    EXPECT_TRUE(g_waitingMessages.isEmpty());
    EXPECT_TRUE(g_dispatched.isEmpty());
    EXPECT_EQ(bus.transport().waits, QList<int>{1'000});
}

TEST(DrainWithoutABus, DispatchesWhatIsQueued) {
    setDrainHooks({dispatch, nullptr});
    g_dispatched.clear();
    g_onDispatch = nullptr;
    enqueue(5);
    processWaitingMessages();
    EXPECT_EQ(g_dispatched, QList<int>{5});
    setDrainHooks({});
}

}  // namespace

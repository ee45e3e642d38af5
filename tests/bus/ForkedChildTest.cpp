#include "bus/ForkedChild.h"

#include "bus/DebugText.h"
#include "bus/Wakeup.h"
#include "tests/support/FakeBus.h"
#include "tests/support/FakeClock.h"
#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

int statusOf(pid_t child) {
    int status = -1;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool isWakeUpPending() {
    pollfd wanted{Wakeup::descriptor(), POLLIN, 0};
    return poll(&wanted, 1, 0) > 0;
}

TEST(ForkedChildTest, ReturnsInBothProcesses) {
    const pid_t parent = getpid();
    const pid_t child = ForkedChild::start();
    if (child == 0) {
        _exit(getppid() == parent ? 7 : 8);
    }
    ASSERT_GT(child, 0);
    EXPECT_EQ(statusOf(child), 7);
}

TEST(ForkedChildTest, AChildEndsWithStatus0AndRunsNoExitHandler) {
    const pid_t child = ForkedChild::start();
    if (child == 0) {
        std::atexit([] { _exit(9); });
        ForkedChild::end();
    }
    EXPECT_EQ(statusOf(child), 0);
}

TEST(ForkedChildTest, GenerationGrowsInTheChildAndStaysInTheParent) {
    const unsigned before = ForkedChild::generation();
    const pid_t child = ForkedChild::start();
    if (child == 0) {
        const pid_t grandchild = ForkedChild::start();
        if (grandchild == 0) {
            _exit(ForkedChild::generation() == before + 2 ? 0 : 1);
        }
        _exit(ForkedChild::generation() == before + 1 && statusOf(grandchild) == 0 ? 0 : 1);
    }
    EXPECT_EQ(statusOf(child), 0);
    EXPECT_EQ(ForkedChild::generation(), before);
}

TEST(ForkedChildTest, AForkOfAnybodysIsNoticed) {
    const unsigned before = ForkedChild::generation();
    const pid_t child = fork();
    if (child == 0) {
        _exit(ForkedChild::generation() == before + 1 ? 0 : 1);
    }
    EXPECT_EQ(statusOf(child), 0);
}

TEST(ForkedChildTest, WhatIsQueuedIsHandedOverBeforeTheFork) {
    FakeBus bus;
    bus.transport().brokerReads = false;
    ASSERT_TRUE(bus.bus().sendToken("a", "x", 1));
    ASSERT_TRUE(bus.bus().sendToken("a", "", 0));
    ASSERT_GT(bus.transport().bytesWaiting(), 0U);
    bus.transport().onWrite = [&](int) { bus.transport().brokerReads = true; };
    const pid_t child = ForkedChild::start();
    if (child == 0) {
        _exit(bus.transport().bytesWaiting() == 0 ? 0 : 1);
    }
    EXPECT_EQ(statusOf(child), 0);
    EXPECT_EQ(bus.transport().bytesWaiting(), 0U);
}

TEST(ForkedChildTest, AWakeUpDoesNotCrossTheForkInEitherDirection) {
    Wakeup::clear();
    Wakeup::raise();
    const pid_t child = ForkedChild::start();
    if (child == 0) {
        const bool inherited = isWakeUpPending();
        Wakeup::raise();
        _exit(!inherited && isWakeUpPending() ? 0 : 1);
    }
    EXPECT_EQ(statusOf(child), 0);
    EXPECT_TRUE(isWakeUpPending());
    Wakeup::clear();

    const pid_t second = ForkedChild::start();
    if (second == 0) {
        Wakeup::raise();
        _exit(0);
    }
    EXPECT_EQ(statusOf(second), 0);
    EXPECT_FALSE(isWakeUpPending());
}

TEST(ForkedChildTest, SuppressedRepeatsAreTheParentsToWrite) {
    const FakeClock clock;
    LogCapture log;
    DebugText::forgetRepeats();
    for (int i = 0; i < 150; ++i) {
        DebugText::plain("same");
    }
    const pid_t child = ForkedChild::start();
    if (child == 0) {
        log.clear();
        DebugText::flushRepeats();
        _exit(log.lines().isEmpty() ? 0 : 1);
    }
    EXPECT_EQ(statusOf(child), 0);
    DebugText::flushRepeats();
    EXPECT_EQ(log.count("same (and 50 more of this kind)"), 1);
}

TEST(ForkedChildTest, AChildOverwritesNothingOfTheParentsConnection) {
    FakeBus bus;
    bus.bus().addWantedToken("a");
    const pid_t child = ForkedChild::start();
    if (child == 0) {
        const bool sent = bus.bus().sendToken("b", "x", 1);
        const bool ownConnection = bus.transport().connects() == 2;
        // It receives nothing: its own connection has no subscription.
        const bool silent = bus.transport().subscriptions().isEmpty();
        const bool rejoined = bus.bus().rejoin();
        const bool listens = bus.transport().subscriptions() == QList<QByteArray>{"a"};
        _exit(sent && ownConnection && silent && rejoined && listens ? 0 : 1);
    }
    EXPECT_EQ(statusOf(child), 0);
    EXPECT_EQ(bus.transport().connects(), 1);
    EXPECT_TRUE(bus.bus().isConnected());
}

}  // namespace

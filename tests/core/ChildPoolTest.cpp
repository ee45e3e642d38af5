#include "core/shared/ChildPool.h"

#include "bus/DebugText.h"
#include "bus/ForkedChild.h"
#include "core/shared/ReapedChildren.h"
#include "tests/support/ForkStandIn.h"
#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <new>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr char kTooMany[] = "scada-storage-process: too many children, request dropped";
constexpr char kNoChild[] = "scada-storage-process: no child, request dropped";

/// Children that write their letter and live until the gate is opened.
class ChildPoolTest : public testing::Test {
protected:
    ChildPoolTest() {
        EXPECT_EQ(pipe2(_letters, O_CLOEXEC), 0);
        EXPECT_EQ(pipe2(_gate, O_CLOEXEC), 0);
        ChildPools::forget();
    }

    ~ChildPoolTest() override {
        openGate();
        while (waitpid(-1, nullptr, 0) > 0) {
        }
        close(_letters[0]);
        close(_letters[1]);
        ChildPools::forget();
    }

    ChildPool::Work lives(char letter) {
        return [this, letter] {
            say(letter);
            close(_gate[1]);
            char byte = 0;
            while (read(_gate[0], &byte, 1) > 0) {
            }
            ForkedChild::end();
        };
    }

    ChildPool::Work says(char letter) {
        return [this, letter] {
            say(letter);
            ForkedChild::end();
        };
    }

    void say(char letter) const {
        if (write(_letters[1], &letter, 1) != 1) {
            _exit(1);
        }
    }

    /// The letters of the next `count` children, as they come.
    QByteArray letters(int count) const {
        QByteArray result(count, '?');
        for (char& letter : result) {
            EXPECT_EQ(read(_letters[0], &letter, 1), 1);
        }
        return result;
    }

    void openGate() {
        for (int& end : _gate) {
            if (end >= 0) {
                close(end);
            }
            end = -1;
        }
    }

    /// As the signal handler does, but waiting for as many.
    static void reap(int count) {
        for (int reaped = 0; reaped < count;) {
            siginfo_t info{};
            ASSERT_EQ(waitid(P_ALL, 0, &info, WEXITED | WNOWAIT), 0);
            reaped += ReapedChildren::reap();
        }
    }

    QList<QByteArray> drops() const {
        QList<QByteArray> lines = log.lines();
        lines.removeAll("sigchild waitpid loop");
        return lines;
    }

    LogCapture log;
    ForkStandIn fork{ForkStandIn::Outcome::Works};

private:
    int _letters[2];
    int _gate[2];
};

TEST_F(ChildPoolTest, WorkRunsInAChildAtOnce) {
    ChildPool pool(2, 2);
    pool.run(says('a'));
    EXPECT_EQ(fork.count(), 1);
    EXPECT_EQ(letters(1), "a");
    reap(1);
    EXPECT_EQ(ForkedChild::generation(), 0U);
}

TEST_F(ChildPoolTest, NoMoreRunAtOnceThanTheLimit) {
    ChildPool pool(3, 10);
    for (const char letter : {'a', 'b', 'c', 'd', 'e'}) {
        pool.run(lives(letter));
    }
    EXPECT_EQ(fork.count(), 3);
    pool.startWaiting();
    EXPECT_EQ(fork.count(), 3) << "nobody has ended";
}

TEST_F(ChildPoolTest, WhatWaitsIsStartedInItsOrderWhenAChildHasEnded) {
    ChildPool pool(1, 10);
    for (const char letter : {'a', 'b', 'c', 'd'}) {
        pool.run(says(letter));
    }
    EXPECT_EQ(letters(1), "a");
    for (const char* letter : {"b", "c", "d"}) {
        reap(1);
        pool.startWaiting();
        EXPECT_EQ(letters(1), letter);
    }
    EXPECT_EQ(fork.count(), 4);
    EXPECT_TRUE(drops().isEmpty());
}

TEST_F(ChildPoolTest, NewWorkDoesNotOvertakeWhatWaits) {
    ChildPool pool(1, 10);
    pool.run(says('a'));
    pool.run(says('b'));
    reap(1);
    pool.run(says('c'));
    EXPECT_EQ(fork.count(), 1) << "there is room, but for the one that waits";
    pool.startWaiting();
    EXPECT_EQ(letters(2), "ab");
    reap(1);
    pool.startWaiting();
    EXPECT_EQ(letters(1), "c");
}

TEST_F(ChildPoolTest, AsManyAreStartedAsThereIsRoomFor) {
    ChildPool pool(2, 10);
    for (const char letter : {'a', 'b', 'c', 'd', 'e'}) {
        pool.run(says(letter));
    }
    reap(2);
    pool.startWaiting();
    EXPECT_EQ(fork.count(), 4);
    reap(2);
    pool.startWaiting();
    EXPECT_EQ(fork.count(), 5);
}

TEST_F(ChildPoolTest, WorkBeyondWhatMayWaitIsDroppedWithALine) {
    ChildPool pool(1, 2);
    for (const char letter : {'a', 'b', 'c', 'd', 'e'}) {
        pool.run(lives(letter));
    }
    EXPECT_EQ(drops(), (QList<QByteArray>{kTooMany, kTooMany}));
    EXPECT_EQ(letters(1), "a");
    for (const char* letter : {"b", "c"}) {
        openGate();
        reap(1);
        pool.startWaiting();
        EXPECT_EQ(letters(1), letter);
    }
    reap(1);
    pool.startWaiting();
    EXPECT_EQ(fork.count(), 3);
}

TEST_F(ChildPoolTest, WithoutWaitingWorkBeyondTheLimitIsDropped) {
    ChildPool pool(1, 0);
    pool.run(says('a'));
    pool.run(says('b'));
    EXPECT_EQ(drops(), QList<QByteArray>{kTooMany});
    reap(1);
    pool.run(says('c'));
    EXPECT_EQ(letters(2), "ac");
}

TEST_F(ChildPoolTest, TheLimitsOfTheDaemonsPools) {
    const std::tuple<ChildPool*, int, int> pools[] = {
        {&ChildPools::g_lookupsAndListings, 8, 64},
        {&ChildPools::g_invalidLookups, 4, 0},
        {&ChildPools::g_replayWorkers, 8, 0},
    };
    int forks = 0;
    for (const auto& [pool, running, waiting] : pools) {
        for (int i = 0; i < 200; ++i) {
            pool->run(lives('x'));
        }
        forks += running;
        EXPECT_EQ(fork.count(), forks);
        DebugText::flushRepeats();
    }
    EXPECT_EQ(forks, 20);
}

TEST_F(ChildPoolTest, SixtyFourLookupsWaitAndNotOneMore) {
    for (int i = 0; i < 8 + 64; ++i) {
        ChildPools::g_lookupsAndListings.run(lives('x'));
    }
    EXPECT_TRUE(drops().isEmpty());
    ChildPools::g_lookupsAndListings.run(lives('x'));
    EXPECT_EQ(drops(), QList<QByteArray>{kTooMany});
}

TEST_F(ChildPoolTest, AFailedForkDropsTheWorkAndLeavesTheRoom) {
    ChildPool pool(1, 1);
    fork.set(ForkStandIn::Outcome::Fails);
    pool.run(says('a'));
    pool.run(says('b'));
    EXPECT_EQ(drops(), (QList<QByteArray>{kNoChild, kNoChild}));
    fork.set(ForkStandIn::Outcome::Works);
    pool.run(says('c'));
    EXPECT_EQ(letters(1), "c");
}

TEST_F(ChildPoolTest, AForkThatFailsForWaitingWorkDropsThatAndGoesOnWithTheNext) {
    ChildPool pool(1, 5);
    pool.run(says('a'));
    pool.run(says('b'));
    pool.run(says('c'));
    reap(1);
    fork.set(ForkStandIn::Outcome::Fails);
    pool.startWaiting();
    EXPECT_EQ(drops(), (QList<QByteArray>{kNoChild, kNoChild}));
    fork.set(ForkStandIn::Outcome::Works);
    pool.startWaiting();
    EXPECT_EQ(fork.count(), 3) << "nothing waits any more";
}

TEST_F(ChildPoolTest, AChildThatEndedManyChildrenAgoLeavesItsRoom) {
    ChildPool pool(1, 0);
    pool.run(says('a'));
    reap(1);
    for (int i = 0; i < 20; ++i) {
        if (::fork() == 0) {
            _exit(0);
        }
        reap(1);
    }
    pool.run(says('b'));
    ASSERT_TRUE(drops().isEmpty());
    EXPECT_EQ(letters(2), "ab");
}

TEST_F(ChildPoolTest, AChildThatIsNotReapedYetStillCountsAndIsLeftToBeReaped) {
    ChildPool pool(1, 0);
    pool.run(says('a'));
    siginfo_t info{};
    ASSERT_EQ(waitid(P_ALL, 0, &info, WEXITED | WNOWAIT), 0);
    pool.run(says('b'));
    EXPECT_EQ(drops(), QList<QByteArray>{kTooMany});
    reap(1);
}

TEST_F(ChildPoolTest, AProcessThatIsNoChildTakesNoRoom) {
    ChildPool pool(1, 0);
    fork.set(ForkStandIn::Outcome::IsAnothers);
    pool.run(says('a'));
    pool.run(says('b'));
    EXPECT_EQ(fork.count(), 2) << "as where a pid has come to another process";
    EXPECT_TRUE(drops().isEmpty());
}

TEST_F(ChildPoolTest, WorkThatReturnsGoesOnInTheChildAndKnowsNoneOfItsParentsWork) {
    for (int i = 0; i < 7; ++i) {
        ChildPools::g_lookupsAndListings.run(lives('x'));
    }
    letters(7);
    ChildPools::g_lookupsAndListings.run([this] { say('s'); });
    if (ForkedChild::generation() > 0) {
        // In the child that stays.
        const int before = fork.count();
        for (int i = 0; i < 8; ++i) {
            ChildPools::g_lookupsAndListings.run(says('y'));
        }
        say(fork.count() == before + 8 ? 'g' : 'b');
        _exit(0);
    }
    EXPECT_EQ(letters(10).count('g'), 1);
}

TEST_F(ChildPoolTest, AChildThatStaysStartsNothingThatWaitsInItsParent) {
    ChildPools::g_lookupsAndListings.forget();
    for (int i = 0; i < 8; ++i) {
        ChildPools::g_lookupsAndListings.run(says('x'));
    }
    ChildPools::g_lookupsAndListings.run([this] { say('s'); });
    for (int i = 0; i < 5; ++i) {
        ChildPools::g_lookupsAndListings.run(says('z'));
    }
    reap(8);
    const int before = fork.count();
    ChildPools::startWaiting();
    if (ForkedChild::generation() > 0) {
        const bool startedMore = fork.count() != before + 1;
        ChildPools::startWaiting();
        say(startedMore || fork.count() != before + 1 ? 'b' : 'g');
        _exit(0);
    }
    EXPECT_EQ(fork.count(), before + 6);
    const QByteArray said = letters(8 + 1 + 5 + 1);
    EXPECT_EQ(said.count('g'), 1);
    EXPECT_EQ(said.count('z'), 5);
}

TEST_F(ChildPoolTest, WorkThatRunsOutOfMemoryEndsItsChildAndNothingElse) {
    ChildPool pool(1, 0);
    pool.run([] { throw std::bad_alloc(); });
    ASSERT_EQ(ForkedChild::generation(), 0U);
    int status = -1;
    ASSERT_GT(waitpid(-1, &status, 0), 0);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), EXIT_FAILURE);
}

TEST_F(ChildPoolTest, ForgettingIsForAllPools) {
    for (ChildPool* pool : {&ChildPools::g_lookupsAndListings, &ChildPools::g_invalidLookups,
                            &ChildPools::g_replayWorkers}) {
        for (int i = 0; i < 20; ++i) {
            pool->run(lives('x'));
        }
    }
    ChildPools::forget();
    const int before = fork.count();
    ChildPools::startWaiting();
    EXPECT_EQ(fork.count(), before);
    ChildPools::g_replayWorkers.run(lives('x'));
    EXPECT_EQ(fork.count(), before + 1);
}

}  // namespace

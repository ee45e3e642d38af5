#include "tools/supervisor/SupervisorPolicy.h"

#include "tests/support/FakeClock.h"

#include <gtest/gtest.h>

#include <limits>
#include <vector>

namespace {

using Action = SupervisorPolicy::Action;
using Actions = std::vector<Action>;

class SupervisorPolicyTest : public testing::Test {
protected:
    /// Everything that falls due in the next `seconds`, at one look a second.
    Actions pass(int seconds) {
        Actions due;
        for (int second = 0; second < seconds; ++second) {
            clock.advance(1);
            collect(due);
        }
        return due;
    }

    Actions now() {
        Actions due;
        collect(due);
        return due;
    }

    void passAnswering(int seconds) {
        for (int second = 0; second < seconds; ++second) {
            clock.advance(1);
            for (Action action = policy.next(); action != Action::Nothing; action = policy.next()) {
                ASSERT_EQ(action, Action::SendKeepalive);
                policy.answered();
            }
        }
    }

    int secondsUntilStart() {
        for (int second = 0; second <= 100; ++second) {
            if (policy.next() == Action::Start) {
                return second;
            }
            clock.advance(1);
        }
        return -1;
    }

    FakeClock clock;
    SupervisorPolicy policy;

private:
    void collect(Actions& due) {
        Action action = policy.next();
        while (action != Action::Nothing && action != Action::Finish) {
            due.push_back(action);
            action = policy.next();
        }
        if (action == Action::Finish) {
            due.push_back(action);
        }
    }
};

Actions withoutMessages(Actions actions) {
    std::erase(actions, Action::SendKeepalive);
    std::erase(actions, Action::SendQuit);
    return actions;
}

TEST_F(SupervisorPolicyTest, TheFirstStartIsDueAtOnceAndOnlyOnce) {
    EXPECT_EQ(policy.millisecondsToNext(), 0);
    EXPECT_EQ(now(), Actions{Action::Start});
    EXPECT_EQ(now(), Actions{});
}

TEST_F(SupervisorPolicyTest, TheFirstKeepaliveFollowsASecondAfterTheStart) {
    now();
    EXPECT_EQ(policy.millisecondsToNext(), 1'000);
    EXPECT_EQ(pass(1), Actions{Action::SendKeepalive});
}

TEST_F(SupervisorPolicyTest, KeepalivesAreFiveSecondsApart) {
    now();
    pass(1);
    EXPECT_EQ(policy.millisecondsToNext(), 5'000);
    EXPECT_EQ(pass(4), Actions{});
    EXPECT_EQ(pass(1), Actions{Action::SendKeepalive});
    EXPECT_EQ(pass(10), (Actions{Action::SendKeepalive, Action::SendKeepalive}));
}

TEST_F(SupervisorPolicyTest, KeepalivesGoOnUnansweredForADaemonThatIsBusy) {
    now();
    EXPECT_EQ(pass(299), Actions(60, Action::SendKeepalive));
}

TEST_F(SupervisorPolicyTest, PausesDoubleFromOneSecondToSixty) {
    now();
    for (const int expected : {1, 2, 4, 8, 16, 32, 60, 60, 60}) {
        policy.ended();
        EXPECT_EQ(policy.pauseSeconds(), expected);
        EXPECT_EQ(policy.millisecondsToNext(), expected * 1000);
        EXPECT_EQ(secondsUntilStart(), expected);
    }
}

TEST_F(SupervisorPolicyTest, ItNeverGivesUp) {
    now();
    for (int run = 0; run < 10'000; ++run) {
        policy.ended();
        ASSERT_NE(secondsUntilStart(), -1) << "run " << run;
    }
}

TEST_F(SupervisorPolicyTest, FiveMinutesOfAnswersSetThePauseBackToOneSecond) {
    now();
    policy.ended();
    secondsUntilStart();
    policy.ended();
    EXPECT_EQ(secondsUntilStart(), 2);
    passAnswering(301);
    policy.ended();
    EXPECT_EQ(policy.pauseSeconds(), 1);
}

TEST_F(SupervisorPolicyTest, LessThanFiveMinutesOfAnswersLeaveThePauseGrowing) {
    now();
    policy.ended();
    EXPECT_EQ(secondsUntilStart(), 1);
    // The answers span 1 s to 296 s.
    passAnswering(300);
    policy.ended();
    EXPECT_EQ(policy.pauseSeconds(), 2);
}

TEST_F(SupervisorPolicyTest, TenMinutesWithoutAnAnswerAreNoHealth) {
    now();
    policy.ended();
    secondsUntilStart();
    pass(600);
    policy.ended();
    EXPECT_EQ(policy.pauseSeconds(), 2);
}

TEST_F(SupervisorPolicyTest, OneRunsHealthIsNotTheNexts) {
    now();
    passAnswering(400);
    policy.ended();
    EXPECT_EQ(secondsUntilStart(), 1);
    policy.ended();
    EXPECT_EQ(policy.pauseSeconds(), 2);
}

TEST_F(SupervisorPolicyTest, FiveMinutesOfSilenceInterruptAndTenSecondsMoreKillOnce) {
    now();
    EXPECT_EQ(withoutMessages(pass(299)), Actions{});
    EXPECT_EQ(withoutMessages(pass(1)), Actions{Action::Interrupt});
    EXPECT_EQ(withoutMessages(pass(9)), Actions{});
    EXPECT_EQ(withoutMessages(pass(1)), Actions{Action::Kill});
    EXPECT_EQ(withoutMessages(pass(1'000)), Actions{});
    policy.ended();
    EXPECT_EQ(secondsUntilStart(), 1);
}

TEST_F(SupervisorPolicyTest, SilenceIsCountedFromTheLastAnswer) {
    now();
    passAnswering(200);
    // The last keep-alive, and its answer, came at 196 s.
    EXPECT_EQ(withoutMessages(pass(295)), Actions{});
    EXPECT_EQ(withoutMessages(pass(1)), Actions{Action::Interrupt});
}

TEST_F(SupervisorPolicyTest, SilenceWhileTheBusIsAwayProvesNothing) {
    now();
    for (int second = 0; second < 1'000; ++second) {
        policy.busIsAway();
        ASSERT_EQ(withoutMessages(pass(1)), Actions{});
    }
    policy.busIsAway();
    EXPECT_EQ(withoutMessages(pass(299)), Actions{});
    EXPECT_EQ(withoutMessages(pass(1)), Actions{Action::Interrupt});
}

TEST_F(SupervisorPolicyTest, AnAnswerAfterTheInterruptDoesNotSpareItTheKill) {
    now();
    EXPECT_EQ(withoutMessages(pass(300)), Actions{Action::Interrupt});
    pass(5);
    policy.answered();
    EXPECT_EQ(withoutMessages(pass(5)), Actions{Action::Kill});
}

TEST_F(SupervisorPolicyTest, ASilentDaemonsSuccessorGetsItsWholeTime) {
    now();
    pass(305);
    policy.ended();
    EXPECT_EQ(secondsUntilStart(), 1);
    EXPECT_EQ(withoutMessages(pass(299)), Actions{});
}

TEST_F(SupervisorPolicyTest, AStopAsksAtOnceThenInterruptsAfter30AndKillsAfter10More) {
    now();
    policy.requestStop();
    EXPECT_EQ(policy.millisecondsToNext(), 0);
    EXPECT_EQ(now(), Actions{Action::SendQuit});
    EXPECT_EQ(withoutMessages(pass(29)), Actions{});
    EXPECT_EQ(withoutMessages(pass(1)), Actions{Action::Interrupt});
    EXPECT_EQ(withoutMessages(pass(9)), Actions{});
    EXPECT_EQ(withoutMessages(pass(1)), Actions{Action::Kill});
    EXPECT_EQ(withoutMessages(pass(1'000)), Actions{});
    policy.ended();
    EXPECT_EQ(now(), Actions{Action::Finish});
}

TEST_F(SupervisorPolicyTest, AStopSendsNoKeepalivesButRepeatsTheQuitEveryFiveSeconds) {
    now();
    pass(3);
    policy.requestStop();
    EXPECT_EQ(now(), Actions{Action::SendQuit});
    EXPECT_EQ(pass(14), (Actions{Action::SendQuit, Action::SendQuit}));
}

TEST_F(SupervisorPolicyTest, AnswersDoNotPutOffAStop) {
    now();
    policy.requestStop();
    for (int second = 0; second < 29; ++second) {
        EXPECT_EQ(withoutMessages(pass(1)), Actions{});
        policy.answered();
        policy.busIsAway();
    }
    EXPECT_EQ(withoutMessages(pass(1)), Actions{Action::Interrupt});
}

TEST_F(SupervisorPolicyTest, AStopIsNotPutOffByAskingForItAgain) {
    now();
    policy.requestStop();
    pass(20);
    policy.requestStop();
    EXPECT_EQ(withoutMessages(pass(10)), Actions{Action::Interrupt});
}

TEST_F(SupervisorPolicyTest, AStopDuringThePauseIsCompleteAtOnce) {
    now();
    policy.ended();
    policy.requestStop();
    EXPECT_EQ(policy.millisecondsToNext(), 0);
    EXPECT_EQ(now(), Actions{Action::Finish});
    EXPECT_EQ(pass(100).front(), Action::Finish);
}

TEST_F(SupervisorPolicyTest, AStopBeforeTheFirstStartStartsNothing) {
    policy.requestStop();
    EXPECT_EQ(now(), Actions{Action::Finish});
}

TEST_F(SupervisorPolicyTest, AStopOfAnInterruptedDaemonStillGivesItTheWholeLadder) {
    now();
    pass(300);
    policy.requestStop();
    EXPECT_EQ(now(), Actions{Action::SendQuit});
    EXPECT_EQ(withoutMessages(pass(29)), Actions{});
    EXPECT_EQ(withoutMessages(pass(1)), Actions{Action::Interrupt});
}

TEST_F(SupervisorPolicyTest, TheTimeToTheNextActionIsNeverTooLong) {
    now();
    for (int step = 0; step < 200; ++step) {
        const int wait = policy.millisecondsToNext();
        ASSERT_GT(wait, 0);
        ASSERT_LE(wait, 5'000);
        clock.tick += static_cast<quint32>(wait) - 1;
        ASSERT_EQ(now(), Actions{}) << step;
        clock.tick += 1;
        ASSERT_NE(now(), Actions{}) << step;
    }
}

TEST_F(SupervisorPolicyTest, TheClocksWrapChangesNothing) {
    clock.tick = std::numeric_limits<quint32>::max() - 500;
    // Made at another time than now: the first start is due nevertheless.
    EXPECT_EQ(now(), Actions{Action::Start});
    EXPECT_EQ(pass(1), Actions{Action::SendKeepalive});
    EXPECT_EQ(pass(5), Actions{Action::SendKeepalive});
    policy.ended();
    EXPECT_EQ(secondsUntilStart(), 1);
}

}  // namespace

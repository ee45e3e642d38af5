#include "core/Signals.h"

#include "bus/DebugText.h"
#include "core/RunState.h"
#include "core/shared/ReapedChildren.h"
#include "tests/core/KeptSignalHandlers.h"
#include "tests/support/FakeBus.h"
#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>

#include <sys/wait.h>
#include <unistd.h>

namespace {

QByteArray lineOf(const char* name, int number) {
    return QByteArray("scada-storage-process: ") + name + " exception (" +
           QByteArray::number(number) + ")! " + QByteArray(92, '*');
}

class SignalsTest : public testing::Test {
protected:
    SignalsTest() {
        g_quit = false;
        installSignalHandlers();
    }
    ~SignalsTest() override { g_quit = false; }

    /// Starts children that end with the given statuses and waits for their signals.
    static QList<pid_t> endChildren(const QList<int>& statuses) {
        sigset_t childSignal;
        sigset_t before;
        sigemptyset(&childSignal);
        sigaddset(&childSignal, SIGCHLD);
        sigprocmask(SIG_BLOCK, &childSignal, &before);
        const unsigned reaped = ReapedChildren::count();
        QList<pid_t> children;
        for (const int status : statuses) {
            const pid_t child = fork();
            if (child == 0) {
                _exit(status);
            }
            children.append(child);
        }
        while (ReapedChildren::count() - reaped < static_cast<unsigned>(statuses.size())) {
            sigsuspend(&before);
        }
        sigprocmask(SIG_SETMASK, &before, nullptr);
        return children;
    }

    KeptSignalHandlers kept;
    LogCapture log;
};

using SignalsDeathTest = SignalsTest;

TEST_F(SignalsTest, TheHandlersHaveNoFlagsAndAnEmptyMask) {
    for (const int signal : KeptSignalHandlers::kSignals) {
        struct sigaction action;
        sigaction(signal, nullptr, &action);
        EXPECT_EQ(action.sa_flags & (SA_RESTART | SA_NOCLDSTOP | SA_NODEFER | SA_SIGINFO), 0);
        for (int other = 1; other < 32; ++other) {
            EXPECT_EQ(sigismember(&action.sa_mask, other), 0) << signal << ' ' << other;
        }
    }
}

TEST_F(SignalsTest, Sigusr1LogsAndSetsTheQuitFlag) {
    raise(SIGUSR1);
    EXPECT_TRUE(g_quit);
    EXPECT_EQ(log.lines(), QList<QByteArray>{lineOf("SIGUSR1", SIGUSR1)});
}

TEST_F(SignalsTest, Sigusr1EndsTheNextWait) {
    FakeBus bus;
    raise(SIGUSR1);
    bus.bus().readWaitingMessages(25'000);
    EXPECT_TRUE(bus.transport().waits.isEmpty());
}

TEST_F(SignalsTest, SigpipeLogsAndNothingElse) {
    raise(SIGPIPE);
    EXPECT_FALSE(g_quit);
    EXPECT_EQ(log.lines(), QList<QByteArray>{lineOf("SIGPIPE", SIGPIPE)});
}

TEST_F(SignalsTest, AWriteToABrokenPipeIsAnErrorAndNotTheEnd) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    close(ends[0]);
    EXPECT_EQ(write(ends[1], "x", 1), -1);
    EXPECT_EQ(errno, EPIPE);
    close(ends[1]);
}

TEST_F(SignalsTest, SigchldWithoutAChildLogsAndReapsNone) {
    raise(SIGCHLD);
    EXPECT_EQ(log.lines(), QList<QByteArray>{lineOf("SIGCHLD", SIGCHLD)});
}

TEST_F(SignalsTest, SigchldReapsEveryEndedChildAndLogsEach) {
    endChildren({0, 1, 2});
    EXPECT_EQ(log.count("sigchild waitpid loop"), 3);
    EXPECT_GE(log.count(lineOf("SIGCHLD", SIGCHLD)), 1);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a zombie is left";
}

TEST_F(SignalsTest, TheStatusOfAReapedChildCanStillBeFound) {
    const unsigned before = ReapedChildren::count();
    const QList<pid_t> children = endChildren({5, 6});
    int status = -1;
    ASSERT_TRUE(ReapedChildren::find(children[0], before, status));
    EXPECT_EQ(WEXITSTATUS(status), 5);
    ASSERT_TRUE(ReapedChildren::find(children[1], before, status));
    EXPECT_EQ(WEXITSTATUS(status), 6);
}

TEST_F(SignalsTest, ASigchldEndsTheNextWait) {
    FakeBus bus;
    raise(SIGCHLD);
    bus.bus().readWaitingMessages(25'000);
    EXPECT_TRUE(bus.transport().waits.isEmpty());
}

TEST_F(SignalsTest, ErrnoIsAsItWas) {
    for (const int signal : {SIGUSR1, SIGPIPE, SIGCHLD}) {
        errno = ENOTTY;
        raise(signal);
        EXPECT_EQ(errno, ENOTTY) << signal;
    }
}

TEST_F(SignalsDeathTest, SigintLogsAndEndsTheProcessAtOnceWithStatus0) {
    DebugText::setSink(nullptr);
    // The status of the child that dies is the test's to reap.
    signal(SIGCHLD, SIG_DFL);
    EXPECT_EXIT(raise(SIGINT), testing::ExitedWithCode(0),
                "^scada-storage-process: SIGINT exception \\(2\\)! \\*{92}\n$");
}

}  // namespace

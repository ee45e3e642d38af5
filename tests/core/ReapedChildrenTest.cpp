#include "core/shared/ReapedChildren.h"

#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

namespace {

/// Starts a child that ends with `status` and waits until it has ended, without reaping it.
pid_t endedChild(int status) {
    const pid_t child = fork();
    if (child == 0) {
        _exit(status);
    }
    siginfo_t info;
    waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT);
    return child;
}

TEST(ReapedChildren, WithoutChildrenNothingIsReapedOrLogged) {
    LogCapture log;
    EXPECT_EQ(ReapedChildren::reap(), 0);
    EXPECT_TRUE(log.lines().isEmpty());
}

TEST(ReapedChildren, EveryEndedChildIsReapedAndLoggedOnce) {
    LogCapture log;
    const unsigned before = ReapedChildren::count();
    endedChild(0);
    endedChild(1);
    endedChild(2);
    EXPECT_EQ(ReapedChildren::reap(), 3);
    EXPECT_EQ(ReapedChildren::count(), before + 3);
    EXPECT_EQ(log.lines(), QList<QByteArray>(3, "sigchild waitpid loop"));
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a zombie is left";
}

TEST(ReapedChildren, WhoeverWaitsForOneChildFindsItsStatus) {
    LogCapture log;
    const unsigned before = ReapedChildren::count();
    const pid_t first = endedChild(3);
    const pid_t second = endedChild(4);
    ReapedChildren::reap();
    int status = -1;
    ASSERT_TRUE(ReapedChildren::find(first, before, status));
    EXPECT_EQ(WEXITSTATUS(status), 3);
    ASSERT_TRUE(ReapedChildren::find(second, before, status));
    EXPECT_EQ(WEXITSTATUS(status), 4);
}

TEST(ReapedChildren, AChildThatRunsStillIsNotFound) {
    int status = -1;
    EXPECT_FALSE(ReapedChildren::find(getpid(), 0, status));
    EXPECT_EQ(status, -1);
}

TEST(ReapedChildren, AnEarlierChildOfTheSamePidIsNotTakenForALaterOne) {
    LogCapture log;
    const pid_t child = endedChild(3);
    ReapedChildren::reap();
    int status = -1;
    EXPECT_FALSE(ReapedChildren::find(child, ReapedChildren::count(), status));
}

TEST(ReapedChildren, TheTableKeepsTheLastOnesOnly) {
    LogCapture log;
    const unsigned before = ReapedChildren::count();
    QList<pid_t> children;
    for (unsigned i = 0; i <= ReapedChildren::kRemembered; ++i) {
        children.append(endedChild(static_cast<int>(i % 251)));
    }
    ReapedChildren::reap();
    int status = -1;
    EXPECT_FALSE(ReapedChildren::find(children.first(), before, status));
    ASSERT_TRUE(ReapedChildren::find(children.at(1), before, status));
    EXPECT_EQ(WEXITSTATUS(status), 1);
    ASSERT_TRUE(ReapedChildren::find(children.last(), before, status));
    EXPECT_EQ(WEXITSTATUS(status), ReapedChildren::kRemembered % 251);
}

}  // namespace

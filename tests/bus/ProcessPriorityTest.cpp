#include "bus/ProcessPriority.h"

#include "bus/PubSubInterface.h"
#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

#include <functional>

#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int kIOPriorityOfProcess = 1;

int niceValue() {
    return getpriority(PRIO_PROCESS, 0);
}

int ioClass() {
    return static_cast<int>(syscall(SYS_ioprio_get, kIOPriorityOfProcess, 0)) >> 13;
}

/// Priorities are tried in a child, which this program does not have to live with.
bool holdsInAChild(const std::function<bool()>& statement) {
    const pid_t pid = fork();
    if (pid == 0) {
        _exit(statement() ? 0 : 1);
    }
    int status = -1;
    waitpid(pid, &status, 0);
    return status == 0;
}

TEST(ProcessPriorityTest, TheNiceValueIsTheProcesss) {
    EXPECT_TRUE(holdsInAChild([] {
        PubSubInterface::setProcessPriority(15);
        return niceValue() == 15;
    }));
    EXPECT_NE(niceValue(), 15);
}

TEST(ProcessPriorityTest, IOPriority3IsTheIdleClass) {
    EXPECT_TRUE(holdsInAChild([] {
        PubSubInterface::setThreadIOPriority(3);
        return ioClass() == 3;
    }));
}

TEST(ProcessPriorityTest, IOPriority2IsBestEffort) {
    EXPECT_TRUE(holdsInAChild([] {
        ProcessPriority::setIOClass(2);
        return ioClass() == 2;
    }));
}

TEST(ProcessPriorityTest, IOPriority0LeavesItAsItIs) {
    EXPECT_TRUE(holdsInAChild([] {
        ProcessPriority::setIOClass(3);
        ProcessPriority::setIOClass(0);
        return ioClass() == 3;
    }));
}

TEST(ProcessPriorityTest, ARefusedNiceValueIsLoggedAndLeftAsItIs) {
    EXPECT_TRUE(holdsInAChild([] {
        LogCapture log;
        const rlimit none{0, 0};
        setrlimit(RLIMIT_NICE, &none);
        if (geteuid() == 0 && syscall(SYS_setresuid, 65534, 65534, 65534) != 0) {
            return false;
        }
        const int before = niceValue();
        ProcessPriority::setNice(-5);
        return niceValue() == before && log.lines().size() == 1 &&
               log.lines().first().startsWith("ProcessPriority: nice value -5 refused: ");
    }));
}

TEST(ProcessPriorityTest, AnIOClassThatDoesNotExistIsLoggedAndLeftAsItIs) {
    EXPECT_TRUE(holdsInAChild([] {
        ProcessPriority::setIOClass(3);
        for (const int wrong : {4, 7, -1, 1'000'000}) {
            LogCapture log;
            ProcessPriority::setIOClass(wrong);
            if (ioClass() != 3 || log.lines().size() != 1) {
                return false;
            }
        }
        return true;
    }));
}

}  // namespace

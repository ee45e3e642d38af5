#include "tools/supervisor/RunEnd.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <csignal>

namespace {

QByteArray exited(int status) {
    return RunEnd::describe(W_EXITCODE(status, 0));
}

TEST(SupervisorRunEndTest, Status0IsAQuit) {
    EXPECT_EQ(exited(0), "quit (status 0)");
}

TEST(SupervisorRunEndTest, Minus7IsSeenAs249AndMeansNoKeepalive) {
    EXPECT_EQ(exited(-7 & 0xff), "no keep-alive reached it (status 249)");
}

TEST(SupervisorRunEndTest, Status75IsASecondDaemon) {
    EXPECT_EQ(exited(75), "another daemon holds this unit (status 75)");
}

TEST(SupervisorRunEndTest, Status78IsTheEnvironment) {
    EXPECT_EQ(exited(78), "the bus settings in its environment cannot be used (status 78)");
}

TEST(SupervisorRunEndTest, Status127IsAProgramThatCannotBeExecuted) {
    EXPECT_EQ(exited(127), "it could not be started (status 127)");
}

TEST(SupervisorRunEndTest, AnyOtherStatusIsNamedByItsNumber) {
    EXPECT_EQ(exited(1), "failed (status 1)");
    EXPECT_EQ(exited(255), "failed (status 255)");
}

TEST(SupervisorRunEndTest, ASignalIsNamedByNumberAndWord) {
    EXPECT_EQ(RunEnd::describe(W_EXITCODE(0, SIGKILL)), "signal 9 (Killed)");
}

TEST(SupervisorRunEndTest, ASignalThatDumpedCoreSaysSo) {
    EXPECT_EQ(RunEnd::describe(W_EXITCODE(0, SIGSEGV) | WCOREFLAG),
              "signal 11 (Segmentation fault, core dumped)");
}

}  // namespace

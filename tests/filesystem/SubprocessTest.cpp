#include "core/shared/ReapedChildren.h"
#include "filesystem/Descriptor.h"
#include "filesystem/FileCopy.h"
#include "filesystem/Subprocess.h"
#include "tests/support/FakeClock.h"
#include "tests/support/Files.h"
#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <csignal>

namespace {

constexpr char kOutput[] = "/root/data/output";
constexpr int kMinute = 60'000;

class SubprocessTest : public testing::Test {
protected:
    SubprocessTest() { emptyRoots(); }

    static Subprocess shell(const char* script) {
        return {.arguments = {"sh", "-c", script}, .longestMilliseconds = kMinute};
    }

    /// What it writes to its standard output.
    static QByteArray outputOf(Subprocess program) {
        const Descriptor output(::open(kOutput, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
        program.output = output.number();
        EXPECT_EQ(program.run(), 0);
        return readTestFile(QString::fromLatin1(kOutput));
    }

    LogCapture log;
    FakeClock clock;
};

}  // namespace

TEST_F(SubprocessTest, ReturnsTheExitStatus) {
    EXPECT_EQ(shell("exit 0").run(), 0);
    EXPECT_EQ(shell("exit 7").run(), 7);
}

TEST_F(SubprocessTest, ArgumentsAreNoShellText) {
    const Subprocess printf = {.arguments = {"printf", "%s|", "a b", "$(id)", "", "*"},
                               .longestMilliseconds = kMinute};
    EXPECT_EQ(outputOf(printf), "a b|$(id)||*|");
}

TEST_F(SubprocessTest, InputIsReadFromItsPosition) {
    writeTestFile(QStringLiteral("/root/data/input"), "0123456789");
    const Descriptor input(::open("/root/data/input", O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(::lseek(input.number(), 4, SEEK_SET), 4);
    Subprocess cat = shell("cat");
    cat.input = input.number();
    EXPECT_EQ(outputOf(cat), "456789");
    cat.input = -1;
    EXPECT_EQ(outputOf(cat), "");
}

TEST_F(SubprocessTest, OnlyTheThreeDescriptorsAreInherited) {
    const Descriptor other(::open("/dev/null", O_RDONLY));
    const QByteArray open =
        outputOf(shell("for f in $(seq 0 300); do [ -e /proc/$$/fd/$f ] && echo $f; done; true"));
    EXPECT_EQ(open, "0\n1\n2\n");
}

TEST_F(SubprocessTest, EnvironmentIsPathAndLocale) {
    qputenv("TAR_OPTIONS", "-v");
    const QByteArray environment = outputOf({.arguments = {"env"}, .longestMilliseconds = kMinute});
    qunsetenv("TAR_OPTIONS");
    EXPECT_EQ(environment, "PATH=" + qgetenv("PATH") + "\nLC_ALL=C\n");
}

TEST_F(SubprocessTest, SignalsAreTheSystemsOwn) {
    const auto before = std::signal(SIGPIPE, SIG_IGN);
    const QByteArray sets =
        outputOf({.arguments = {"grep", "-E", "Sig(Blk|Ign)", "/proc/self/status"},
                  .longestMilliseconds = kMinute});
    std::signal(SIGPIPE, before);
    for (const QByteArray& line : sets.trimmed().split('\n')) {
        const quint64 set = line.split('\t').value(1).toULongLong(nullptr, 16);
        const auto isIn = [set](int signal) { return (set >> (signal - 1) & 1) != 0; };
        EXPECT_FALSE(isIn(SIGPIPE) || isIn(SIGCHLD) || isIn(SIGTERM)) << line.toStdString();
    }
}

TEST_F(SubprocessTest, StatusIsFoundWhoeverReapsFirst) {
    struct sigaction before {};
    struct sigaction reaping {};
    reaping.sa_handler = [](int) { ReapedChildren::reap(); };
    ::sigaction(SIGCHLD, &reaping, &before);
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(shell("exit 3").run(), 3);
    }
    ::sigaction(SIGCHLD, &before, nullptr);
}

TEST_F(SubprocessTest, OtherChildrenMayEndMeanwhile) {
    for (int i = 0; i < 100; ++i) {
        if (::fork() == 0) {
            ::_exit(1);
        }
    }
    EXPECT_EQ(shell("sleep 0.05; exit 9").run(), 9);
}

TEST_F(SubprocessTest, LongFilesStopIt) {
    Subprocess writer = shell("head -c 5000 /dev/zero > /root/data/long");
    writer.longestFileBytes = 5000;
    EXPECT_EQ(writer.run(), 0);
    writer.arguments = {"dd", "if=/dev/zero", "of=/root/data/long", "bs=5001", "count=1"};
    EXPECT_EQ(writer.run(), Subprocess::kStopped);
    EXPECT_EQ(readTestFile(QStringLiteral("/root/data/long")).size(), 5000);
}

TEST_F(SubprocessTest, TooLongATimeStopsIt) {
    Subprocess sleeper = {.arguments = {"sleep", "1000"}, .longestMilliseconds = kMinute};
    sleeper.mayGoOn = [this] {
        clock.advance(61);
        return true;
    };
    EXPECT_EQ(sleeper.run(), Subprocess::kStopped);
}

TEST_F(SubprocessTest, WatchStopsIt) {
    Subprocess sleeper = {.arguments = {"sleep", "1000"}, .longestMilliseconds = kMinute};
    sleeper.mayGoOn = [] { return false; };
    EXPECT_EQ(sleeper.run(), Subprocess::kStopped);
}

TEST_F(SubprocessTest, WhatIsNoProgramIsStopped) {
    const Subprocess nothing = {.arguments = {"no-such-program"}, .longestMilliseconds = kMinute};
    EXPECT_EQ(nothing.run(), Subprocess::kStopped);
}

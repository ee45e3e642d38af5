#include "bus/DebugText.h"

#include "tests/support/FakeClock.h"
#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using Lines = QList<QByteArray>;

/// Standard error as a datagram socket while it lives: each write is one datagram.
class StandardErrorWrites {
public:
    StandardErrorWrites() : _before(dup(STDERR_FILENO)) {
        socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, _ends);
        dup2(_ends[1], STDERR_FILENO);
    }
    ~StandardErrorWrites() {
        restore();
        close(_before);
        close(_ends[0]);
        close(_ends[1]);
    }
    StandardErrorWrites(const StandardErrorWrites&) = delete;
    StandardErrorWrites& operator=(const StandardErrorWrites&) = delete;

    /// What was written so far, a string a write.
    std::vector<std::string> take() {
        std::vector<std::string> writes;
        char buffer[8192];
        for (;;) {
            const ssize_t length = recv(_ends[0], buffer, sizeof buffer, MSG_DONTWAIT);
            if (length < 0) {
                return writes;
            }
            writes.emplace_back(buffer, static_cast<std::size_t>(length));
        }
    }

    void restore() { dup2(_before, STDERR_FILENO); }

private:
    int _before;
    int _ends[2] = {-1, -1};
};

std::vector<std::string> writesOf(const std::function<void()>& work) {
    DebugText::forgetRepeats();
    StandardErrorWrites standardError;
    work();
    return standardError.take();
}

class DebugTextTest : public testing::Test {
protected:
    void SetUp() override { DebugText::forgetRepeats(); }
    void TearDown() override { DebugText::forgetRepeats(); }

    FakeClock clock;
    LogCapture log;
};

TEST(DebugTextWriteTest, ALineIsTargetAndTextInASingleWrite) {
    const auto writes = writesOf([] {
        DebugText::send("Filesystem", "handle %d of \"%s\"", 7, "a");
        DebugText::send(DebugTextTarget("RemoteJob"), "TIMEOUT !!!");
        DebugText::plain("bare %s", "text");
    });
    EXPECT_EQ(writes, (std::vector<std::string>{"Filesystem: handle 7 of \"a\"\n",
                                                "RemoteJob: TIMEOUT !!!\n", "bare text\n"}));
}

TEST(DebugTextWriteTest, TheLongestLineIsASingleWriteToo) {
    const auto writes = writesOf([] { DebugText::plain("%s", std::string(5000, 'x').c_str()); });
    EXPECT_EQ(writes, std::vector<std::string>{std::string(1023, 'x') + "\n"});
}

TEST(DebugTextWriteTest, AClosedStandardErrorIsNoFault) {
    const int before = dup(STDERR_FILENO);
    close(STDERR_FILENO);
    errno = ENOTTY;
    DebugText::plain("into nothing");
    const int after = errno;
    dup2(before, STDERR_FILENO);
    close(before);
    EXPECT_EQ(after, ENOTTY);
}

TEST(DebugTextWriteTest, AFullStandardErrorThatDoesNotBlockDropsTheLine) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_NONBLOCK | O_CLOEXEC), 0);
    const std::string filler(65536, 'f');
    while (write(ends[1], filler.data(), filler.size()) > 0) {
    }
    const int before = dup(STDERR_FILENO);
    dup2(ends[1], STDERR_FILENO);
    DebugText::plain("dropped");
    dup2(before, STDERR_FILENO);
    close(before);
    std::string all(1 << 20, 0);
    const ssize_t held = read(ends[0], all.data(), all.size());
    ASSERT_GT(held, 0);
    EXPECT_EQ(all.find("dropped"), std::string::npos);
    close(ends[0]);
    close(ends[1]);
}

TEST_F(DebugTextTest, ErrnoStaysAsItWas) {
    errno = EXDEV;
    DebugText::send("t", "%s", "x");
    EXPECT_EQ(errno, EXDEV);
    for (int i = 0; i < 200; ++i) {
        errno = EXDEV;
        DebugText::send("t", "again");
        ASSERT_EQ(errno, EXDEV);
    }
}

TEST_F(DebugTextTest, ALineIsCutAt1023Bytes) {
    DebugText::plain("%s", QByteArray(1022, 'a').constData());
    DebugText::plain("%s", QByteArray(1023, 'b').constData());
    DebugText::plain("%s", QByteArray(1024, 'c').constData());
    DebugText::send("target", "%s", QByteArray(3000, 'd').constData());
    EXPECT_EQ(log.lines(), (Lines{QByteArray(1022, 'a'), QByteArray(1023, 'b'),
                                  QByteArray(1023, 'c'), "target: " + QByteArray(1015, 'd')}));
}

TEST_F(DebugTextTest, ALongTargetDoesNotRunOver) {
    DebugText::send(QByteArray(2000, 't').constData(), "%s", QByteArray(2000, 'x').constData());
    ASSERT_EQ(log.lines().size(), 1);
    EXPECT_EQ(log.lines().first().size(), 1023);
    EXPECT_TRUE(log.lines().first().contains("t: x"));
}

TEST_F(DebugTextTest, ControlBytesAndHighBytesAreEscaped) {
    DebugText::plain("%s",
                     "a\nb\rc\td\x1b[2Je\x7f"
                     "f\x80g\xff");
    EXPECT_EQ(log.lines(), Lines{R"(a\x0ab\x0dc\x09d\x1b[2Je\x7ff\x80g\xff)"});
}

TEST_F(DebugTextTest, ANameCannotForgeALine) {
    DebugText::send("Filesystem", "FAILED TO OPEN FILE \"%s\"", "x\nsystemd: all is well");
    EXPECT_EQ(log.lines(), Lines{R"(Filesystem: FAILED TO OPEN FILE "x\x0asystemd: all is well")"});
}

TEST_F(DebugTextTest, AnEscapeIsNotCutInTwo) {
    for (int before = 1015; before <= 1023; ++before) {
        log.clear();
        DebugText::plain("%s\n", QByteArray(before, 'a').constData());
        const QByteArray expected =
            QByteArray(before, 'a') + (before <= 1019 ? QByteArray(R"(\x0a)") : QByteArray());
        EXPECT_EQ(log.lines(), Lines{expected}) << before;
    }
}

TEST_F(DebugTextTest, ALineOfEscapesStaysWithinTheLimit) {
    DebugText::plain("%s", QByteArray(2000, '\x01').constData());
    ASSERT_EQ(log.lines().size(), 1);
    EXPECT_EQ(log.lines().first(), QByteArray(R"(\x01)").repeated(255));
}

TEST_F(DebugTextTest, AnEmptyTextIsALine) {
    DebugText::plain("%s", "");
    EXPECT_EQ(log.lines(), Lines{""});
}

TEST_F(DebugTextTest, HundredRepetitionsASecondAreWrittenAndTheRestSummedUpOnce) {
    for (int i = 0; i < 100'000; ++i) {
        DebugText::send("DataFile", "UNKNOWN RECORD TYPE");
    }
    EXPECT_EQ(log.lines().size(), 100);
    clock.advance(1);
    DebugText::plain("next second");
    ASSERT_EQ(log.lines().size(), 102);
    EXPECT_EQ(log.lines().at(100), "DataFile: UNKNOWN RECORD TYPE (and 99900 more of this kind)");
    EXPECT_EQ(log.lines().at(101), "next second");
    clock.advance(1);
    DebugText::plain("the one after");
    EXPECT_EQ(log.lines().size(), 103);
}

TEST_F(DebugTextTest, LinesThatDifferInTheirValuesOnlyAreOfOneKind) {
    for (int type = 0; type < 150; ++type) {
        DebugText::plain("UNKNOWN RECORD TYPE %d", type);
    }
    DebugText::flushRepeats();
    EXPECT_EQ(log.lines().size(), 101);
    EXPECT_EQ(log.lines().at(99), "UNKNOWN RECORD TYPE 99");
    EXPECT_EQ(log.lines().last(), "UNKNOWN RECORD TYPE 100 (and 50 more of this kind)");
}

TEST_F(DebugTextTest, TextsThatDifferAreOfDifferentKinds) {
    for (int i = 0; i < 90; ++i) {
        DebugText::send("Filesystem", "%s", "MESSAGE_FILE_READ");
        DebugText::send("Filesystem", "%s", "MESSAGE_FILE_WRITE");
    }
    DebugText::flushRepeats();
    EXPECT_EQ(log.lines().size(), 180);
}

TEST_F(DebugTextTest, ExactlyHundredRepetitionsAreNotSummedUp) {
    for (int i = 0; i < 100; ++i) {
        DebugText::plain("same");
    }
    clock.advance(1);
    DebugText::flushRepeats();
    EXPECT_EQ(log.lines().size(), 100);
}

TEST_F(DebugTextTest, OneLineTooManyIsSummedUpAsOne) {
    for (int i = 0; i < 101; ++i) {
        DebugText::plain("same");
    }
    DebugText::flushRepeats();
    EXPECT_EQ(log.lines().size(), 101);
    EXPECT_EQ(log.lines().last(), "same (and 1 more of this kind)");
    DebugText::flushRepeats();
    EXPECT_EQ(log.lines().size(), 101);
}

TEST_F(DebugTextTest, ALineBelowTheLimitComesThroughBesideOneAboveIt) {
    for (int i = 0; i < 500; ++i) {
        DebugText::plain("flood");
    }
    DebugText::plain("important");
    EXPECT_EQ(log.count("important"), 1);
}

TEST_F(DebugTextTest, TheNextSecondBeginsAnew) {
    for (int second = 0; second < 3; ++second) {
        for (int i = 0; i < 150; ++i) {
            DebugText::plain("same");
        }
        clock.advance(1);
    }
    DebugText::flushRepeats();
    EXPECT_EQ(log.count("same"), 300);
    EXPECT_EQ(log.count("same (and 50 more of this kind)"), 3);
}

TEST_F(DebugTextTest, ForgottenRepeatsAreNotSummedUp) {
    for (int i = 0; i < 500; ++i) {
        DebugText::plain("same");
    }
    DebugText::forgetRepeats();
    DebugText::flushRepeats();
    EXPECT_EQ(log.lines().size(), 100);
}

TEST_F(DebugTextTest, TheSumOfALongLineKeepsItsBeginning) {
    for (int i = 0; i < 150; ++i) {
        DebugText::plain("%s", QByteArray(900, 'l').constData());
    }
    DebugText::flushRepeats();
    EXPECT_EQ(log.lines().last(), QByteArray(200, 'l') + " (and 50 more of this kind)");
}

/// Written by a second run of this program, which the journal tests below start.
TEST(DebugTextProbe, DISABLED_WritesOneLineOfEachKind) {
    DebugText::send("a", "information");
    DebugText::sendRoutine("b", "loop");
    DebugText::plain("plain");
    DebugText::plain("%s", std::string(3000, 'x').c_str());
}

std::vector<std::string> linesUnder(const char* journalStream) {
    StandardErrorWrites standardError;
    const pid_t pid = fork();
    if (pid == 0) {
        const int nothing = open("/dev/null", O_WRONLY);
        dup2(nothing, STDOUT_FILENO);
        unsetenv("JOURNAL_STREAM");
        if (journalStream) {
            setenv("JOURNAL_STREAM", journalStream, 1);
        }
        execl("/proc/self/exe", "bus_tests", "--gtest_also_run_disabled_tests",
              "--gtest_filter=DebugTextProbe.*", nullptr);
        _exit(127);
    }
    int status = -1;
    waitpid(pid, &status, 0);
    EXPECT_EQ(status, 0);
    return standardError.take();
}

TEST(DebugTextJournalTest, UnderTheJournalEachLineBeginsWithItsPriority) {
    EXPECT_EQ(linesUnder("9:12345"),
              (std::vector<std::string>{"<6>a: information\n", "<7>b: loop\n", "<6>plain\n",
                                        "<6>" + std::string(1023, 'x') + "\n"}));
}

TEST(DebugTextJournalTest, ElsewhereNoLineHasAPriority) {
    EXPECT_EQ(linesUnder(nullptr),
              (std::vector<std::string>{"a: information\n", "b: loop\n", "plain\n",
                                        std::string(1023, 'x') + "\n"}));
}

}  // namespace

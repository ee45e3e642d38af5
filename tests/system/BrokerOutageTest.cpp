#include "tests/system/SystemTest.h"

#include <signal.h>

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

class BrokerOutageTest : public SystemTest {
protected:
    /// What the system holds of requests on their way (some 270) asks for far more of these than
    /// the daemon may keep.
    static constexpr int kBlock = 64 * 1024;
    static constexpr int kReads = 600;

    /// Leaves the daemon with kReads reads, each from a connection of its own, to answer to a
    /// broker that is stopped.
    void stopTheBrokerUnderLoad() {
        writeFile("/root/data/a", std::string(kBlock, 'a'));
        ASSERT_NO_FATAL_FAILURE(startBoth());
        _handle = open("/root/data/a", kReadOnly);
        settle();
        _residentBefore = _daemon.residentBytes();
        _daemon.pause();
        for (int i = 0; i < kReads; ++i) {
            sendFrom(i, requests::read(_handle, 0, kBlock).encoded());
        }
        ASSERT_TRUE(_client.flush(2000));
        _client.pump(300);
        _broker.pause();
        _daemon.resume();
    }

    /// Starts the broker again; the daemon must be heard within a second of it.
    void expectBackWithinASecond() {
        _broker.start();
        const auto start = steady_clock::now();
        ASSERT_TRUE(_client.connect(1000));
        const auto spent =
            std::chrono::duration_cast<milliseconds>(steady_clock::now() - start).count();
        EXPECT_TRUE(answersKeepAlive(1000 - static_cast<int>(spent)));
    }

    int _handle = -1;
    std::int64_t _residentBefore = 0;
};

TEST_F(BrokerOutageTest, ItStartsWithoutABrokerAndJoinsWithinASecondOfIt) {
    _daemon.start({.environment = {{"SCADA_BUS_URL", _broker.url()}}});
    ASSERT_TRUE(_daemon.waitForLog(lines::kStarting, 3000));
    EXPECT_FALSE(_daemon.waitForExit(3000).has_value());
    expectBackWithinASecond();
    EXPECT_GE(open("/root/data/a", kReadWrite), 0);
}

TEST_F(BrokerOutageTest, HoweverLongTheBrokerIsAwayItIsBackWithinASecondOfIt) {
    ASSERT_NO_FATAL_FAILURE(startBoth());
    for (const int away : {0, 100, 700, 1600, 5000}) {
        _broker.kill();
        _client.pump(away);
        expectBackWithinASecond();
        EXPECT_GE(open("/root/data/a", kReadWrite), 0) << away << " ms";
    }
}

TEST_F(BrokerOutageTest, EachChangeOfStateIsOneLogLine) {
    ASSERT_NO_FATAL_FAILURE(startBoth());
    settle();
    for (int i = 0; i < 3; ++i) {
        const std::size_t connected = eventLines().size();
        _broker.kill();
        _client.pump(2500);
        EXPECT_EQ(eventLines().size(), connected + 1) << _daemon.log();
        expectBackWithinASecond();
        EXPECT_EQ(eventLines().size(), connected + 2) << _daemon.log();
    }
}

TEST_F(BrokerOutageTest, WhatIsSentMeanwhileIsDroppedCountedAndLoggedOnce) {
    ASSERT_NO_FATAL_FAILURE(startBoth());
    settle();
    const std::size_t eventsBefore = eventLines().size();
    constexpr int kRequests = 23;
    _daemon.pause();
    for (int i = 0; i < kRequests; ++i) {
        send(requests::open("/root/data/a", kReadOnly));
    }
    ASSERT_TRUE(_client.flush(1000));
    _client.pump(200);
    _broker.kill();
    _daemon.resume();
    // All of it had arrived, so it is carried out, and only the answers are lost.
    EXPECT_TRUE(_daemon.waitForLog("MESSAGE_FILE_OPEN ***ERROR***", 2000));
    _client.pump(500);
    expectBackWithinASecond();
    settle();
    EXPECT_EQ(deliveriesWaiting(), 0U);
    int counts = 0;
    for (const std::string& line : eventLines()) {
        counts += line.find(std::to_string(kRequests) + " ") != std::string::npos ? 1 : 0;
    }
    EXPECT_EQ(counts, 1) << _daemon.log();
    EXPECT_LE(eventLines().size(), eventsBefore + 3) << _daemon.log();
}

TEST_F(BrokerOutageTest, ItUsesLittleProcessorWhileTheBrokerIsAway) {
    ASSERT_NO_FATAL_FAILURE(startBoth());
    settle();
    _broker.kill();
    const double before = _daemon.cpuSeconds();
    _client.pump(5000);
    const double used = _daemon.cpuSeconds() - before;
    EXPECT_GT(_daemon.cpuSeconds(), 0.0);
    EXPECT_LT(used, 0.5);
    RecordProperty("cpu_milliseconds_in_5_s", static_cast<int>(used * 1000));
}

TEST_F(BrokerOutageTest, AStoppedBrokerIsWaitedOutAndNothingIsLost) {
    ASSERT_NO_FATAL_FAILURE(stopTheBrokerUnderLoad());
    const double cpuBefore = _daemon.cpuSeconds();
    _client.pump(4000);
    EXPECT_LT(_daemon.cpuSeconds() - cpuBefore, 0.4);
    EXPECT_TRUE(_daemon.isRunning());
#ifndef __SANITIZE_ADDRESS__
    EXPECT_LE(_daemon.residentBytes() - _residentBefore, 8 * 1024 * 1024);
#endif
    _broker.resume();
    ASSERT_TRUE(_client.pumpUntil([&] { return repliesWaiting() == kReads; }, 10000))
        << repliesWaiting();
    const std::vector<Reply> replies = takeReplies();
    for (int i = 0; i < kReads; ++i) {
        ASSERT_EQ(replies[static_cast<std::size_t>(i)].connection, i);
    }
    EXPECT_TRUE(answersKeepAlive(2000));
}

TEST_F(BrokerOutageTest, ABrokerKilledWithMegabytesUnderWayIsLivedThrough) {
    ASSERT_NO_FATAL_FAILURE(stopTheBrokerUnderLoad());
    _client.pump(1000);
    _broker.kill();
    _client.pump(500);
#ifndef __SANITIZE_ADDRESS__
    EXPECT_LE(_daemon.residentBytes() - _residentBefore, 8 * 1024 * 1024);
#endif
    expectBackWithinASecond();
    EXPECT_EQ(ask(requests::read(_handle, 0, kBlock)).format, "iiB");
}

TEST_F(BrokerOutageTest, ItWorksAndComesBackWith1100DescriptorsOpen) {
    ASSERT_NO_FATAL_FAILURE(startBroker());
    ASSERT_NO_FATAL_FAILURE(startDaemon({.extraDescriptors = 1100}));
    EXPECT_GE(_daemon.openDescriptors(), 1100);
    EXPECT_GE(open("/root/data/a", kReadWrite), 0);
    const double cpuBefore = _daemon.cpuSeconds();
    _client.pump(1000);
    EXPECT_LT(_daemon.cpuSeconds() - cpuBefore, 0.1);
    for (int i = 0; i < 3; ++i) {
        _broker.kill();
        _client.pump(200);
        expectBackWithinASecond();
        EXPECT_GE(open("/root/data/a", kReadWrite), 0);
    }
}

TEST_F(BrokerOutageTest, ReconnectingLeaksNoDescriptor) {
    ASSERT_NO_FATAL_FAILURE(startBoth());
    const int before = _daemon.openDescriptors();
    for (int i = 0; i < 5; ++i) {
        _broker.kill();
        _client.pump(150);
        expectBackWithinASecond();
    }
    EXPECT_EQ(_daemon.openDescriptors(), before);
}

TEST_F(BrokerOutageTest, SignalsEndItWhileTheBrokerIsAway) {
    ASSERT_NO_FATAL_FAILURE(startBoth());
    _broker.kill();
    _client.pump(1000);
    _daemon.signal(SIGUSR1);
    EXPECT_EQ(_daemon.waitForExit(1000), 0);
    EXPECT_EQ(_daemon.logLines().back(), lines::kExiting);
}

TEST_F(BrokerOutageTest, SignalsEndItWhileTheBrokerIsStopped) {
    ASSERT_NO_FATAL_FAILURE(startBoth());
    settle();
    _broker.pause();
    _daemon.signal(SIGUSR1);
    EXPECT_EQ(_daemon.waitForExit(5000), 0);
    EXPECT_EQ(_daemon.logLines().back(), lines::kExiting);
    _broker.resume();
}

TEST_F(BrokerOutageTest, AStoppedBrokerAtTheStartIsWaitedOut) {
    ASSERT_NO_FATAL_FAILURE(startBroker());
    _broker.pause();
    _daemon.start({.environment = {{"SCADA_BUS_URL", _broker.url()}}});
    ASSERT_TRUE(_daemon.waitForLog(lines::kStarting, 3000));
    const double cpuBefore = _daemon.cpuSeconds();
    _client.pump(2000);
    EXPECT_LT(_daemon.cpuSeconds() - cpuBefore, 0.2);
    _broker.resume();
    EXPECT_TRUE(answersKeepAlive(2000));
}

}  // namespace

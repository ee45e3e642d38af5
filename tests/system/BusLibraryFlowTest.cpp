#include "tests/system/BusLibraryTest.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <thread>

namespace {

using SteadyClock = std::chrono::steady_clock;

class BusLibraryFlowTest : public BusLibraryTest {
protected:
    void expectNumbered(const std::vector<std::string>& payloads, int count) {
        ASSERT_EQ(payloads.size(), static_cast<std::size_t>(count));
        for (int i = 0; i < count; ++i) {
            ASSERT_EQ(payloads[static_cast<std::size_t>(i)], std::to_string(i));
        }
    }

    static std::vector<int> descriptors() {
        std::vector<int> result;
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            result.push_back(std::stoi(entry.path().filename()));
        }
        return result;
    }
};

TEST_F(BusLibraryFlowTest, NothingIsLostWhileTheProcessDoesNotReadForSeconds) {
    ASSERT_NO_FATAL_FAILURE(startBroker());
    ASSERT_NO_FATAL_FAILURE(join());
    _bus->addWantedToken("in.a");
    ASSERT_TRUE(_bus->awaitSubscriptions(5000));
    constexpr int kMessages = 100'000;
    for (int i = 0; i < kMessages; ++i) {
        _neighbour.publish("in/a", std::to_string(i));
    }
    ASSERT_TRUE(_neighbour.flush(20'000));
    std::this_thread::sleep_for(std::chrono::seconds(2));
    ASSERT_TRUE(waitUntil([&] { return _payloads.size() >= kMessages; }, 20'000))
        << _payloads.size();
    expectNumbered(_payloads, kMessages);
}

TEST_F(BusLibraryFlowTest, ASendBlocksOnNoReaderAndNothingIsLost) {
    ASSERT_NO_FATAL_FAILURE(startBroker());
    ASSERT_NO_FATAL_FAILURE(join());
    constexpr int kMessages = 100'000;
    for (int i = 0; i < kMessages; ++i) {
        ASSERT_TRUE(send("out.a", std::to_string(i)));
    }
    _bus->readWaitingMessages(2000);
    ASSERT_TRUE(
        _neighbour.pumpUntil([&] { return _neighbour.deliveries.size() >= kMessages; }, 20'000));
    expectNumbered(neighboursPayloads(), kMessages);
}

TEST_F(BusLibraryFlowTest, DeliveriesOfAllTokensArriveInTheBrokersOrder) {
    ASSERT_NO_FATAL_FAILURE(startBroker());
    ASSERT_NO_FATAL_FAILURE(join());
    constexpr int kTokens = 7;
    for (int i = 0; i < kTokens; ++i) {
        _bus->addWantedToken("in." + QByteArray::number(i));
    }
    ASSERT_TRUE(_bus->awaitSubscriptions(5000));
    constexpr int kMessages = 5000;
    for (int i = 0; i < kMessages; ++i) {
        _neighbour.publish("in/" + std::to_string(i * 31 % kTokens), std::to_string(i));
    }
    ASSERT_TRUE(_neighbour.flush(5000));
    ASSERT_TRUE(waitUntil([&] { return _payloads.size() >= kMessages; }, 10'000));
    expectNumbered(_payloads, kMessages);
}

TEST_F(BusLibraryFlowTest, ABrokerKilledAndRestartedHasItBackAndSubscribedWithinASecond) {
    ASSERT_NO_FATAL_FAILURE(startBroker());
    ASSERT_NO_FATAL_FAILURE(join());
    expectItExchangesMessages();
    for (const int away : {0, 300, 1900}) {
        const quint32 losses = _bus->lostConnections();
        _broker.kill();
        waitUntil([] { return false; }, away);
        _broker.start();
        const auto start = SteadyClock::now();
        ASSERT_TRUE(_neighbour.connect(1000));
        ASSERT_TRUE(waitUntil(
            [&] { return _bus->lostConnections() > losses && _bus->isConnected(); }, 1000));
        ASSERT_TRUE(_bus->awaitSubscriptions(1000));
        EXPECT_LT(millisecondsSince(start), 1000) << away;
        expectItExchangesMessages();
    }
    EXPECT_EQ(_bus->lostConnections(), 3U);
}

TEST_F(BusLibraryFlowTest, AStoppedBrokerLosesNothing) {
    ASSERT_NO_FATAL_FAILURE(startBroker());
    ASSERT_NO_FATAL_FAILURE(join());
    _bus->addWantedToken("in.a");
    ASSERT_TRUE(_bus->awaitSubscriptions(5000));
    _broker.pause();
    constexpr int kMessages = 1000;
    for (int i = 0; i < kMessages; ++i) {
        ASSERT_TRUE(send("out.a", std::to_string(i)));
        _neighbour.publish("in/a", std::to_string(i));
    }
    const auto start = SteadyClock::now();
    _bus->readWaitingMessages(1500);
    EXPECT_GE(millisecondsSince(start), 1490);
    _broker.resume();
    ASSERT_TRUE(waitForBoth(
        [&] { return _payloads.size() >= kMessages && _neighbour.deliveries.size() >= kMessages; },
        10'000));
    expectNumbered(_payloads, kMessages);
    expectNumbered(neighboursPayloads(), kMessages);
    EXPECT_EQ(_bus->lostConnections(), 0U);
}

TEST_F(BusLibraryFlowTest, SendsToAStoppedBrokerWaitBeforeTheyFillTheMemory) {
    ASSERT_NO_FATAL_FAILURE(startBroker());
    ASSERT_NO_FATAL_FAILURE(join());
    _broker.pause();
    ChildProcess resumer;
    resumer.start({{"sh", "-c", "sleep 1; kill -CONT " + std::to_string(_broker.pid())}, {}, 0});
    rusage before{};
    getrusage(RUSAGE_SELF, &before);
    constexpr int kMessages = 640;
    const std::string bytes(100'000, 'x');
    const auto start = SteadyClock::now();
    for (int i = 0; i < kMessages; ++i) {
        ASSERT_TRUE(send("out.a", bytes));
    }
    EXPECT_GE(millisecondsSince(start), 700);
    rusage after{};
    getrusage(RUSAGE_SELF, &after);
    EXPECT_LE(after.ru_maxrss - before.ru_maxrss, 8 * 1024) << "KiB";
    ASSERT_TRUE(waitForBoth([&] { return _neighbour.deliveries.size() >= kMessages; }, 10'000));
}

TEST_F(BusLibraryFlowTest, WhatWaitsToBeWrittenGoesOutWhileEachWaitIsWokenUp) {
    ASSERT_NO_FATAL_FAILURE(startBroker());
    ASSERT_NO_FATAL_FAILURE(join());
    _broker.pause();
    ASSERT_TRUE(send("out.a", std::string(10'000'000, 'x')));
    _broker.resume();
    const auto start = SteadyClock::now();
    while (_neighbour.deliveries.empty() && millisecondsSince(start) < 5000) {
        PubSubInterface::wake();
        _bus->readWaitingMessages(25'000);
        _neighbour.pump(1);
    }
    ASSERT_EQ(_neighbour.deliveries.size(), 1U);
    EXPECT_EQ(_neighbour.deliveries.front().payload.size(), 10'000'000U);
}

TEST_F(BusLibraryFlowTest, WithoutABrokerItCostsNextToNothing) {
    ASSERT_NO_FATAL_FAILURE(join());
    const double before = cpuSeconds();
    const auto start = SteadyClock::now();
    _bus->readWaitingMessages(2000);
    EXPECT_GE(millisecondsSince(start), 1990);
    EXPECT_LT(cpuSeconds() - before, 0.2) << "10 % of the time";
    EXPECT_EQ(_log.lines().size(), 1);
}

TEST_F(BusLibraryFlowTest, RetainedDeliveriesAreIgnored) {
    ASSERT_NO_FATAL_FAILURE(startBroker());
    _neighbour.publish("in/a", "old request", /*retain=*/true);
    ASSERT_TRUE(_neighbour.flush(1000));
    _neighbour.pump(100);
    ASSERT_NO_FATAL_FAILURE(join());
    _bus->addWantedToken("in.a");
    ASSERT_TRUE(_bus->awaitSubscriptions(5000));
    _neighbour.publish("in/a", "new request");
    ASSERT_TRUE(waitForBoth([&] { return !_payloads.empty(); }, 5000));
    EXPECT_EQ(_payloads, std::vector<std::string>{"new request"});
}

TEST_F(BusLibraryFlowTest, ThePrefixStandsBeforeEveryTopic) {
    ASSERT_NO_FATAL_FAILURE(startBroker());
    setenv("SCADA_BUS_PREFIX", "out/plant7/", 1);
    ASSERT_NO_FATAL_FAILURE(join());
    ASSERT_TRUE(send("ConnectionManager.writeCount.7", "x"));
    ASSERT_TRUE(_neighbour.pumpUntil([&] { return !_neighbour.deliveries.empty(); }, 5000));
    EXPECT_EQ(_neighbour.deliveries.front().topic, "out/plant7/ConnectionManager/writeCount/7");
    _bus->addWantedToken("in.a");
    ASSERT_TRUE(_bus->awaitSubscriptions(5000));
    _neighbour.publish("in/a", "another unit's");
    _neighbour.publish("out/plant7/in/a", "ours");
    ASSERT_TRUE(waitForBoth([&] { return !_payloads.empty(); }, 5000));
    EXPECT_EQ(_payloads, std::vector<std::string>{"ours"});
}

TEST_F(BusLibraryFlowTest, TheClientIdIsNameHostAndProcess) {
    ASSERT_NO_FATAL_FAILURE(startBroker());
    ASSERT_NO_FATAL_FAILURE(join());
    char host[256] = "";
    gethostname(host, sizeof host - 1);
    const std::string id = "library-" + std::string(host) + "-" + std::to_string(getpid());
    EXPECT_TRUE(_broker.waitForLog(" as " + id + " (", 1000)) << _broker.log();
}

TEST_F(BusLibraryFlowTest, ATokenThatTheBrokersProtocolRefusesIsLoggedAndNotSent) {
    ASSERT_NO_FATAL_FAILURE(startBroker());
    ASSERT_NO_FATAL_FAILURE(join());
    _log.clear();
    EXPECT_FALSE(send("out.\xff\xfe", "x"));
    EXPECT_EQ(_log.lines().size(), 1);
    EXPECT_TRUE(_bus->isConnected());
    expectItExchangesMessages();
}

int g_brokenPipes = 0;

TEST_F(BusLibraryFlowTest, TheProcesssOwnHandlerForBrokenPipesStays) {
    struct sigaction own {};
    own.sa_handler = [](int) { ++g_brokenPipes; };
    struct sigaction before {};
    sigaction(SIGPIPE, &own, &before);
    ASSERT_NO_FATAL_FAILURE(startBroker());
    ASSERT_NO_FATAL_FAILURE(join());
    _broker.kill();
    waitUntil([] { return false; }, 200);
    ASSERT_NO_FATAL_FAILURE(startBroker());
    ASSERT_TRUE(waitUntilConnected(1000));
    struct sigaction found {};
    sigaction(SIGPIPE, nullptr, &found);
    EXPECT_EQ(found.sa_handler, own.sa_handler);
    g_brokenPipes = 0;
    raise(SIGPIPE);
    EXPECT_EQ(g_brokenPipes, 1);
    sigaction(SIGPIPE, &before, nullptr);
}

TEST_F(BusLibraryFlowTest, WithoutAHandlerABrokenPipeDoesNotEndTheProcess) {
    signal(SIGPIPE, SIG_DFL);
    ASSERT_NO_FATAL_FAILURE(startBroker());
    ASSERT_NO_FATAL_FAILURE(join());
    _broker.kill();
    for (int i = 0; i < 100; ++i) {
        send("out.a", "x");
    }
    EXPECT_FALSE(_bus->isConnected());
}

TEST_F(BusLibraryFlowTest, AThousandOpenDescriptorsDoNotHinderItNorTheWayBack) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    rlimit more = limit;
    more.rlim_cur = std::min<rlim_t>(std::max<rlim_t>(limit.rlim_cur, 4096), limit.rlim_max);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &more), 0);
    std::vector<int> opened;
    for (int i = 0; i < 1100; ++i) {
        opened.push_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
        ASSERT_GE(opened.back(), 0);
    }
    // The neighbour polls as well; only the library is measured.
    ASSERT_NO_FATAL_FAILURE(startBroker());
    ASSERT_NO_FATAL_FAILURE(join());
    ASSERT_GT(descriptors().back(), 1024);
    expectItExchangesMessages();
    _broker.kill();
    waitUntil([] { return false; }, 100);
    ASSERT_NO_FATAL_FAILURE(startBroker());
    ASSERT_TRUE(waitUntilConnected(1000));
    expectItExchangesMessages();
    for (const int descriptor : opened) {
        close(descriptor);
    }
    setrlimit(RLIMIT_NOFILE, &limit);
}

TEST_F(BusLibraryFlowTest, FailedAttemptsAndReconnectsLeaveNoDescriptorOpen) {
    const std::size_t before = descriptors().size();
    ASSERT_NO_FATAL_FAILURE(join());
    waitUntil([] { return false; }, 1000);
    EXPECT_EQ(descriptors().size(), before);
    _broker.start();
    ASSERT_TRUE(waitUntilConnected(1000));
    const std::size_t connected = descriptors().size();
    for (int i = 0; i < 3; ++i) {
        _broker.kill();
        ASSERT_TRUE(waitUntil([&] { return !_bus->isConnected(); }, 1000));
        EXPECT_EQ(descriptors().size(), before);
        _broker.start();
        ASSERT_TRUE(waitUntilConnected(1000));
        EXPECT_EQ(descriptors().size(), connected);
    }
}

TEST_F(BusLibraryFlowTest, TheConnectionIsNotInheritedByProgramsThatAreStarted) {
    ASSERT_NO_FATAL_FAILURE(startBroker());
    const std::vector<int> before = descriptors();
    ASSERT_NO_FATAL_FAILURE(join());
    int connections = 0;
    for (const int descriptor : descriptors()) {
        sockaddr_un peer{};
        socklen_t length = sizeof peer;
        const bool isNew = std::find(before.begin(), before.end(), descriptor) == before.end();
        if (isNew && getpeername(descriptor, reinterpret_cast<sockaddr*>(&peer), &length) == 0 &&
            _broker.socketPath() == peer.sun_path) {
            ++connections;
            EXPECT_TRUE(fcntl(descriptor, F_GETFD) & FD_CLOEXEC);
        }
    }
    EXPECT_EQ(connections, 1);
}

TEST_F(BusLibraryFlowTest, ASignalEndsTheWaitEarly) {
    ASSERT_NO_FATAL_FAILURE(startBroker());
    ASSERT_NO_FATAL_FAILURE(join());
    struct sigaction own {};
    own.sa_handler = [](int) {};
    struct sigaction before {};
    sigaction(SIGALRM, &own, &before);
    alarm(1);
    const auto start = SteadyClock::now();
    _bus->readWaitingMessages(20'000);
    EXPECT_LT(millisecondsSince(start), 5000);
    sigaction(SIGALRM, &before, nullptr);
}

}  // namespace

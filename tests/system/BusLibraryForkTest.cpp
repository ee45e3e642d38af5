#include "bus/ForkedChild.h"
#include "tests/system/BusLibraryTest.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <map>

namespace {

class BusLibraryForkTest : public BusLibraryTest {
protected:
    /// Runs `work` in a child that ends with _exit right after it.
    pid_t inChild(const std::function<void()>& work) {
        const pid_t child = ForkedChild::start();
        if (child == 0) {
            work();
            _exit(0);
        }
        return child;
    }

    static void expectEnded(pid_t child) {
        int status = -1;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
    }

    std::string clientId(pid_t pid) const {
        char host[256] = "";
        gethostname(host, sizeof host - 1);
        return "library-" + std::string(host) + "-" + std::to_string(pid);
    }

    /// The broker saw nothing wrong on the connection of this process, and no second one.
    void expectTheBrokerSawOneHealthyConnection() {
        const std::string own = clientId(getpid());
        for (const std::string& line : _broker.logLines()) {
            // A child's id may begin with this one.
            const std::size_t at = line.find(own);
            const bool isOwn = at != std::string::npos && !isdigit(line[at + own.size()]);
            EXPECT_FALSE(isOwn && line.find("isconnect") != std::string::npos) << line;
            EXPECT_FALSE(isOwn && line.find("closed") != std::string::npos) << line;
            EXPECT_EQ(line.find("rotocol error"), std::string::npos) << line;
            EXPECT_EQ(line.find("bad record mac"), std::string::npos) << line;
        }
        EXPECT_EQ(_bus->lostConnections(), 0U);
    }

    /// Children of every kind, with an exchange of the parent's after each.
    void expectTheParentsConnectionOutlivesItsChildren() {
        expectItExchangesMessages();
        const std::function<void()> lives[] = {
            [] {},
            [this] { send("other.a", "x"); },
            [] { close_range(3, ~0U, 0); },
            [this] {
                send("other.a", "x");
                close_range(3, ~0U, 0);
            },
            [this] { _bus->readWaitingMessages(50); },
            [this] {
                _bus->rejoin();
                _bus->readWaitingMessages(50);
            },
            [this] { _bus->addWantedToken("in.child"); },
            [this] { _bus.reset(); },
        };
        for (const auto& life : lives) {
            expectEnded(inChild(life));
            expectItExchangesMessages();
        }
        expectTheBrokerSawOneHealthyConnection();
    }
};

TEST_F(BusLibraryForkTest, TheParentsConnectionOutlivesItsChildren) {
    ASSERT_NO_FATAL_FAILURE(startBroker());
    ASSERT_NO_FATAL_FAILURE(join());
    expectTheParentsConnectionOutlivesItsChildren();
}

TEST_F(BusLibraryForkTest, OverTlsTheParentsConnectionOutlivesItsChildren) {
    const int port = Broker::freePort();
    _broker.addConfiguration(tlsListener(port));
    ASSERT_NO_FATAL_FAILURE(startBroker());
    setenv("SCADA_BUS_CAFILE", file("server.pem").c_str(), 1);
    ASSERT_NO_FATAL_FAILURE(join("mqtts://127.0.0.1:" + std::to_string(port)));
    ASSERT_TRUE(waitUntilConnected(2000));
    expectTheParentsConnectionOutlivesItsChildren();
}

TEST_F(BusLibraryForkTest, AChildsConnectionBearsItsOwnProcessId) {
    ASSERT_NO_FATAL_FAILURE(startBroker());
    ASSERT_NO_FATAL_FAILURE(join());
    const pid_t child = inChild([this] { send("out.a", "x"); });
    expectEnded(child);
    EXPECT_TRUE(_broker.waitForLog(" as " + clientId(child) + " (", 1000)) << _broker.log();
}

TEST_F(BusLibraryForkTest, AChildThatDoesNotSendOpensNoConnection) {
    ASSERT_NO_FATAL_FAILURE(startBroker());
    ASSERT_NO_FATAL_FAILURE(join());
    const pid_t child = inChild([this] { _bus->readWaitingMessages(100); });
    expectEnded(child);
    EXPECT_EQ(_broker.log().find(clientId(child)), std::string::npos);
}

class BusLibraryChildrenTest : public BusLibraryForkTest,
                               public testing::WithParamInterface<const char*> {
protected:
    static constexpr int kChildren = 50;
    static constexpr int kMessagesEach = 20;
    static constexpr std::size_t kLargeBytes = 1'000'000;

    void joinByParameter() {
        const int port = Broker::freePort();
        const std::string scheme = GetParam();
        const std::string address = scheme + "://127.0.0.1:" + std::to_string(port);
        if (scheme == "mqtts") {
            _broker.addConfiguration(tlsListener(port));
            setenv("SCADA_BUS_CAFILE", file("server.pem").c_str(), 1);
        } else if (scheme == "mqtt") {
            _broker.addConfiguration("listener " + std::to_string(port) +
                                     " 127.0.0.1\nallow_anonymous true\n");
        }
        ASSERT_NO_FATAL_FAILURE(startBroker());
        ASSERT_NO_FATAL_FAILURE(join(scheme == "mqtt+unix" ? std::string() : address));
        ASSERT_TRUE(waitUntilConnected(2000));
    }

    /// Small messages, the last but one large and the last empty behind it.
    void sendAll(int child) {
        for (int i = 0; i < kMessagesEach; ++i) {
            const std::string token = "out." + std::to_string(child) + "." + std::to_string(i);
            const std::size_t bytes = i == kMessagesEach - 2 ? kLargeBytes : 0;
            if (!send(token, std::string(bytes, 'x'))) {
                _exit(1);
            }
        }
    }
};

TEST_P(BusLibraryChildrenTest, AllThatChildrenSendArrivesThoughTheyEndRightAfterIt) {
    ASSERT_NO_FATAL_FAILURE(joinByParameter());
    std::vector<pid_t> children;
    for (int child = 0; child < kChildren; ++child) {
        children.push_back(inChild([&] { sendAll(child); }));
    }
    for (const pid_t child : children) {
        expectEnded(child);
    }
    constexpr std::size_t kAll = kChildren * kMessagesEach;
    EXPECT_TRUE(_neighbour.pumpUntil([&] { return _neighbour.deliveries.size() >= kAll; }, 10'000));
    EXPECT_EQ(_neighbour.deliveries.size(), kAll);
    std::map<int, int> next;
    for (const RawBusClient::Delivery& delivery : _neighbour.deliveries) {
        int child = -1;
        int number = -1;
        ASSERT_EQ(sscanf(delivery.topic.c_str(), "out/%d/%d", &child, &number), 2);
        ASSERT_EQ(number, next[child]++) << "out of order";
        ASSERT_EQ(delivery.payload.size(), number == kMessagesEach - 2 ? kLargeBytes : 0U);
    }
}

INSTANTIATE_TEST_SUITE_P(Everywhere, BusLibraryChildrenTest,
                         testing::Values("mqtt+unix", "mqtt", "mqtts"), [](const auto& row) {
                             std::string name = row.param;
                             std::erase(name, '+');
                             return name;
                         });

TEST_F(BusLibraryForkTest, AChildReceivesNothingUntilItRejoins) {
    ASSERT_NO_FATAL_FAILURE(startBroker());
    ASSERT_NO_FATAL_FAILURE(join());
    _bus->addWantedToken("in.a");
    ASSERT_TRUE(_bus->awaitSubscriptions(5000));
    const pid_t child = inChild([this] {
        _payloads.clear();
        send("out.started", "");
        waitUntil([] { return false; }, 500);
        send("out.before", std::to_string(_payloads.size()));
        if (!_bus->rejoin()) {
            _exit(1);
        }
        send("out.rejoined", "");
        waitUntil([this] { return !_payloads.empty(); }, 5000);
        send("out.after", _payloads.empty() ? "nothing" : _payloads.front());
    });
    const auto reported = [&](const char* topic) {
        return _neighbour.pumpUntil(
            [&] {
                return std::any_of(_neighbour.deliveries.begin(), _neighbour.deliveries.end(),
                                   [&](const auto& d) { return d.topic == topic; });
            },
            5000);
    };
    ASSERT_TRUE(reported("out/started"));
    _neighbour.publish("in/a", "first");
    ASSERT_TRUE(reported("out/rejoined"));
    _neighbour.publish("in/a", "second");
    ASSERT_TRUE(reported("out/after"));
    expectEnded(child);
    EXPECT_EQ(neighboursPayloads(), (std::vector<std::string>{"", "0", "", "second"}));
    ASSERT_TRUE(waitUntil([&] { return _payloads.size() == 2; }, 2000));
    EXPECT_EQ(_payloads, (std::vector<std::string>{"first", "second"})) << "the parent got both";
}

TEST_F(BusLibraryForkTest, AChildInheritsNothingThatTheParentHadNotTakenIn) {
    ASSERT_NO_FATAL_FAILURE(startBroker());
    ASSERT_NO_FATAL_FAILURE(join());
    _bus->addWantedToken("in.a");
    ASSERT_TRUE(_bus->awaitSubscriptions(5000));
    _neighbour.publish("in/a", "the parent's");
    ASSERT_TRUE(_neighbour.flush(1000));
    _neighbour.pump(100);
    const pid_t child = inChild([this] {
        _bus->rejoin();
        _bus->readWaitingMessages(200);
        _exit(_payloads.empty() ? 0 : 1);
    });
    expectEnded(child);
    ASSERT_TRUE(waitUntil([&] { return !_payloads.empty(); }, 2000));
    EXPECT_EQ(_payloads, std::vector<std::string>{"the parent's"});
}

TEST_F(BusLibraryForkTest, ARejoinedChildComesBackAfterALossOfTheBroker) {
    ASSERT_NO_FATAL_FAILURE(startBroker());
    ASSERT_NO_FATAL_FAILURE(join());
    _bus->addWantedToken("in.a");
    const pid_t child = inChild([this] {
        _bus->rejoin();
        send("out.rejoined", "");
        waitUntil([this] { return !_payloads.empty(); }, 8000);
        send("out.after", _payloads.empty() ? "nothing" : _payloads.front());
    });
    ASSERT_TRUE(_neighbour.pumpUntil([&] { return !_neighbour.deliveries.empty(); }, 5000));
    _broker.kill();
    waitUntil([] { return false; }, 300);
    ASSERT_NO_FATAL_FAILURE(startBroker());
    _neighbour.pump(1000);
    _neighbour.publish("in/a", "again");
    EXPECT_TRUE(_neighbour.pumpUntil([&] { return _neighbour.deliveries.size() == 2; }, 5000));
    EXPECT_EQ(neighboursPayloads().back(), "again");
    expectEnded(child);
}

}  // namespace

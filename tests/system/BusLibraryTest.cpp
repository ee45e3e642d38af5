#include "tests/system/BusLibraryTest.h"

#include <unistd.h>

#include <cstdlib>
#include <ctime>

namespace {

using SteadyClock = std::chrono::steady_clock;

constexpr const char* kVariables[] = {"SCADA_BUS_URL", "SCADA_BUS_PREFIX", "SCADA_BUS_CAFILE",
                                      "SCADA_BUS_CERTFILE", "SCADA_BUS_KEYFILE"};
constexpr int kSliceMilliseconds = 20;

void clearEnvironment() {
    for (const char* name : kVariables) {
        unsetenv(name);
    }
}

}  // namespace

BusLibraryTest::BusLibraryTest() {
    clearEnvironment();
    _neighbour.subscribe("out/#");
}

BusLibraryTest::~BusLibraryTest() {
    _bus.reset();
    clearEnvironment();
}

void BusLibraryTest::startBroker() {
    _broker.start();
    ASSERT_TRUE(_neighbour.connect(5000));
}

void BusLibraryTest::join(const std::string& url) {
    setenv("SCADA_BUS_URL", (url.empty() ? _broker.url() : url).c_str(), 1);
    _bus = std::make_unique<PubSubInterface>(nullptr);
    ASSERT_TRUE(_bus->initialize("library", take, this, 0, 0, 0, IOPriority::Unchanged));
}

void BusLibraryTest::take(void* self, PubSubMessage* message) {
    auto& payloads = static_cast<BusLibraryTest*>(self)->_payloads;
    payloads.emplace_back(message->data, static_cast<std::size_t>(message->length));
}

bool BusLibraryTest::waitUntil(const std::function<bool()>& done, int milliseconds) {
    const auto start = SteadyClock::now();
    while (!done()) {
        if (millisecondsSince(start) >= milliseconds) {
            return false;
        }
        _bus->readWaitingMessages(kSliceMilliseconds);
    }
    return true;
}

bool BusLibraryTest::waitUntilConnected(int milliseconds) {
    return waitUntil([this] { return _bus->isConnected(); }, milliseconds);
}

bool BusLibraryTest::waitForBoth(const std::function<bool()>& done, int milliseconds) {
    return waitUntil(
        [&] {
            _neighbour.pump(1);
            return done();
        },
        milliseconds);
}

void BusLibraryTest::expectItExchangesMessages() {
    const std::string text = "exchange " + std::to_string(++_exchanges);
    if (_bus->findToken("in.exchange") < 0) {
        ASSERT_TRUE(_bus->addWantedToken("in.exchange"));
    }
    ASSERT_TRUE(_bus->awaitSubscriptions(5000));
    _payloads.clear();
    _neighbour.publish("in/exchange", text);
    ASSERT_TRUE(waitForBoth([&] { return !_payloads.empty(); }, 5000));
    EXPECT_EQ(_payloads, std::vector<std::string>{text});
    _neighbour.deliveries.clear();
    ASSERT_TRUE(send("out.exchange", text));
    ASSERT_TRUE(waitForBoth([&] { return !_neighbour.deliveries.empty(); }, 5000));
    EXPECT_EQ(neighboursPayloads(), std::vector<std::string>{text});
    _neighbour.deliveries.clear();
}

std::vector<std::string> BusLibraryTest::neighboursPayloads() const {
    std::vector<std::string> payloads;
    for (const RawBusClient::Delivery& delivery : _neighbour.deliveries) {
        payloads.push_back(delivery.payload);
    }
    return payloads;
}

bool BusLibraryTest::send(const std::string& token, const std::string& payload) {
    return _bus->sendToken(token.c_str(), payload.data(), static_cast<int>(payload.size()));
}

std::string BusLibraryTest::tlsListener(int port) {
    makeCertificate("server");
    return "listener " + std::to_string(port) + " 127.0.0.1\nallow_anonymous true\ncafile " +
           file("server.pem") + "\ncertfile " + file("server.pem") + "\nkeyfile " +
           file("server.key") + "\n";
}

void BusLibraryTest::makeCertificate(const std::string& name) {
    shell("openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=" + name +
          " -addext subjectAltName=IP:127.0.0.1 -keyout " + name + ".key -out " + name + ".pem");
}

void BusLibraryTest::shell(const std::string& command) const {
    const std::string all = "cd " + _broker.folder() + " && { " + command + "; } >/dev/null 2>&1";
    ASSERT_EQ(std::system(all.c_str()), 0) << command;
}

double BusLibraryTest::cpuSeconds() {
    timespec used{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
}

int BusLibraryTest::millisecondsSince(SteadyClock::time_point start) {
    return static_cast<int>(
        std::chrono::duration_cast<std::chrono::milliseconds>(SteadyClock::now() - start).count());
}

#include "tests/system/SystemTest.h"

#include <unistd.h>

namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;

class KeepAliveTest : public SystemTest {
protected:
    /// The watchdog looks between two waits, of which the longest before it fires is 10 s.
    static constexpr int kWatchdogMilliseconds = 30000;
    /// -7, as a parent sees it.
    static constexpr int kAbortedStatus = 249;
};

TEST_F(KeepAliveTest, AKeepAliveIsAnsweredWithTheProcessIdOnTheOwnToken) {
    ASSERT_NO_FATAL_FAILURE(startBoth());
    settle();
    for (const std::string& topic :
         {_daemon.commandTopic(), std::string(topics::kStorageManager)}) {
        _client.publish(topic, fromHex("00000000 00"));
        ASSERT_TRUE(_client.pumpUntil([&] { return deliveriesWaiting() > 0; }, 5000));
        EXPECT_EQ(_client.deliveries.front().topic, _daemon.replyTopic());
        EXPECT_EQ(toHex(_client.deliveries.front().payload),
                  toHex(fromHex("00000000 6900") + littleEndian(_daemon.pid())));
        _client.deliveries.clear();
    }
}

TEST_F(KeepAliveTest, WithoutKeepAlivesItEndsWithStatus249) {
    ASSERT_NO_FATAL_FAILURE(startBroker());
    const auto start = steady_clock::now();
    _daemon.start({.environment = {{"SCADA_BUS_URL", _broker.url()}}});
    EXPECT_EQ(_daemon.waitForExit(kWatchdogMilliseconds), kAbortedStatus);
    EXPECT_GE(steady_clock::now() - start, seconds(15));
    EXPECT_EQ(_daemon.logCount(lines::kAborting), 1);
    EXPECT_EQ(_daemon.logCount(lines::kKeepAlive), 0);
    EXPECT_EQ(_daemon.logLines().back(), lines::kExiting);
}

TEST_F(KeepAliveTest, WithoutABrokerTheWatchdogStillEndsIt) {
    _daemon.start({.environment = {{"SCADA_BUS_URL", _broker.url()}}});
    EXPECT_EQ(_daemon.waitForExit(kWatchdogMilliseconds), kAbortedStatus);
    EXPECT_EQ(_daemon.logCount(lines::kAborting), 1);
}

TEST_F(KeepAliveTest, NeitherRequestsNorMalformedPayloadsAreKeepAlives) {
    writeFile("/root/data/a.txt", "hello");
    ASSERT_NO_FATAL_FAILURE(startBoth());
    _client.sendKeepAlivesOn("");
    settle();
    const auto start = steady_clock::now();
    while (_daemon.isRunning() && steady_clock::now() - start < seconds(25)) {
        send(requests::open("/root/data/a.txt", kReadOnly));
        _client.publish(_daemon.commandTopic(), "");
        _client.publish(_daemon.commandTopic(), fromHex("00000000"));
        _client.publish(_daemon.commandTopic(), fromHex("00000000 00 00"));
        _client.publish(topics::kStorage, fromHex("00000000"));
        _client.pump(250);
    }
    EXPECT_EQ(_daemon.waitForExit(0), kAbortedStatus);
    EXPECT_GE(steady_clock::now() - start, seconds(15));
    EXPECT_LE(steady_clock::now() - start, seconds(19));
}

TEST_F(KeepAliveTest, AKeepAliveThatArrivedWhileItWasStoppedKeepsItAlive) {
    ASSERT_NO_FATAL_FAILURE(startBoth());
    _client.sendKeepAlivesOn("");
    settle();
    _daemon.pause();
    _client.publish(_daemon.commandTopic(), fromHex("00000000 00"));
    _client.pump(20000);
    EXPECT_EQ(deliveriesWaiting(), 0U);
    _daemon.resume();
    ASSERT_TRUE(_client.pumpUntil([&] { return deliveriesWaiting() > 0; }, 5000));
    EXPECT_EQ(_client.deliveries.front().topic, _daemon.replyTopic());
    EXPECT_FALSE(_daemon.waitForExit(3000).has_value());
    EXPECT_EQ(_daemon.logCount(lines::kAborting), 0);
}

TEST_F(KeepAliveTest, AKeepAliveThatArrivedDuringALongHashKeepsItAlive) {
    constexpr int kBytes = 400'000'000;
    writeFile("/root/data/long", "");
    ASSERT_EQ(truncate("/root/data/long", kBytes), 0);
    ASSERT_NO_FATAL_FAILURE(startBoth());
    _client.sendKeepAlivesOn("");
    const int handle = open("/root/data/long", kReadOnly);
    settle();
    const int hash = send(WireMessage(0x1404).integer(handle).integer(0).integer(kBytes));
    ASSERT_TRUE(_daemon.waitForLog("MESSAGE_FILE_GENERATE_HASH", 2000));
    // Stopped in the middle of the hash, so that the next thing it looks at is the watchdog.
    _daemon.pause();
    _client.publish(_daemon.commandTopic(), fromHex("00000000 00"));
    _client.pump(17000);
    ASSERT_EQ(deliveriesWaiting(), 0U);
    _daemon.resume();
    EXPECT_EQ(replyTo(hash, 20000).format, "iiB");
    EXPECT_TRUE(_client.pumpUntil([&] { return deliveriesWaiting() > 0; }, 5000));
    EXPECT_FALSE(_daemon.waitForExit(1000).has_value());
    EXPECT_EQ(_daemon.logCount(lines::kAborting), 0);
}

}  // namespace

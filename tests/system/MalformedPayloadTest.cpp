#include "tests/system/SystemTest.h"

#include <random>

namespace {

class MalformedPayloadTest : public SystemTest {
protected:
    std::vector<std::string> wantedTopics() const {
        return {_daemon.commandTopic(), topics::kStorage, topics::kStorageManager,
                topics::kDayFinished};
    }
};

/// Bytes that are not exactly one message, each wrong in another way.
std::vector<std::string> damagedMessages() {
    std::vector<std::string> damaged = {
        fromHex("00000000"),                            // no format
        fromHex("00000000 00 00"),                      // a keep-alive and a byte left over
        fromHex("00000000 69"),                         // a format without its NUL
        fromHex("00000000 6900"),                       // "i" without its integer
        fromHex("00000000 6900 000000"),                // an integer of three bytes
        fromHex("00000000 7800"),                       // an unknown letter
        fromHex("00000000 2000 00000000"),              // a blank for a letter
        fromHex("00000000 49 00 00000000"),             // "I" is not "i"
        fromHex("00000000 6300"),                       // "c" without its byte
        fromHex("00000000 5300 616263"),                // a string without its NUL
        fromHex("00000000 4200 000000"),                // a block with half a length
        fromHex("00000000 4200 05000000 61626364"),     // a block longer than what is there
        fromHex("00000000 4200 ffffffff 61626364"),     // 4 GiB
        fromHex("00000000 4200 00000080 61626364"),     // 2 GiB
        fromHex("00000000 4200 fcffffff 61626364"),     // 4 GiB less 4
        fromHex("01000000 4242 00 00000000 ffffffff"),  // a quit with a bad second block
        fromHex("01000000 00 00"),                      // a quit and a byte left over
        fromHex("00000000") + std::string(64, 'c') + std::string(65, '\0'),  // 64 letters
        std::string(1 << 20, 'i'),
        std::string(1 << 20, '\xFF'),
        "GET / HTTP/1.1\r\n\r\n",
    };
    const std::string whole =
        WireMessage(0x1400).text("/root/data/made").integer(3).block("abc").byte(1).encoded();
    for (std::size_t length = 0; length < whole.size(); ++length) {
        damaged.push_back(whole.substr(0, length));
    }
    std::mt19937 random(1);
    std::uniform_int_distribution<int> nonZero(1, 255);
    for (std::size_t length = 1; length < 200; ++length) {
        std::string bytes;
        for (std::size_t i = 0; i < length; ++i) {
            bytes += static_cast<char>(nonZero(random));
        }
        damaged.push_back(bytes);
    }
    return damaged;
}

TEST_F(MalformedPayloadTest, NothingMalformedIsAnsweredOnAnyToken) {
    ASSERT_NO_FATAL_FAILURE(startBoth());
    settle();
    const int keepAlives = _daemon.logCount(lines::kKeepAlive);
    for (const std::string& topic : wantedTopics()) {
        const std::string header = topic == topics::kStorage ? littleEndian(7) : "";
        for (const std::string& payload : damagedMessages()) {
            _client.publish(topic, header + payload);
        }
    }
    for (const char* tooShort : {"", "01", "0102", "010203"}) {
        _client.publish(topics::kStorage, fromHex(tooShort));
    }
    ASSERT_TRUE(_client.flush(5000));
    _client.pump(300);
    EXPECT_EQ(deliveriesWaiting(), 0U);
    EXPECT_EQ(_daemon.logCount(lines::kKeepAlive), keepAlives);
    EXPECT_FALSE(exists("/root/data/made"));
    EXPECT_TRUE(answersKeepAlive(5000));
    EXPECT_TRUE(_daemon.isRunning());
}

TEST_F(MalformedPayloadTest, AKeepAliveWithParametersIsStillOne) {
    ASSERT_NO_FATAL_FAILURE(startBoth());
    settle();
    _client.publish(_daemon.commandTopic(), WireMessage(0).integer(1).text("x").encoded());
    ASSERT_TRUE(_client.pumpUntil([&] { return deliveriesWaiting() > 0; }, 5000));
    EXPECT_EQ(_client.deliveries.front().topic, _daemon.replyTopic());
}

TEST_F(MalformedPayloadTest, RetainedMessagesAreIgnored) {
    ASSERT_NO_FATAL_FAILURE(startBroker());
    const std::string quit = WireMessage(1).encoded();
    _client.publish(topics::kStorageManager, quit, true);
    _client.publish(topics::kStorage,
                    littleEndian(7) + requests::open("/root/data/made", kReadWrite).encoded(),
                    true);
    ASSERT_TRUE(_client.flush(1000));
    _client.pump(50);
    ASSERT_NO_FATAL_FAILURE(startDaemon());
    settle();
    EXPECT_EQ(deliveriesWaiting(), 0U);
    EXPECT_FALSE(exists("/root/data/made"));
    EXPECT_TRUE(_daemon.isRunning());

    _client.publish(topics::kStorageManager, quit);
    EXPECT_EQ(_daemon.waitForExit(3000), 0);
}

TEST_F(MalformedPayloadTest, ATokenThatWasNotWantedIsNotHeard) {
    ASSERT_NO_FATAL_FAILURE(startBoth());
    const std::string quit = WireMessage(1).encoded();
    for (const char* topic : {"StorageManager", "StorageManager/to/x", "Message/storage/1",
                              "Message/ExtProc/to/1", "storageManager/to"}) {
        _client.publish(topic, quit);
    }
    settle();
    EXPECT_TRUE(_daemon.isRunning());
}

}  // namespace

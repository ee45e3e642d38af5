#include "tests/support/ChildProcess.h"
#include "tests/support/RawBusClient.h"
#include "tests/support/WireMessage.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <string>

namespace {

/// The broker as run, tests by hand and a unit's own configuration have it.
class PrivateBrokerTest : public testing::Test {
protected:
    void TearDown() override {
        if (brokerPid > 0) {
            kill(brokerPid, SIGKILL);
        }
        std::filesystem::remove_all(folder);
    }

    void startBroker() {
        starter.start({{PRIVATE_BROKER, folder}, {}, 0});
        ASSERT_EQ(starter.waitForExit(10'000), 0) << starter.log();
        const std::string log = starter.log();
        ASSERT_NE(log.find("export SCADA_BUS_URL='mqtt+unix://" + folder + "/bus'\n"),
                  std::string::npos);
        const std::string variable = "export SCADA_BROKER_PID=";
        const std::size_t place = log.find(variable);
        ASSERT_NE(place, std::string::npos);
        brokerPid = std::stoi(log.substr(place + variable.size()));
    }

    const std::string folder = "/tmp/private-broker";
    const std::string socketPath = folder + "/bus";
    ChildProcess starter;
    pid_t brokerPid = 0;
};

TEST_F(PrivateBrokerTest, ItTakesConnectionsOnceItHasSaidWhereItIs) {
    ASSERT_NO_FATAL_FAILURE(startBroker());
    RawBusClient client(socketPath);
    EXPECT_TRUE(client.connect(1'000));
}

TEST_F(PrivateBrokerTest, ASubscriberThatDoesNotReadFor10SecondsLosesNoneOf200000Messages) {
    constexpr int kMessages = 200'000;
    constexpr int kUnreadMilliseconds = 10'000;
    ASSERT_NO_FATAL_FAILURE(startBroker());
    RawBusClient reader(socketPath);
    reader.subscribe("stream");
    ASSERT_TRUE(reader.connect(5'000));
    RawBusClient writer(socketPath);
    ASSERT_TRUE(writer.connect(5'000));

    for (int i = 0; i < kMessages; ++i) {
        writer.publish("stream", littleEndian(i) + std::string(196, 'x'));
    }
    ASSERT_TRUE(writer.flush(kUnreadMilliseconds));
    poll(nullptr, 0, kUnreadMilliseconds);

    EXPECT_TRUE(reader.pumpUntil([&] { return reader.deliveries.size() == kMessages; }, 30'000));
    ASSERT_EQ(reader.deliveries.size(), kMessages);
    for (int i = 0; i < kMessages; ++i) {
        ASSERT_EQ(littleEndianAt(reader.deliveries[static_cast<std::size_t>(i)].payload), i);
    }
}

TEST_F(PrivateBrokerTest, ACommandRunsOnItAndGivesItsStatus) {
    starter.start({{PRIVATE_BROKER, folder, "sh", "-c", "echo on $SCADA_BUS_URL; exit 7"}, {}, 0});
    EXPECT_EQ(starter.waitForExit(10'000), 7);
    EXPECT_EQ(starter.logCount("on mqtt+unix://" + folder + "/bus"), 1);
    RawBusClient client(socketPath);
    EXPECT_FALSE(client.connect(200));
}

TEST_F(PrivateBrokerTest, AFolderWhoseNameIsTooLongForASocketIsRefused) {
    const std::string deep = folder + "/" + std::string(100, 'd');
    starter.start({{PRIVATE_BROKER, deep}, {}, 0});
    EXPECT_EQ(starter.waitForExit(10'000), 1);
    EXPECT_TRUE(starter.waitForLog("too long for a socket", 0));
}

}  // namespace

#include "tests/system/Recordings.h"
#include "tests/system/SystemTest.h"

#include <signal.h>

#include <chrono>

using namespace recordings;

namespace {

/// Where local midnight is two hours before that of UTC.
constexpr char kTimeZone[] = "EAST-2";
constexpr std::int32_t kLocalMay = kMay - 2 * 3600;
constexpr char kStart[] = "20240501120000";
constexpr std::int32_t kStartTime = kLocalMay + 12 * 3600;
constexpr int kJob = 1;

/// One item of a replay's block.
std::string item(char kind, const std::string& name, const std::string& value) {
    return kind + name + '\0' + value;
}

std::vector<std::string> gaugeItems(int channel, float first, float second, char status) {
    const std::string name = "G" + std::to_string(channel);
    return {item(1, name + "P", floatBytes(first)), item(1, name + "T", floatBytes(second)),
            item(0, name + "status", littleEndian(static_cast<unsigned char>(status)))};
}

/// The blocks that a day's records fill: every item at the start, counted as if behind the last.
std::vector<std::string> blocksOf(const std::vector<std::vector<std::string>>& records) {
    constexpr std::size_t kBlockBytes = 4096;
    std::vector<std::string> blocks;
    bool isFull = true;
    for (const std::vector<std::string>& record : records) {
        if (isFull) {
            blocks.emplace_back();
            isFull = false;
        }
        std::string& block = blocks.back();
        for (const std::string& bytes : record) {
            isFull = isFull || block.size() + bytes.size() > kBlockBytes;
            block.resize(block.size() + bytes.size());
            block.replace(0, bytes.size(), bytes);
        }
    }
    return blocks;
}

class ReplayTest : public SystemTest {
protected:
    void startUnit() {
        ASSERT_NO_FATAL_FAILURE(startBroker());
        ASSERT_NO_FATAL_FAILURE(startDaemon({.environment = {{"TZ", kTimeZone}}}));
        settle();
    }

    void publish(const WireMessage& message) {
        _client.publish(topics::kStorageManager, message.encoded());
    }
    void proceed(const std::string& options = "g1=3") {
        publish(WireMessage(232).integer(kJob).text(options));
    }
    void acknowledge(int sequence) { publish(WireMessage(234).integer(kJob).integer(sequence)); }

    /// Keep-alives are answered on the same token, by the worker too.
    std::vector<std::string> takeReplayed() {
        std::vector<std::string> payloads = takeAll(_daemon.replyTopic());
        std::erase_if(payloads, [](const std::string& payload) {
            return littleEndianAt(payload) == std::optional(0);
        });
        return payloads;
    }

    /// The next message of the worker, encoded; fails the test where none comes in time.
    std::string nextReplayed(int milliseconds = 10'000) {
        std::vector<std::string> arrived;
        const auto hasArrived = [&] {
            arrived = takeReplayed();
            return !arrived.empty();
        };
        EXPECT_TRUE(_client.pumpUntil(hasArrived, milliseconds)) << "no word of the worker";
        EXPECT_LE(arrived.size(), 1U) << "it did not wait for an acknowledgement";
        return arrived.empty() ? "" : arrived.front();
    }

    /// A worker that has told its job's number; returns its process.
    pid_t begin(const std::string& start = kStart) {
        publish(WireMessage(231).text("panel").text(start));
        EXPECT_EQ(nextReplayed(), WireMessage(232).integer(kJob).encoded());
        const std::vector<pid_t> all = children();
        EXPECT_EQ(all.size(), 1U);
        return all.empty() ? 0 : all.front();
    }

    void expectBlock(int sequence, const std::string& bytes) {
        EXPECT_EQ(toHex(nextReplayed()), toHex(WireMessage(233)
                                                   .integer(kJob)
                                                   .integer(sequence)
                                                   .integer(kStartTime)
                                                   .block(bytes)
                                                   .encoded()))
            << "block " << sequence;
    }

    void expectBlocksFrom(int first, const std::vector<std::string>& blocks) {
        for (std::size_t i = static_cast<std::size_t>(first); i <= blocks.size(); ++i) {
            ASSERT_NO_FATAL_FAILURE(expectBlock(static_cast<int>(i), blocks[i - 1]));
            acknowledge(static_cast<int>(i));
        }
    }

    void expectNoWordFor(int milliseconds) {
        _client.pump(milliseconds);
        EXPECT_TRUE(takeReplayed().empty());
    }

    /// The worker has ended, and said nothing more.
    void expectTheEnd() {
        EXPECT_TRUE(awaitChildren(0, 5000));
        expectNoWordFor(50);
    }

    static std::string gaugeFile(const std::string& day) {
        return "/root/data/gauges/" + day + "/g1/calcData.gdf";
    }

    /// A day of one gauge, a record a second; returns what a replay on channel 3 makes of it.
    static std::vector<std::string> recordGauge(int records) {
        writeFile(gaugeFile("2024-05-01"), gaugeDay(kLocalMay, 1, records));
        std::vector<std::vector<std::string>> items;
        for (int i = 0; i < records; ++i) {
            const auto value = static_cast<float>(i);
            items.push_back(gaugeItems(3, value, -value, static_cast<char>(i)));
        }
        return blocksOf(items);
    }
};

TEST_F(ReplayTest, ADayIsMergedByTimeIntoAcknowledgedBlocksAndTheNextDayFollows) {
    writeFile("/mmc/gauges/2024-05-01/g2/calcData.gdf",
              header(0) + absoluteTime(kLocalMay + 100) + gauge(7, 8, 9));
    writeFile("/root/data/system/2024-05-01/systemData.gdf",
              header(0) + absoluteTime(kLocalMay + 100) + '\xff' + floatBytes(1.5F) +
                  floatBytes(2.5F) + littleEndian(3) + littleEndian(4) + '\x05' + shortStep(200) +
                  '\xfc' + floatBytes(24) + floatBytes(2) + floatBytes(40) + "\xff\xee\xfd");
    writeFile(gaugeFile("2024-05-01"), gaugeDay(kLocalMay, 100, 3));
    writeFile("/root/data/gaugecards/2024-05-01/c1/rawData.gdf",
              header(0) + absoluteTime(kLocalMay + 100) + "\x5a" + littleEndian(-1) +
                  floatBytes(5.5F) + floatBytes(6.5F));
    writeFile("/root/data/gauges/2024-05-01/unnamed/calcData.gdf", gaugeDay(kLocalMay, 1, 3));
    writeFile(gaugeFile("2024-04-30"), gaugeDay(kLocalMay - kDaySeconds, 1, 3));
    writeFile(gaugeFile("2024-05-1"), gaugeDay(kLocalMay, 1, 3));
    writeFile(gaugeFile("2024-05-03"), gaugeDay(kLocalMay + 2 * kDaySeconds, 1, 1, 50));
    ASSERT_NO_FATAL_FAILURE(startUnit());
    begin();
    proceed("g1=3|c1= 12 |nothing|g2=-4");

    std::vector<std::vector<std::string>> firstDay{gaugeItems(3, 0, 0, 0)};
    firstDay.push_back(gaugeItems(-4, 7, 8, 9));
    firstDay.push_back({item(1, "Sambient", floatBytes(1.5F)), item(1, "Sdie", floatBytes(2.5F)),
                        item(0, "SfreeMemory", littleEndian(3)), item(1, "Sload", floatBytes(4)),
                        item(0, "Sconnections", littleEndian(5))});
    firstDay.push_back(gaugeItems(3, 1, -1, 1));
    firstDay.push_back({item(1, "LV", floatBytes(5.5F)), item(1, "LC", floatBytes(6.5F))});
    firstDay.push_back(gaugeItems(3, 2, -2, 2));
    firstDay.push_back({item(1, "SsysVoltage", floatBytes(24)),
                        item(1, "SsysCurrent", floatBytes(2)), item(1, "Stemp", floatBytes(40)),
                        item(0, "Sapvcc", littleEndian(0xeeff)),
                        item(0, "SsysFlags", littleEndian(0xfd))});
    std::vector<std::string> blocks = blocksOf(firstDay);
    blocks.push_back(blocksOf({gaugeItems(3, 50, -50, 0)}).front());
    ASSERT_EQ(blocks.size(), 2U);
    expectBlocksFrom(1, blocks);
    expectTheEnd();
    EXPECT_EQ(_daemon.logCount("HistoricalDataManager: Failed to find jobID 1"), 1)
        << "the daemon itself has no such job";
}

TEST_F(ReplayTest, EveryRecordOfALongDayComesInBlocksUpToTheLast) {
    const std::vector<std::string> blocks = recordGauge(1000);
    ASSERT_EQ(blocks.size(), 8U);
    ASSERT_NO_FATAL_FAILURE(startUnit());
    begin();
    proceed();
    expectBlocksFrom(1, blocks);
    expectTheEnd();
}

TEST_F(ReplayTest, OverTcpTheBlocksAreTheSame) {
    const std::vector<std::string> blocks = recordGauge(1000);
    const std::string port = std::to_string(Broker::freePort());
    _broker.addConfiguration("listener " + port + " 127.0.0.1\nallow_anonymous true\n");
    ASSERT_NO_FATAL_FAILURE(startBroker());
    ASSERT_NO_FATAL_FAILURE(startDaemon(
        {.environment = {{"TZ", kTimeZone}, {"SCADA_BUS_URL", "mqtt://127.0.0.1:" + port}}}));
    settle();
    begin();
    proceed();
    expectBlocksFrom(1, blocks);
    expectTheEnd();
}

TEST_F(ReplayTest, AnythingButItsOwnAcknowledgementLeavesItWaiting) {
    const std::vector<std::string> blocks = recordGauge(300);
    ASSERT_NO_FATAL_FAILURE(startUnit());
    begin();
    proceed();
    expectBlock(1, blocks[0]);
    for (const int wrong : {2, 0, -1}) {
        acknowledge(wrong);
    }
    publish(WireMessage(234).integer(kJob + 1).integer(1));
    publish(WireMessage(234));
    proceed();
    expectNoWordFor(1500);
    acknowledge(1);
    expectBlock(2, blocks[1]);
    acknowledge(1);
    expectNoWordFor(500);
    acknowledge(2);
    expectBlocksFrom(3, blocks);
    expectTheEnd();
}

TEST_F(ReplayTest, AQuitEndsAWorkerThatWaitsForAnAcknowledgement) {
    recordGauge(300);
    ASSERT_NO_FATAL_FAILURE(startUnit());
    begin();
    proceed();
    nextReplayed();
    publish(WireMessage(1));
    EXPECT_EQ(_daemon.waitForExit(3000), 0);
    expectTheEnd();
}

TEST_F(ReplayTest, AWorkerThatWaitsForAnAcknowledgementEndsWithAKilledDaemon) {
    recordGauge(300);
    ASSERT_NO_FATAL_FAILURE(startUnit());
    begin();
    proceed();
    nextReplayed();
    _client.sendKeepAlivesOn("");
    _client.pump(2500);
    ASSERT_EQ(children().size(), 1U);
    _daemon.kill();
    EXPECT_TRUE(awaitChildren(0, 2000));
}

TEST_F(ReplayTest, AWorkerThatWasNotToldToGoOnEndsWithAKilledDaemon) {
    ASSERT_NO_FATAL_FAILURE(startUnit());
    begin();
    _client.pump(2500);
    ASSERT_EQ(children().size(), 1U);
    _daemon.kill();
    EXPECT_TRUE(awaitChildren(0, 2000));
    ASSERT_NO_FATAL_FAILURE(startDaemon()) << "the unit is free for the next one";
}

TEST_F(ReplayTest, OthersAreServedWhileItRuns) {
    const std::string content = std::string(4096, 'x') + std::string(4096, 'y');
    writeFile("/root/data/a", content);
    writeFile("/root/data/from", "moved once");
    const std::vector<std::string> blocks = recordGauge(2000);
    ASSERT_NO_FATAL_FAILURE(startUnit());
    const int handle = open("/root/data/a", kReadOnly);
    const pid_t worker = begin();
    proceed();
    for (std::size_t i = 0; i < blocks.size(); ++i) {
        const int sequence = static_cast<int>(i) + 1;
        const int offset = sequence * 100;
        const int reader = send(requests::read(handle, offset, 4096));
        expectBlock(sequence, blocks[i]);
        if (i == 0) {
            ASSERT_EQ(kill(worker, SIGSTOP), 0);
            EXPECT_EQ(ask(requests::move("/root/data/from", "/root/data/to")).format, "SS");
            ASSERT_EQ(kill(worker, SIGCONT), 0);
        }
        const WireMessage reply = replyTo(reader);
        ASSERT_EQ(reply.format, "iiB");
        EXPECT_EQ(reply.bytes(2), content.substr(static_cast<std::size_t>(offset), 4096));
        acknowledge(sequence);
    }
    expectTheEnd();
    EXPECT_TRUE(takeReplies().empty()) << "a request was answered twice";
    EXPECT_EQ(readFile("/root/data/to"), "moved once");
}

TEST_F(ReplayTest, ItGoesOnWhereItWasWhenTheBrokerComesBack) {
    const std::vector<std::string> blocks = recordGauge(1000);
    ASSERT_NO_FATAL_FAILURE(startUnit());
    begin();
    proceed();
    expectBlock(1, blocks[0]);
    acknowledge(1);
    expectBlock(2, blocks[1]);
    _broker.kill();
    _client.pump(500);
    ASSERT_NO_FATAL_FAILURE(startBroker());
    // Until it listens again, an acknowledgement is lost.
    std::vector<std::string> arrived;
    for (int tries = 0; arrived.empty() && tries < 100; ++tries) {
        acknowledge(2);
        _client.pump(50);
        arrived = takeReplayed();
    }
    ASSERT_EQ(arrived.size(), 1U);
    EXPECT_EQ(
        arrived.front(),
        WireMessage(233).integer(kJob).integer(3).integer(kStartTime).block(blocks[2]).encoded());
    acknowledge(3);
    expectBlocksFrom(4, blocks);
    expectTheEnd();
    EXPECT_EQ(ask(requests::open("/root/data/a", kReadWrite)).format, "Sii");
}

TEST_F(ReplayTest, AStartThatIsNoTimeLeavesTheWorkerRunning) {
    recordGauge(10);
    ASSERT_NO_FATAL_FAILURE(startUnit());
    begin("2024-05-01");
    proceed();
    proceed();
    expectNoWordFor(500);
    EXPECT_EQ(children().size(), 1U);
}

TEST_F(ReplayTest, TheDaemonItselfHasNoJobs) {
    recordGauge(10);
    ASSERT_NO_FATAL_FAILURE(startUnit());
    publish(WireMessage(232).integer(5).text("g1=3"));
    acknowledge(1);
    EXPECT_TRUE(_daemon.waitForLog("HistoricalDataManager: Failed to find jobID 5\n", 2000));
    expectNoWordFor(100);
    EXPECT_TRUE(answersKeepAlive(1000));
}

/// Waits for the minute without an acknowledgement to be over.
using ReplayTimeoutTest = ReplayTest;

TEST_F(ReplayTimeoutTest, WithoutAnAcknowledgementItEndsAfterAMinute) {
    using Clock = std::chrono::steady_clock;
    const std::vector<std::string> blocks = recordGauge(300);
    ASSERT_NO_FATAL_FAILURE(startUnit());
    begin();
    _client.pump(3000);
    proceed();
    expectBlock(1, blocks[0]);
    acknowledge(1);
    const Clock::time_point acknowledged = Clock::now();
    expectBlock(2, blocks[1]);
    EXPECT_FALSE(awaitChildren(0, 59'000));
    // It looks at the time whenever something, such as a keep-alive, arrives.
    EXPECT_TRUE(awaitChildren(0, 6000));
    EXPECT_GE(Clock::now() - acknowledged, std::chrono::seconds(60));
    expectNoWordFor(50);
    EXPECT_TRUE(answersKeepAlive(1000));
}

}  // namespace

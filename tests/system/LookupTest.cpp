#include "tests/system/Recordings.h"
#include "tests/system/SystemTest.h"

#include <algorithm>
#include <map>

using namespace recordings;

namespace {

constexpr int kMinutes = 30;
constexpr char kDropped[] = "scada-storage-process: too many children, request dropped";

struct Query {
    int selector = 0;
    int tag = 0;
    std::string date = "2024-05-01";
    std::string time = "00:00:00";
    std::string gauges = "g1";
};

WireMessage lookup(const Query& query) {
    return WireMessage(230)
        .text("well7")
        .integer(query.selector)
        .integer(query.tag)
        .text(query.date)
        .text(query.time)
        .text(query.gauges);
}

std::string dataFile(const std::string& root, const std::string& day, const std::string& gauge) {
    return root + "/well7/gauges/" + day + "/" + gauge + "/calcData.gdf";
}

std::string gaugeReply(const Query& query, int index, const std::string& bytes) {
    return WireMessage(1)
        .integer(index)
        .integer(query.selector)
        .integer(query.tag)
        .block(bytes)
        .encoded();
}

std::string endReply(const Query& query, std::int32_t start) {
    return WireMessage(0).integer(query.selector).integer(query.tag).integer(start).encoded();
}

std::vector<std::string> hex(const std::vector<std::string>& payloads) {
    std::vector<std::string> all;
    std::transform(payloads.begin(), payloads.end(), std::back_inserter(all),
                   [](const std::string& payload) { return toHex(payload); });
    return all;
}

class LookupTest : public SystemTest {
protected:
    void ask(const Query& query) {
        _client.publish(topics::kStorageManager, lookup(query).encoded());
    }

    std::size_t answersWaiting() const {
        return static_cast<std::size_t>(std::count_if(
            _client.deliveries.begin(), _client.deliveries.end(),
            [](const auto& delivery) { return delivery.topic == topics::kGaugeData; }));
    }

    /// Takes what is sent until there are `count` replies and no child is left to send another.
    std::vector<std::string> answers(std::size_t count, int milliseconds = 10'000) {
        EXPECT_TRUE(_client.pumpUntil([&] { return answersWaiting() >= count; }, milliseconds))
            << answersWaiting() << " of " << count;
        EXPECT_TRUE(awaitChildren(0, 5000));
        _client.pump(50);
        return takeAll(topics::kGaugeData);
    }

    /// Asks for the same gauge so often; returns the answers that are due.
    std::vector<std::string> askForMany(int gauges) {
        Query query{.tag = 1};
        std::vector<std::string> expected{gaugeReply(query, 0, floats(1, kMinutes))};
        for (int i = 1; i < gauges; ++i) {
            query.gauges += "\ng1";
            expected.push_back(gaugeReply(query, i, floats(1, kMinutes)));
        }
        expected.push_back(endReply(query, kMay));
        ask(query);
        return expected;
    }

    /// What the client sends in `publishAll` reaches the daemon as one batch, and the broker is
    /// then stopped: a child that has something to send stays where it is.
    void handOverAndStopTheBroker(const std::function<void()>& publishAll) {
        _daemon.pause();
        publishAll();
        handOver();
        _broker.pause();
        _daemon.resume();
    }

    /// A minute's value a minute, from midnight on.
    static void recordGauge(const std::string& root, const std::string& gauge, float first) {
        writeFile(dataFile(root, "2024-05-01", gauge), gaugeDay(kMay, 60, 40, first));
    }
};

TEST_F(LookupTest, EveryGaugeIsAnsweredInOrderAndThenTheEnd) {
    recordGauge("/root/data", "g1", 100);
    recordGauge("/mmc", "g2", 200);
    recordGauge("/mmc", "g1", 900);
    ASSERT_NO_FATAL_FAILURE(startBoth());
    const Query first{.selector = 0, .tag = 71, .time = "00:05:00", .gauges = "g2\n\ng1"};
    ask(first);
    EXPECT_EQ(hex(answers(4)),
              hex({gaugeReply(first, 0, floats(205, kMinutes)), gaugeReply(first, 1, ""),
                   gaugeReply(first, 2, floats(105, kMinutes)), endReply(first, kMay + 300)}));
    const Query second{.selector = -2, .tag = -71, .time = "00:30:00", .gauges = "g1\nmissing"};
    ask(second);
    EXPECT_EQ(hex(answers(3)), hex({gaugeReply(second, 0, floats(-130, 10, -1)),
                                    gaugeReply(second, 1, ""), endReply(second, kMay + 1800)}));
    EXPECT_EQ(_daemon.logCount("HistoricalDataManager: Historical data lookup process launched"),
              2);
}

TEST_F(LookupTest, ARemoteClientsLookupIsAnsweredOnTheSameToken) {
    recordGauge("/root/data", "g1", 1);
    ASSERT_NO_FATAL_FAILURE(startBoth());
    const Query query{.tag = 5};
    send(lookup(query));
    EXPECT_EQ(hex(answers(2)),
              hex({gaugeReply(query, 0, floats(1, kMinutes)), endReply(query, kMay)}));
    EXPECT_TRUE(takeReplies().empty());
}

TEST_F(LookupTest, HalfAnHourThatCrossesMidnightIsReadFromBothDays) {
    constexpr std::int32_t kQuarterBefore = kMay + kDaySeconds - 900;
    writeFile(dataFile("/mmc", "2024-05-01", "g1"), gaugeDay(kQuarterBefore, 60, 15, 1));
    writeFile(dataFile("/root/data", "2024-05-02", "g1"), gaugeDay(kMay + kDaySeconds, 60, 40, 16));
    ASSERT_NO_FATAL_FAILURE(startBoth());
    const Query query{.tag = 9, .time = "23:45:00"};
    ask(query);
    EXPECT_EQ(hex(answers(2)),
              hex({gaugeReply(query, 0, floats(1, kMinutes)), endReply(query, kQuarterBefore)}));
}

TEST_F(LookupTest, SeveralAtOnceAreEachAnsweredWholeAndInTheirOrder) {
    constexpr int kLookups = 8;
    for (int i = 0; i < kLookups; ++i) {
        recordGauge("/root/data", "g" + std::to_string(i), static_cast<float>(1000 * i + 1));
    }
    ASSERT_NO_FATAL_FAILURE(startBoth());
    std::map<int, std::vector<std::string>> expected;
    for (int i = 0; i < kLookups; ++i) {
        const std::string gauge = "g" + std::to_string(i);
        const Query query{.selector = i % 2, .tag = i, .gauges = gauge + "\nnone\n" + gauge};
        const auto first = static_cast<float>(1000 * i + 1);
        const std::string bytes =
            i % 2 == 0 ? floats(first, kMinutes) : floats(-first, kMinutes, -1);
        expected[i] = {gaugeReply(query, 0, bytes), gaugeReply(query, 1, ""),
                       gaugeReply(query, 2, bytes), endReply(query, kMay)};
        ask(query);
    }
    std::map<int, std::vector<std::string>> answered;
    for (const std::string& payload : answers(4 * kLookups)) {
        const WireMessage reply = WireMessage::decoded(payload).value_or(WireMessage(-1));
        ASSERT_GE(reply.values.size(), 3U);
        answered[reply.number(reply.command == 1 ? 2 : 1)].push_back(payload);
    }
    EXPECT_EQ(answered, expected);
}

TEST_F(LookupTest, OfSeventyThreeEightRunTheOthersWaitInOrderAndTheLastIsDropped) {
    constexpr int kRunning = 8;
    constexpr int kAnswered = kRunning + 64;
    recordGauge("/root/data", "g1", 1);
    ASSERT_NO_FATAL_FAILURE(startBoth());
    handOverAndStopTheBroker([this] {
        for (int tag = 0; tag <= kAnswered; ++tag) {
            ask({.tag = tag});
        }
    });
    ASSERT_TRUE(_daemon.waitForLog(kDropped, 3000));
    EXPECT_TRUE(awaitChildren(kRunning, 1000)) << children().size();
    _broker.resume();

    std::vector<int> ended;
    for (const std::string& payload : answers(2 * kAnswered)) {
        const WireMessage reply = WireMessage::decoded(payload).value_or(WireMessage(-1));
        if (reply.command == 0) {
            ended.push_back(reply.number(1));
        }
    }
    ASSERT_EQ(ended.size(), static_cast<std::size_t>(kAnswered));
    for (int place = 0; place < kAnswered; ++place) {
        // When it began, at most seven of those before it had not ended.
        EXPECT_GE(place, ended[static_cast<std::size_t>(place)] - kRunning + 1);
    }
    std::sort(ended.begin(), ended.end());
    EXPECT_EQ(std::unique(ended.begin(), ended.end()), ended.end());
    EXPECT_EQ(ended.back(), kAnswered - 1);
    EXPECT_EQ(_daemon.logCount(kDropped), 1);

    const Query next{.tag = kAnswered + 1};
    ask(next);
    EXPECT_EQ(answers(2).back(), endReply(next, kMay));
}

TEST_F(LookupTest, OverTcpTheLastBytesOfAChildThatHasEndedAreNotLost) {
    constexpr int kGauges = 400;
    const std::string address = "127.0.0.1:" + std::to_string(Broker::freePort());
    _broker.addConfiguration("listener " + address.substr(address.find(':') + 1) +
                             " 127.0.0.1\nallow_anonymous true\n");
    recordGauge("/root/data", "g1", 1);
    ASSERT_NO_FATAL_FAILURE(startBroker());
    ASSERT_NO_FATAL_FAILURE(startDaemon({.environment = {{"SCADA_BUS_URL", "mqtt://" + address}}}));
    const std::vector<std::string> expected = askForMany(kGauges);
    ASSERT_TRUE(_client.pumpUntil([&] { return answersWaiting() > 0; }, 5000));
    _broker.pause();
    // It ends while the broker still has to read most of what it sent.
    EXPECT_TRUE(awaitChildren(0, 5000));
    EXPECT_LT(answersWaiting(), expected.size());
    _broker.resume();
    EXPECT_EQ(hex(answers(expected.size())), hex(expected));
}

TEST_F(LookupTest, AChildWhoseAnswersNobodyTakesWaitsAndLosesNone) {
    // More than a socket holds.
    constexpr int kGauges = 3000;
    recordGauge("/root/data", "g1", 1);
    ASSERT_NO_FATAL_FAILURE(startBoth());
    const std::vector<std::string> expected = askForMany(kGauges);
    ASSERT_TRUE(_client.pumpUntil([&] { return answersWaiting() > 0; }, 5000));
    _broker.pause();
    EXPECT_FALSE(awaitChildren(0, 1500));
    _broker.resume();
    EXPECT_EQ(hex(answers(expected.size())), hex(expected));
}

/// These wait for children to end that nobody ends.
class InvalidLookupTest : public LookupTest {
protected:
    static constexpr int kLifeMilliseconds = 45'000;
};

TEST_F(InvalidLookupTest, NothingIsSentTheParentServesOnAndTheChildrenAreGoneWithin45Seconds) {
    const std::pair<const char*, const char*> moments[] = {{"2024-02-30", "00:00:00"},
                                                           {"2024-5-1", "00:00:00"},
                                                           {"2024-05-01", "24:00:00"},
                                                           {"2024-05-01", "0:00"},
                                                           {"", ""},
                                                           {"01.05.2024", "00:00:00"},
                                                           {"2024-05-01", ""},
                                                           {"2024-05-01 ", "00:00:00"}};
    recordGauge("/root/data", "g1", 1);
    for (std::size_t i = 0; i < std::size(moments); ++i) {
        writeFile("/root/data/from/" + std::to_string(i), "moved once");
    }
    writeFile("/root/data/to/x", "");
    ASSERT_NO_FATAL_FAILURE(startBoth());
    settle();
    _daemon.pause();
    std::vector<int> moves;
    for (std::size_t i = 0; i < std::size(moments); ++i) {
        ask({.tag = 1, .date = moments[i].first, .time = moments[i].second});
        _client.publish(_daemon.commandTopic(), WireMessage(0).encoded());
        const std::string name = std::to_string(i);
        moves.push_back(send(requests::move("/root/data/from/" + name, "/root/data/to/" + name)));
    }
    handOver();
    _daemon.resume();
    for (const int move : moves) {
        EXPECT_EQ(replyTo(move).format, "SS");
    }
    EXPECT_EQ(children().size(), 4U) << "the others were dropped";
    const Query valid{.tag = 2};
    ask(valid);
    ASSERT_TRUE(_client.pumpUntil([&] { return answersWaiting() >= 2; }, 5000));
    EXPECT_EQ(endReply(valid, kMay), takeAll(topics::kGaugeData).back());

    EXPECT_TRUE(awaitChildren(0, kLifeMilliseconds));
    EXPECT_TRUE(takeReplies().empty()) << "a request was answered twice";
    EXPECT_TRUE(takeAll(topics::kGaugeData).empty());
    const std::vector<std::string> keepAlives = takeAll(_daemon.replyTopic());
    EXPECT_GT(keepAlives.size(), std::size(moments));
    for (const std::string& payload : keepAlives) {
        EXPECT_EQ(payload, WireMessage(0).integer(_daemon.pid()).encoded());
    }
    EXPECT_EQ(deliveriesWaiting(), 0U);
    for (std::size_t i = 0; i < std::size(moments); ++i) {
        EXPECT_EQ(readFile("/root/data/to/" + std::to_string(i)), "moved once");
    }
    EXPECT_TRUE(answersKeepAlive(1000));
}

TEST_F(InvalidLookupTest, AKilledDaemonTakesThemWithIt) {
    ASSERT_NO_FATAL_FAILURE(startBoth());
    ask({.date = "never"});
    ask({.date = "never"});
    ASSERT_TRUE(awaitChildren(2, 3000));
    // Idle for so long, they are deep in a wait.
    _client.pump(2500);
    ASSERT_EQ(children().size(), 2U);
    _daemon.kill();
    EXPECT_TRUE(awaitChildren(0, 2000));
}

}  // namespace

#include "tests/system/SystemTest.h"

#include <map>
#include <random>
#include <set>

namespace {

/// A load in which every request has a connection number and every effect a name of its own, so
/// that the disk tells afterwards what was carried out, and how often.
class BrokerKillTest : public SystemTest {
protected:
    static constexpr int kKills = 10;
    static constexpr std::size_t kInFlight = 64;
    static constexpr int kLeastLoad = 300;
    static constexpr int kMostLoad = 700;
    static constexpr int kSources = (kKills + 1) * kMostLoad;

    enum class Kind { Move, Open, Append, Read };
    struct Request {
        Kind kind = Kind::Move;
        int number = 0;
    };

    static std::string source(int n) { return "/root/data/from/" + std::to_string(n); }
    static std::string target(int n) { return "/root/data/to/" + std::to_string(n); }
    static std::string log(int n) { return "/root/data/log/" + std::to_string(n); }
    static std::string content(int n) { return "content " + std::to_string(n) + "\n"; }

    void issue(Kind kind, int number, const WireMessage& message) {
        const int connection = send(message);
        _underWay[connection] = {kind, number};
        _all[connection] = {kind, number};
    }

    void issueNext() {
        const int number = _next++;
        switch (number % 3) {
            case 0:
                issue(Kind::Move, number, requests::move(source(number), target(number)));
                break;
            case 1:
                issue(Kind::Open, number, requests::open(log(number), kWriteAppend));
                break;
            default:
                issue(Kind::Read, number, requests::open(source(number), kReadOnly));
        }
    }

    void take(const Reply& reply) {
        ASSERT_TRUE(_all.contains(reply.connection)) << "an answer to nobody's request";
        ASSERT_TRUE(_answered.insert(reply.connection).second) << "answered twice";
        _underWay.erase(reply.connection);
        const Request request = _all[reply.connection];
        const std::optional<WireMessage> message = WireMessage::decoded(reply.payload);
        ASSERT_TRUE(message.has_value());
        switch (request.kind) {
            case Kind::Move:
                ASSERT_EQ(message->format, "SS") << "a move that was carried out twice fails";
                ASSERT_EQ(message->bytes(1), target(request.number));
                _moved.insert(request.number);
                break;
            case Kind::Open:
                ASSERT_EQ(message->format, "Sii");
                ASSERT_EQ(message->bytes(0), log(request.number));
                ASSERT_EQ(message->number(2), 0) << "the log was there before";
                issue(Kind::Append, request.number,
                      requests::write(message->number(1), 0, content(request.number)));
                break;
            case Kind::Append:
                if (message->format == "ii") {
                    _appended.insert(request.number);
                }
                break;
            case Kind::Read:
                ASSERT_EQ(message->format, "Sii");
                ASSERT_EQ(message->bytes(0), source(request.number));
                ASSERT_EQ(message->number(2), static_cast<int>(content(request.number).size()));
                break;
        }
    }

    void takeAll() {
        for (const Reply& reply : takeReplies()) {
            ASSERT_NO_FATAL_FAILURE(take(reply));
        }
    }

    /// Issues `count` requests, keeping kInFlight of them under way.
    void load(int count) {
        for (const int end = _next + count; _next < end;) {
            while (_next < end && _underWay.size() < kInFlight) {
                issueNext();
            }
            ASSERT_TRUE(_client.pumpUntil([&] { return repliesWaiting() > 0; }, 5000));
            ASSERT_NO_FATAL_FAILURE(takeAll());
        }
    }

    void restartBroker() {
        _broker.kill();
        // What the broker had already handed over still counts.
        _client.pump(20);
        ASSERT_NO_FATAL_FAILURE(takeAll());
        _underWay.clear();
        ASSERT_NO_FATAL_FAILURE(startBroker());
        ASSERT_TRUE(answersKeepAlive(2000));
    }

    void checkDisk() {
        int moves = 0;
        int appends = 0;
        for (int n = 0; n < kSources; ++n) {
            const bool atSource = readFile(source(n)) == content(n);
            const bool atTarget = readFile(target(n)) == content(n);
            EXPECT_NE(atSource, atTarget) << "moved twice, or destroyed: " << n;
            EXPECT_TRUE(atTarget || !_moved.contains(n)) << "a move that was none: " << n;
            moves += atTarget ? 1 : 0;
            const std::string logged = readFile(log(n));
            EXPECT_TRUE(logged.empty() || logged == content(n)) << "appended twice: " << n;
            EXPECT_TRUE(!logged.empty() || !_appended.contains(n))
                << "a write that was none: " << n;
            appends += logged.empty() ? 0 : 1;
        }
        RecordProperty("moves", moves);
        RecordProperty("appends", appends);
        EXPECT_GE(moves, static_cast<int>(_moved.size()));
        EXPECT_GT(_moved.size(), 100U);
        EXPECT_GT(_appended.size(), 100U);
    }

    int _next = 0;
    std::map<int, Request> _all;
    std::map<int, Request> _underWay;
    std::set<int> _answered;
    std::set<int> _moved;
    std::set<int> _appended;
};

TEST_F(BrokerKillTest, TenKillsUnderLoadCarryOutNothingTwiceAndAnswerNothingFalsely) {
    for (int n = 0; n < kSources; ++n) {
        writeFile(source(n), content(n));
    }
    for (const char* folder : {"/root/data/to/x", "/root/data/log/x"}) {
        writeFile(folder, "");
    }
    ASSERT_NO_FATAL_FAILURE(startBoth());
    std::mt19937 random(20240229);
    std::uniform_int_distribution<int> count(kLeastLoad, kMostLoad);
    for (int i = 0; i < kKills; ++i) {
        ASSERT_NO_FATAL_FAILURE(load(count(random)));
        ASSERT_GT(_underWay.size(), 0U) << "there was no load";
        ASSERT_NO_FATAL_FAILURE(restartBroker()) << "kill " << i;
    }
    ASSERT_NO_FATAL_FAILURE(load(kLeastLoad));
    settle();
    ASSERT_NO_FATAL_FAILURE(takeAll());
    checkDisk();
}

}  // namespace

#include "tests/support/DownloadDecoder.h"
#include "tests/system/Recordings.h"
#include "tests/system/SystemTest.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <map>
#include <random>
#include <set>
#include <thread>

using namespace recordings;

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kInvalidLookups = 100;
constexpr int kReplays = 100;
constexpr int kLookups = 200;
constexpr int kMoves = 150;
constexpr int kAppends = 150;
constexpr int kRewrites = 100;
/// So many more of each when the workers listen to the bus themselves.
constexpr int kLater = 50;
constexpr int kReads = 300;
constexpr int kFiles = 10;

constexpr int kRunningLookups = 8;
constexpr int kWaitingLookups = 64;
constexpr int kReplayWorkers = 8;
constexpr int kInvalidChildren = 4;
/// The daemon, its children, and the one of a thumbnail day.
constexpr int kMostProcesses = 1 + kRunningLookups + kReplayWorkers + kInvalidChildren + 1;
static_assert(kMostProcesses == 22);

constexpr std::int32_t kJune = kMay + 31 * kDaySeconds;
constexpr char kRead[] = "/root/data/read";
constexpr char kDownload[] = "/root/data/download";
constexpr int kDownloads = 8;
constexpr int kFirstDownload = 77;  ///< its connection, and its transfer's number

std::string path(const std::string& folder, int n) {
    return "/root/data/" + folder + "/" + std::to_string(n);
}

int millisecondsSince(Clock::time_point begin) {
    const auto elapsed = Clock::now() - begin;
    return static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count());
}

std::string reportTopic(int connection) {
    return "ConnectionManager/writeCount/" + std::to_string(connection);
}

std::string content(int n) {
    return "content " + std::to_string(n) + "\n";
}

/// Everything that a child must leave to its parent is there when the burst comes: downloads under
/// way, open handles, queued thumbnail days, and a full batch of requests.
class BurstTest : public SystemTest {
protected:
    void record() {
        for (int n = 0; n < kMoves + kLater; ++n) {
            writeFile(path("from", n), content(n));
        }
        writeFile("/root/data/to/x", "");
        for (int n = 0; n < kFiles; ++n) {
            writeFile(path("log", n), "");
            writeFile(path("rewritten", n), "to be truncated");
        }
        std::mt19937 random(77);
        for (int i = 0; i < 2'000'000; ++i) {
            _download += static_cast<char>(random());
        }
        writeFile(kDownload, _download);
        writeFile(kRead, _download.substr(0, 8192));
        for (const int day : {1, 2, 3}) {
            writeFile(wellDayFile(day), wellDay(day));
        }
        // Empty records keep the first day's child busy meanwhile.
        std::filesystem::resize_file(wellDayFile(1), 64 * 1024 * 1024);
        writeFile("/root/data/well7/gauges/2024-06-01/g1/calcData.gdf", gaugeDay(kJune, 60, 40));
        writeFile("/root/data/gauges/2024-06-01/g1/calcData.gdf", gaugeDay(kJune, 60, 1));
    }

    void openHandles() {
        _read = open(kRead, kReadOnly);
        for (int n = 0; n < kFiles; ++n) {
            _logs.push_back(open(path("log", n), kWriteAppend));
            _rewritten.push_back(open(path("rewritten", n), kReadWrite));
        }
    }

    void startDownloads() {
        for (int n = 0; n < kDownloads; ++n) {
            const int connection = kFirstDownload + n;
            _decoders[connection];
            sendFrom(connection, WireMessage(0x14B0).integer(connection).text(kDownload).encoded());
            // Reports are heard from here on.
            EXPECT_EQ(nextMessage("ConnectionManager/to").command, 80);
        }
        reportQueuesEmpty();
        ASSERT_TRUE(_client.pumpUntil(
            [&] {
                takeDownloads();
                return std::none_of(_decoders.begin(), _decoders.end(), [](const auto& entry) {
                    return entry.second.records().empty();
                });
            },
            5000));
    }

    void reportQueuesEmpty() {
        for (const auto& [connection, decoder] : _decoders) {
            _client.publish(reportTopic(connection),
                            WireMessage(80).integer(connection).integer(0).encoded());
        }
    }

    void takeDownloads() {
        for (Reply& reply : takeReplies()) {
            const auto decoder = _decoders.find(reply.connection);
            if (decoder == _decoders.end()) {
                _replies.push_back(std::move(reply));
                continue;
            }
            const auto piece = WireMessage::decoded(reply.payload);
            ASSERT_TRUE(piece && piece->format == "iB") << toHex(reply.payload);
            EXPECT_EQ(piece->number(0), reply.connection);
            decoder->second.add(piece->bytes(1));
        }
    }

    void command(const WireMessage& message) {
        _client.publish(topics::kStorageManager, message.encoded());
    }

    void expectOfNext(const WireMessage& request, const WireMessage& reply) {
        _expected[send(request)] = reply.encoded();
    }

    void sendLookup(int tag, const std::string& date) {
        command(WireMessage(230)
                    .text("well7")
                    .integer(0)
                    .integer(tag)
                    .text(date)
                    .text("00:00:00")
                    .text("g1\nnone"));
    }

    void sendMove(int n) {
        const WireMessage move = requests::move(path("from", n), path("to", n));
        expectOfNext(move, move);
    }

    void sendAppend(int n) {
        const int handle = _logs[static_cast<std::size_t>(n % kFiles)];
        expectOfNext(requests::write(handle, 0, content(n)),
                     WireMessage(0x1403).integer(handle).integer(
                         static_cast<std::int32_t>(content(n).size())));
    }

    /// Repeated behind the write, the truncation would take it away.
    void sendRewrite(int n) {
        const int handle = _rewritten[static_cast<std::size_t>(n % kFiles)];
        expectOfNext(WireMessage(0x1405).integer(handle).integer(0),
                     WireMessage(0x1405).integer(handle));
        expectOfNext(requests::write(handle, 0, content(n)),
                     WireMessage(0x1403).integer(handle).integer(
                         static_cast<std::int32_t>(content(n).size())));
    }

    void sendRead(int n) {
        expectOfNext(requests::read(_read, n, 4096),
                     WireMessage(0x1402).integer(_read).integer(n).block(
                         _download.substr(static_cast<std::size_t>(n), 4096)));
    }

    void sendBurst() {
        for (const int day : {1, 2, 3}) {
            command(WireMessage(220).text("well7").text("2024-05-0" + std::to_string(day)));
        }
        for (int i = 0; i < kReads; ++i) {
            sendRead(i);
            const auto sendBelow = [i](int count, const auto& sendOne) {
                if (i < count) {
                    sendOne(i);
                }
            };
            sendBelow(kInvalidLookups, [this](int n) { sendLookup(-1 - n, "2024-06-31"); });
            sendBelow(kMoves, [this](int n) { sendMove(n); });
            sendBelow(kReplays, [this](int) {
                command(WireMessage(231).text("panel").text("20240501000000"));
            });
            sendBelow(kAppends, [this](int n) { sendAppend(n); });
            sendBelow(kLookups, [this](int n) { sendLookup(n, "2024-06-01"); });
            sendBelow(kRewrites, [this](int n) { sendRewrite(n); });
            sendBelow(1, [this](int) { reportQueuesEmpty(); });
        }
    }

    void sendLater() {
        for (int n = 0; n < kLater; ++n) {
            sendMove(kMoves + n);
            sendAppend(kAppends + n);
            sendRewrite(kRewrites + n);
        }
    }

    void expectAllAnswered() {
        const auto areAnswered = [this] {
            takeDownloads();
            return _replies.size() >= _expected.size();
        };
        ASSERT_TRUE(_client.pumpUntil(areAnswered, 20'000))
            << _replies.size() << " of " << _expected.size();
    }

    /// Counts processes until it is asked how many there were at the most.
    class ProcessCounter {
    public:
        explicit ProcessCounter(const BurstTest& test)
            : _thread([this, &test](const std::stop_token& stop) {
                  while (!stop.stop_requested()) {
                      _most = std::max(_most, 1 + static_cast<int>(test.children().size()));
                  }
              }) {}

        int most() {
            _thread.request_stop();
            _thread.join();
            return _most;
        }

    private:
        int _most = 0;
        std::jthread _thread;
    };

    void expectEveryReplyOnce() {
        std::set<int> answered;
        for (const Reply& reply : _replies) {
            ASSERT_TRUE(_expected.contains(reply.connection)) << reply.connection;
            EXPECT_TRUE(answered.insert(reply.connection).second) << "answered twice";
            EXPECT_EQ(toHex(reply.payload), toHex(_expected[reply.connection]));
        }
        EXPECT_EQ(answered.size(), _expected.size());
    }

    void expectLookupsWhole() {
        std::map<int, std::vector<std::string>> answers;
        for (const std::string& payload : takeAll(topics::kGaugeData)) {
            const WireMessage reply = WireMessage::decoded(payload).value_or(WireMessage(-1));
            ASSERT_GE(reply.values.size(), 3U);
            answers[reply.number(reply.command == 1 ? 2 : 1)].push_back(payload);
        }
        RecordProperty("lookups_answered", static_cast<int>(answers.size()));
        const std::string values = floats(0, 30);
        for (const auto& [tag, payloads] : answers) {
            EXPECT_GE(tag, 0) << "an invalid lookup was answered";
            const auto reply = [tag = tag](int command, int first) {
                return WireMessage(command).integer(first).integer(0).integer(tag);
            };
            const std::vector<std::string> whole = {
                reply(1, 0).block(values).encoded(), reply(1, 1).block("").encoded(),
                WireMessage(0).integer(0).integer(tag).integer(kJune).encoded()};
            EXPECT_EQ(payloads, whole) << "lookup " << tag;
        }
        for (int tag = 0; tag < kRunningLookups + kWaitingLookups; ++tag) {
            EXPECT_TRUE(answers.contains(tag)) << "lookup " << tag << " got no answer";
        }
    }

    /// What the workers say, apart from keep-alives, which they answer too.
    bool haveReplayed(std::size_t count) {
        for (std::string& payload : takeAll(_daemon.replyTopic())) {
            if (littleEndianAt(payload) != std::optional(0)) {
                _replayed.push_back(std::move(payload));
            }
        }
        return _replayed.size() >= count;
    }

    /// Each worker tells its job, whose number is the same everywhere.
    void expectWorkers() {
        ASSERT_TRUE(_client.pumpUntil([this] { return haveReplayed(kReplayWorkers); }, 10'000));
        EXPECT_EQ(_replayed,
                  std::vector<std::string>(kReplayWorkers, WireMessage(232).integer(1).encoded()));
    }

    void replayToTheEnd() {
        command(WireMessage(232).integer(1).text("g1=1"));
        ASSERT_TRUE(_client.pumpUntil([this] { return haveReplayed(2 * kReplayWorkers); }, 10'000));
        command(WireMessage(234).integer(1).integer(1));
        ASSERT_TRUE(awaitChildren(kInvalidChildren, 5000)) << children().size();
        _client.pump(50);
        EXPECT_FALSE(haveReplayed(2 * kReplayWorkers + 1));
        for (std::size_t i = kReplayWorkers; i < _replayed.size(); ++i) {
            const auto block = WireMessage::decoded(_replayed[i]).value_or(WireMessage(-1));
            EXPECT_EQ(block.command, 233);
            EXPECT_EQ(block.format, "iiiB");
            EXPECT_EQ(_replayed[i], _replayed.back());
        }
    }

    void expectThumbnailsOnce() {
        std::vector<std::string> done;
        for (const std::string& payload : takeAll("ConnectionManager/to")) {
            const WireMessage message = WireMessage::decoded(payload).value_or(WireMessage(-1));
            if (message.command == 221) {
                done.push_back(message.bytes(1));
            }
        }
        EXPECT_EQ(done, (std::vector<std::string>{"2024-05-01", "2024-05-02", "2024-05-03"}));
        EXPECT_EQ(takeAll("Notification/add").size(), 1U);
        EXPECT_EQ(takeAll("Notification/update").size(), 2U);
        EXPECT_EQ(takeAll("Notification/delete").size(), 1U);
        EXPECT_EQ(toHex(readFile(wellThumbnailFile())), toHex(wellThumbnails({1, 2, 3})));
    }

    void expectFilesExact() {
        for (int n = 0; n < kMoves + kLater; ++n) {
            EXPECT_FALSE(exists(path("from", n)));
            EXPECT_EQ(readFile(path("to", n)), content(n));
        }
        for (int file = 0; file < kFiles; ++file) {
            std::string log;
            for (int n = file; n < kAppends + kLater; n += kFiles) {
                log += content(n);
            }
            EXPECT_EQ(readFile(path("log", file)), log);
            EXPECT_EQ(readFile(path("rewritten", file)),
                      content(kRewrites + kLater - kFiles + file));
        }
        EXPECT_EQ(readFile(kRead), _download.substr(0, 8192));
        EXPECT_TRUE(readFile(kDownload) == _download);
    }

    void finishDownloads() {
        constexpr int kReports = 2000;
        constexpr int kIntervalMilliseconds = 20;
        const auto areOver = [&] {
            takeDownloads();
            return std::all_of(_decoders.begin(), _decoders.end(), [](const auto& entry) {
                return entry.second.isComplete() || !entry.second.fault().empty();
            });
        };
        for (int i = 0; i < kReports && !areOver(); ++i) {
            reportQueuesEmpty();
            _client.pumpUntil(areOver, kIntervalMilliseconds);
        }
        for (const auto& [connection, decoder] : _decoders) {
            takeAll(reportTopic(connection));
            EXPECT_TRUE(decoder.isComplete()) << connection;
            EXPECT_EQ(decoder.fault(), "") << connection;
            ASSERT_EQ(decoder.items().size(), 1U) << connection;
            EXPECT_TRUE(decoder.items().front().bytes == _download) << connection;
        }
    }

    std::string _download;
    std::map<int, DownloadDecoder> _decoders;  ///< of the downloads, by their connection
    int _read = -1;
    std::vector<int> _logs;
    std::vector<int> _rewritten;
    std::map<int, std::string> _expected;
    std::vector<Reply> _replies;
    std::vector<std::string> _replayed;
};

TEST_F(BurstTest, FourHundredForksInABurstStayFewAndCarryOutNothingTwice) {
    record();
    ASSERT_NO_FATAL_FAILURE(startBoth());
    openHandles();
    ASSERT_NO_FATAL_FAILURE(startDownloads());

    _daemon.pause();
    sendBurst();
    handOver();
    const Clock::time_point begin = Clock::now();
    ProcessCounter counter(*this);
    _daemon.resume();
    ASSERT_NO_FATAL_FAILURE(expectAllAnswered());
    ASSERT_NO_FATAL_FAILURE(expectWorkers());
    sendLater();
    ASSERT_NO_FATAL_FAILURE(expectAllAnswered());
    ASSERT_NO_FATAL_FAILURE(finishDownloads());
    // Lookups and thumbnail days end by themselves.
    ASSERT_TRUE(awaitChildren(kReplayWorkers + kInvalidChildren, 20'000)) << children().size();
    const int most = counter.most();
    RecordProperty("processes", most);
    EXPECT_LE(most, kMostProcesses);
    _client.pump(100);

    expectLookupsWhole();
    ASSERT_NO_FATAL_FAILURE(replayToTheEnd());

    EXPECT_TRUE(awaitChildren(0, 45'000 - millisecondsSince(begin)));
    takeDownloads();
    expectEveryReplyOnce();
    expectThumbnailsOnce();
    expectFilesExact();
    EXPECT_TRUE(takeAll(topics::kGaugeData).empty());
    EXPECT_FALSE(haveReplayed(2 * kReplayWorkers + 1));
    EXPECT_EQ(deliveriesWaiting(), 0U);
    EXPECT_EQ(ask(requests::read(_read, 0, 10)).format, "iiB") << "its handles are still open";
}

}  // namespace

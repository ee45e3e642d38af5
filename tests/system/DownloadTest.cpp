#include "tests/support/DownloadDecoder.h"
#include "tests/system/SystemTest.h"

#include <algorithm>
#include <map>
#include <random>
#include <set>

namespace {

/// The real daemon's downloads, with a connection manager that reports a drained queue whenever
/// something was sent on it.
class DownloadTest : public SystemTest {
protected:
    using Kind = DownloadDecoder::Kind;

    struct Download {
        DownloadDecoder decoder;
        std::size_t bytes = 0;
        bool isRefused = false;
    };

    static constexpr char kManager[] = "ConnectionManager/to";

    /// Returns the connection, which is the transfer's number too.
    int begin(const std::string& entries) {
        const int connection = ++_lastDownload;
        _downloads[connection];
        sendFrom(connection, WireMessage(0x14B0).integer(connection).text(entries).encoded());
        return connection;
    }

    /// The same, with nobody who reports, once the daemon listens to the reports.
    int beginUnreported(const std::string& entries) {
        const int connection = begin(entries);
        _silent.insert(connection);
        EXPECT_TRUE(pumpUntil([&] { return _asked.contains(connection); }));
        settle();
        return connection;
    }

    void report(int connection, int queued) {
        _client.publish("ConnectionManager/writeCount/" + std::to_string(connection),
                        WireMessage(80).integer(connection).integer(queued).encoded());
    }

    /// Takes what has come, and reports as the connection manager does.
    void takeAll() {
        std::set<int> drained;
        while (!_client.deliveries.empty()) {
            const RawBusClient::Delivery delivery = _client.deliveries.front();
            _client.deliveries.pop_front();
            if (delivery.topic == kManager) {
                const int connection = WireMessage::decoded(delivery.payload).value().number(0);
                _asked.insert(connection);
                drained.insert(connection);
            } else if (delivery.topic == topics::kClientMessage) {
                const int connection = littleEndianAt(delivery.payload).value();
                take(connection, delivery.payload.substr(4));
                drained.insert(connection);
            }
        }
        for (const int connection : drained) {
            if (!_silent.contains(connection)) {
                report(connection, 0);
            }
        }
    }

    void take(int connection, const std::string& payload) {
        ASSERT_TRUE(_downloads.contains(connection)) << "a message to nobody";
        Download& download = _downloads[connection];
        const std::optional<WireMessage> message = WireMessage::decoded(payload);
        ASSERT_TRUE(message && message->command == 0x14B0);
        if (message->isBare()) {
            download.isRefused = true;
            return;
        }
        ASSERT_EQ(message->format, "iB");
        ASSERT_EQ(message->number(0), connection);
        ASSERT_LE(message->bytes(1).size(), 8150U);
        download.bytes += message->bytes(1).size();
        download.decoder.add(message->bytes(1));
        ASSERT_EQ(download.decoder.fault(), "");
    }

    bool pumpUntil(const std::function<bool()>& done, int milliseconds = 20'000) {
        return _client.pumpUntil(
            [&] {
                takeAll();
                return done() || HasFatalFailure();
            },
            milliseconds);
    }

    bool isComplete(int connection) { return _downloads[connection].decoder.isComplete(); }

    /// The items of a whole download.
    std::vector<DownloadDecoder::Item> download(const std::string& entries) {
        const int connection = begin(entries);
        EXPECT_TRUE(pumpUntil([&] { return isComplete(connection); })) << entries;
        return _downloads[connection].decoder.items();
    }

    std::string content(std::size_t size) {
        std::string bytes(size, '\0');
        for (std::size_t i = 0; i < size; ++i) {
            // Stretches that shrink between others that do not.
            bytes[i] = i / 5000 % 2 == 0 ? static_cast<char>('a' + i % 7)
                                         : static_cast<char>(_random() & 0xff);
        }
        return bytes;
    }

    bool isLogged(const std::string& line) {
        const std::vector<std::string> lines = _daemon.logLines();
        return std::find(lines.begin(), lines.end(), "LZFDownloadRemoteJob: " + line) !=
               lines.end();
    }

    int _lastDownload = 0;
    std::map<int, Download> _downloads;
    std::set<int> _asked;   ///< connections that the daemon asked reports for
    std::set<int> _silent;  ///< connections that are not reported
    std::mt19937 _random{20240229};
};

TEST_F(DownloadTest, FilesAndDirectoriesArriveByteForByte) {
    const std::string big = content(3'000'000);
    writeFile("/root/data/big", big);
    writeFile("/root/data/empty", "");
    writeFile("/root/data/folder/a", "hello");
    ASSERT_NO_FATAL_FAILURE(startBoth());
    const auto items =
        download("/root/data/big\n/root/data/none\n/root/data/empty\n/root/data/folder");
    ASSERT_EQ(items.size(), 4U);
    EXPECT_TRUE(items[0].bytes == big);
    EXPECT_EQ(items[1].bytes, "Missing");
    EXPECT_EQ(items[2].kind, Kind::EmptyFile);
    ASSERT_EQ(items[3].entries.size(), 1U);
    EXPECT_EQ(items[3].entries[0].name, "a");
    EXPECT_EQ(items[3].entries[0].size, 5);
    settle();
    EXPECT_TRUE(isLogged("destroyed"));
}

TEST_F(DownloadTest, WithoutAReportNothingFlowsAndTheDaemonServesOthers) {
    writeFile("/root/data/a", "hello");
    ASSERT_NO_FATAL_FAILURE(startBoth());
    const int connection = beginUnreported("/root/data/a");
    EXPECT_FALSE(pumpUntil([&] { return _downloads[connection].bytes > 0; }, 500));
    report(connection, 90113);
    EXPECT_FALSE(pumpUntil([&] { return _downloads[connection].bytes > 0; }, 500));
    report(connection, 90112);
    EXPECT_TRUE(pumpUntil([&] { return isComplete(connection); }));
}

TEST_F(DownloadTest, AConnectionThatDoesNotDrainGets97800BytesAndNoMore) {
    std::string noise(1'000'000, '\0');
    std::generate(noise.begin(), noise.end(), [&] { return static_cast<char>(_random()); });
    writeFile("/root/data/a", noise);
    ASSERT_NO_FATAL_FAILURE(startBoth());
    const int connection = beginUnreported("/root/data/a");
    report(connection, 0);
    EXPECT_TRUE(pumpUntil([&] { return _downloads[connection].bytes == 97'800; }));
    EXPECT_FALSE(pumpUntil([&] { return _downloads[connection].bytes > 97'800; }, 500));
    _silent.clear();
    report(connection, 0);
    EXPECT_TRUE(pumpUntil([&] { return isComplete(connection); }));
    EXPECT_TRUE(_downloads[connection].decoder.items()[0].bytes == noise);
}

TEST_F(DownloadTest, AFileIsResumedByTheHashOfWhatIsThere) {
    const std::string whole = "hello, world";
    writeFile("/root/data/a", whole);
    ASSERT_NO_FATAL_FAILURE(startBoth());
    const auto rest = download("/root/data/a|XUFAKrxLKna5cZ2REBfFkg==|5");
    EXPECT_TRUE(rest.at(0).isResumed);
    EXPECT_EQ(rest.at(0).bytes, ", world");
    const auto other = download("/root/data/a|1B2M2Y8AsgTpgAmY7PhCfg==|5");
    EXPECT_FALSE(other.at(0).isResumed);
    EXPECT_EQ(other.at(0).bytes, whole);
}

TEST_F(DownloadTest, EightAtOnceOnOneConnectionEachArriveAndTheNinthIsRefused) {
    ASSERT_NO_FATAL_FAILURE(startBoth());
    // One connection, eight transfers: told apart by the number in each message.
    constexpr int kConnection = 5;
    std::map<int, DownloadDecoder> decoders;
    std::vector<std::string> contents;
    for (int i = 0; i < 8; ++i) {
        contents.push_back(content(400'000 + static_cast<std::size_t>(i)));
        const std::string path = "/root/data/" + std::to_string(i);
        writeFile(path, contents.back());
        sendFrom(kConnection, WireMessage(0x14B0).integer(i).text(path).encoded());
    }
    sendFrom(kConnection, WireMessage(0x14B0).integer(8).text("/root/data/0").encoded());
    int refused = 0;
    const auto isOver = [&] {
        for (const Reply& reply : takeReplies()) {
            const std::optional<WireMessage> message = WireMessage::decoded(reply.payload);
            if (message && message->isBare()) {
                ++refused;
            } else if (message) {
                decoders[message->number(0)].add(message->bytes(1));
            }
        }
        _client.deliveries.clear();
        report(kConnection, 0);
        return decoders.size() == 8 &&
               std::all_of(decoders.begin(), decoders.end(),
                           [](const auto& entry) { return entry.second.isComplete(); });
    };
    ASSERT_TRUE(_client.pumpUntil(isOver, 20'000));
    EXPECT_EQ(refused, 1);
    for (int i = 0; i < 8; ++i) {
        EXPECT_TRUE(decoders[i].items().at(0).bytes == contents[static_cast<std::size_t>(i)]) << i;
    }
}

TEST_F(DownloadTest, EightConnectionsAtOnceEachGetTheirs) {
    const std::string bytes = content(1'000'000);
    writeFile("/root/data/a", bytes);
    ASSERT_NO_FATAL_FAILURE(startBoth());
    for (int i = 0; i < 8; ++i) {
        begin("/root/data/a\n/root/data/a");
    }
    ASSERT_TRUE(pumpUntil([&] {
        return std::all_of(_downloads.begin(), _downloads.end(),
                           [](const auto& entry) { return entry.second.decoder.isComplete(); });
    }));
    for (const auto& [connection, download] : _downloads) {
        ASSERT_EQ(download.decoder.items().size(), 2U);
        EXPECT_TRUE(download.decoder.items()[0].bytes == bytes);
        EXPECT_TRUE(download.decoder.items()[1].bytes == bytes);
    }
}

TEST_F(DownloadTest, ABrokerKilledTwentyTimesLeavesEachDownloadWholeOrVisiblyUnfinished) {
    constexpr int kKills = 20;
    const std::string bytes = content(2'000'000);
    writeFile("/root/data/a", bytes);
    ASSERT_NO_FATAL_FAILURE(startBoth());
    EXPECT_TRUE(download("/root/data/a").at(0).bytes == bytes);
    const std::size_t whole = _downloads[_lastDownload].bytes;
    int unfinished = 0;
    for (std::size_t kill = 0; kill < kKills; ++kill) {
        // From before the first message to behind the last.
        const std::size_t killAt = whole * kill / (kKills - 1);
        const int connection = begin("/root/data/a");
        ASSERT_TRUE(pumpUntil([&] { return _downloads[connection].bytes >= killAt; }));
        _broker.kill();
        _client.pump(20);
        takeAll();
        ASSERT_NO_FATAL_FAILURE(startBroker());
        ASSERT_TRUE(answersKeepAlive(5000));
        const std::size_t before = _downloads[connection].bytes;
        report(connection, 0);
        EXPECT_FALSE(pumpUntil([&] { return _downloads[connection].bytes > before; }, 100))
            << "a stream with a hole in it goes on";
        const DownloadDecoder& decoder = _downloads[connection].decoder;
        EXPECT_EQ(decoder.fault(), "");
        const std::string got = decoder.items().empty() ? "" : decoder.items()[0].bytes;
        EXPECT_TRUE(bytes.starts_with(got)) << killAt;
        EXPECT_EQ(decoder.isComplete(), before == whole) << killAt;
        EXPECT_TRUE(before < whole || got == bytes) << killAt;
        unfinished += decoder.isComplete() ? 0 : 1;
    }
    EXPECT_GT(unfinished, kKills / 2);
    EXPECT_LT(unfinished, kKills);
    EXPECT_TRUE(isLogged("the bus connection was lost, download ends"));
    EXPECT_TRUE(download("/root/data/a").at(0).bytes == bytes);
}

TEST_F(DownloadTest, AClientThatVanishesHoldsNobodyUp) {
    const std::string bytes = content(1'000'000);
    writeFile("/root/data/a", bytes);
    ASSERT_NO_FATAL_FAILURE(startBoth());
    const int before = beginUnreported("/root/data/a");
    const int during = begin("/root/data/a");
    ASSERT_TRUE(pumpUntil([&] { return _downloads[during].bytes > 0; }));
    _silent.insert(during);
    EXPECT_TRUE(download("/root/data/a").at(0).bytes == bytes);
    EXPECT_FALSE(isComplete(before));
    EXPECT_FALSE(isComplete(during));
    ASSERT_TRUE(answersKeepAlive(2000));
}

TEST_F(DownloadTest, SixtyFourThatWaitCostNearlyNothing) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "a sanitizer's work is not the daemon's";
#endif
    ASSERT_NO_FATAL_FAILURE(startBoth());
    for (const auto& [jobs, mostOfACore] : {std::pair(1, 0.05), {64, 0.10}}) {
        while (_lastDownload < jobs) {
            _silent.insert(_lastDownload + 1);
            begin("/root/data");
        }
        _client.pump(100);
        const double spent = _daemon.cpuSeconds();
        constexpr int kMilliseconds = 3000;
        _client.pump(kMilliseconds);
        const double share = (_daemon.cpuSeconds() - spent) * 1000 / kMilliseconds;
        RecordProperty("percentOfACoreFor" + std::to_string(jobs),
                       static_cast<int>(share * 100 + 0.5));
        std::cerr << jobs << " waiting: " << share * 100 << " % of a core\n";
        EXPECT_LE(share, mostOfACore) << jobs;
    }
}

TEST_F(DownloadTest, AFullStormOfReportsIsHarmless) {
    const std::string bytes = content(1'000'000);
    writeFile("/root/data/a", bytes);
    ASSERT_NO_FATAL_FAILURE(startBoth());
    const int connection = begin("/root/data/a");
    const auto isOver = [&] {
        for (const int queued : {0, -1, 2147483647, 90112, 0}) {
            report(connection, queued);
        }
        return isComplete(connection);
    };
    EXPECT_TRUE(pumpUntil(isOver));
    EXPECT_TRUE(_downloads[connection].decoder.items().at(0).bytes == bytes);
}

}  // namespace

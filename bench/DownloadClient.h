#pragma once

#include "tests/support/RawBusClient.h"

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/// A connection manager with remote clients behind it, whose queues are drained as soon as
/// something comes. Downloads are the daemon's or the bare loop's, which sends the same messages;
/// each has a connection of its own and is followed from record to record. Throws where one is
/// refused, holds an error, or stands still.
class DownloadClient {
public:
    /// When the daemon is told that a queue is drained: when it asks, and for each half of what it
    /// may send without a report; or every millisecond as well.
    enum class Reports { AtNeed, EveryMillisecond };
    using Tap = std::function<void(std::string_view)>;

    static constexpr char kBareRequests[] = "bare/request";
    static constexpr char kAskedTopic[] = "ConnectionManager/to";

    /// The client listens on the daemon's replies and on `kAskedTopic`.
    explicit DownloadClient(RawBusClient& client) : _client(client) {}

    void setReports(Reports reports) { _reports = reports; }
    /// Sees each piece of the streams; null for none.
    void setTap(Tap tap) { _tap = std::move(tap); }

    /// What is requested has an entry a line. Returns when all of them have come.
    void download(const std::vector<std::string>& requests);
    void downloadBare(const std::string& request);

    /// Begins a download that goes on inside `ask`.
    void begin(const std::string& request);
    bool isOver() const { return _running == 0; }
    void finish();
    /// Another client's request on the side. Returns the seconds until it was answered, with so
    /// many bytes.
    double ask(const std::string& topic, const std::string& request, std::size_t answerBytes);

    /// So many downloads more that nothing is ever reported for, several a connection.
    void beginUnreported(int count, int perConnection);

    /// The bytes of all streams since the last call.
    std::size_t takeStreamBytes() { return std::exchange(_streamBytes, 0); }
    /// The seconds between one message of a stream and the next, of all since the last call.
    std::vector<double> takeGaps() { return std::exchange(_gaps, {}); }

private:
    using Clock = std::chrono::steady_clock;

    struct Stream {
        std::string recordHeader;  ///< as much of it as has come
        std::size_t payloadLeft = 0;
        bool isOver = false;
        std::size_t unreported = 0;
        std::optional<Clock::time_point> lastMessage;
    };

    void send(const std::string& topic, int connection, const std::string& request);
    void pumpUntil(const std::function<bool()>& done);
    void takeArrived();
    void takeReply(std::string_view payload);
    void takeData(int connection, std::string_view piece);
    static void follow(Stream& stream, std::string_view piece);
    void reportDue();
    void report(int connection, Stream& stream);

    RawBusClient& _client;
    Reports _reports = Reports::AtNeed;
    bool _isBare = false;
    Tap _tap;
    Clock::time_point _nextReports;
    std::map<int, Stream> _streams;
    int _running = 0;
    int _unreported = 0;
    std::size_t _answerBytes = 0;
    std::size_t _streamBytes = 0;
    std::vector<double> _gaps;
};

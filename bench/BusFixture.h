#pragma once

#include "tests/support/Broker.h"
#include "tests/support/DaemonProcess.h"
#include "tests/support/RawBusClient.h"

#include <memory>
#include <string>
#include <vector>

/// Confines this process and everything that it starts afterwards to one core. With the sides of
/// a round trip on several, its time depends on where the scheduler happened to put them.
void pinToOneCore();

/// A private broker, and a client on bare libmosquitto that makes requests over it and checks
/// that every one is answered. Throws where an answer does not come.
class BusFixture {
public:
    static constexpr int kAnswerMilliseconds = 10000;

    /// A request, or several to be made in turns, and what each answer must look like.
    struct Request {
        std::string topic;
        std::vector<std::string> payloads;
        std::size_t answerBytes;
    };

    /// The client listens on `replyTopics`.
    explicit BusFixture(const std::vector<std::string>& replyTopics);

    Broker& broker() { return _broker; }
    RawBusClient& client() { return *_client; }

    /// Repeats the first request until it is answered.
    void waitUntilAnswered(const Request& request);
    /// Makes `count` requests, with at most `underWay` of them unanswered at any time.
    void exchange(const Request& request, int count, int underWay);
    /// Makes one request and returns its answer.
    std::string answerTo(const std::string& topic, const std::string& payload);

private:
    void pumpUntilDelivered();

    Broker _broker;
    std::unique_ptr<RawBusClient> _client;
};

/// The daemon on the fixture's broker, kept alive by its client, with one file to read.
class DaemonFixture {
public:
    static constexpr int kConnection = 7;
    static constexpr int kFileBytes = 1024 * 1024;
    static constexpr int kReadBytes = 4096;
    static constexpr char kRequestTopic[] = "Message/storage";
    static constexpr char kReplyTopic[] = "ConnectionManager/clientMessage";

    /// Needs a client that listens on `kReplyTopic`. Returns when the daemon answers.
    explicit DaemonFixture(BusFixture& bus);

    DaemonProcess& process() { return _process; }
    /// Opens the file anew and returns requests that read it piece by piece, valid while used.
    BusFixture::Request openForReading();

private:
    BusFixture& _bus;
    DaemonProcess _process;
};

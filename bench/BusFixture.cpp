#include "bench/BusFixture.h"

#include "filesystem/FileProtocol.h"
#include "tests/support/WireMessage.h"

#include <sched.h>

#include <fstream>
#include <stdexcept>

namespace {

constexpr int kRetryMilliseconds = 50;
constexpr int kReadOnly = 1;
constexpr char kFileName[] = "/root/data/bench.bin";

std::string request(const WireMessage& message) {
    return littleEndian(DaemonFixture::kConnection) + message.encoded();
}

/// Connection id, command, "iiB" and its NUL, handle, offset, block length.
constexpr std::size_t kReadAnswerHeaderBytes = 4 + 4 + 4 + 4 + 4 + 4;

}  // namespace

void pinToOneCore() {
    cpu_set_t allowed;
    sched_getaffinity(0, sizeof allowed, &allowed);
    for (int core = CPU_SETSIZE - 1; core >= 0; --core) {
        if (CPU_ISSET(core, &allowed)) {
            CPU_ZERO(&allowed);
            CPU_SET(core, &allowed);
            sched_setaffinity(0, sizeof allowed, &allowed);
            return;
        }
    }
}

BusFixture::BusFixture(const std::vector<std::string>& replyTopics) {
    _broker.start();
    _client = std::make_unique<RawBusClient>(_broker.socketPath());
    for (const std::string& topic : replyTopics) {
        _client->subscribe(topic);
    }
    if (!_client->connect(kAnswerMilliseconds)) {
        throw std::runtime_error("no connection to the broker");
    }
}

void BusFixture::waitUntilAnswered(const Request& request) {
    for (int left = kAnswerMilliseconds; left > 0; left -= kRetryMilliseconds) {
        _client->publish(request.topic, request.payloads.front());
        _client->pumpUntil([this] { return !_client->deliveries.empty(); }, kRetryMilliseconds);
        if (!_client->deliveries.empty()) {
            _client->pump(kRetryMilliseconds);
            _client->deliveries.clear();
            return;
        }
    }
    throw std::runtime_error("nobody answers on " + request.topic);
}

void BusFixture::exchange(const Request& request, int count, int underWay) {
    int sent = 0;
    for (int answered = 0; answered < count;) {
        for (; sent < count && sent - answered < underWay; ++sent) {
            _client->publish(
                request.topic,
                request.payloads[static_cast<std::size_t>(sent) % request.payloads.size()]);
        }
        pumpUntilDelivered();
        for (const RawBusClient::Delivery& delivery : _client->deliveries) {
            if (delivery.payload.size() != request.answerBytes) {
                throw std::runtime_error("a request failed on " + request.topic);
            }
            ++answered;
        }
        _client->deliveries.clear();
    }
}

std::string BusFixture::answerTo(const std::string& topic, const std::string& payload) {
    _client->publish(topic, payload);
    pumpUntilDelivered();
    const std::string answer = _client->deliveries.front().payload;
    _client->deliveries.clear();
    return answer;
}

void BusFixture::pumpUntilDelivered() {
    if (!_client->pumpUntil([this] { return !_client->deliveries.empty(); }, kAnswerMilliseconds)) {
        throw std::runtime_error("an answer did not come");
    }
}

DaemonFixture::DaemonFixture(BusFixture& bus) : _bus(bus), _process(DAEMON_PROGRAM) {
    std::ofstream(kFileName) << std::string(kFileBytes, 'x');
    _process.start({{{"SCADA_BUS_URL", bus.broker().url()}}, 0});
    // Closing a file that is not open is answered, and changes nothing.
    bus.waitUntilAnswered(
        {kRequestTopic, {request(WireMessage(MESSAGE_FILE_CLOSE).integer(-1))}, 0});
    bus.client().sendKeepAlivesOn(_process.commandTopic());
}

BusFixture::Request DaemonFixture::openForReading() {
    const std::string open =
        request(WireMessage(MESSAGE_FILE_OPEN).text(kFileName).integer(kReadOnly));
    const auto reply =
        WireMessage::decoded(std::string_view(_bus.answerTo(kRequestTopic, open)).substr(4));
    if (!reply || reply->format != "Sii" || reply->number(1) < 0) {
        throw std::runtime_error("the daemon did not open its file");
    }
    BusFixture::Request reads{kRequestTopic, {}, kReadAnswerHeaderBytes + kReadBytes};
    for (int offset = 0; offset < kFileBytes; offset += kReadBytes) {
        WireMessage read(MESSAGE_FILE_READ);
        read.integer(reply->number(1)).integer(offset).integer(kReadBytes);
        reads.payloads.push_back(request(read));
    }
    return reads;
}

#include "bench/DownloadClient.h"

#include "tests/support/WireMessage.h"

#include <stdexcept>

namespace {

constexpr char kRequestTopic[] = "Message/storage";
constexpr int kDownload = 0x14B0;
constexpr int kWriteCount = 80;
constexpr int kTransfer = 1;
constexpr int kFirstConnection = 100;
constexpr int kFirstUnreported = 1000;

/// Connection; and of a data message command, "iB" and its NUL, transfer, length.
constexpr std::size_t kConnectionBytes = 4;
constexpr std::size_t kDataHeaderBytes = kConnectionBytes + 4 + 3 + 4 + 4;
constexpr std::size_t kRecordHeaderBytes = 3;
constexpr char kEndRecord = 4;
constexpr char kErrorRecord = static_cast<char>(132);

constexpr std::size_t kReportBytes = 45'056;
constexpr auto kReportInterval = std::chrono::milliseconds(1);
constexpr int kPumpMilliseconds = 1;
constexpr auto kStandstill = std::chrono::seconds(20);

}  // namespace

void DownloadClient::download(const std::vector<std::string>& requests) {
    for (const std::string& request : requests) {
        begin(request);
    }
    finish();
}

void DownloadClient::downloadBare(const std::string& request) {
    _isBare = true;
    _streams.clear();
    send(kBareRequests, kFirstConnection, request);
    finish();
    _isBare = false;
}

void DownloadClient::finish() {
    pumpUntil([this] { return isOver(); });
}

void DownloadClient::begin(const std::string& request) {
    if (isOver()) {
        _streams.clear();
    }
    send(kRequestTopic, kFirstConnection + static_cast<int>(_streams.size()), request);
}

double DownloadClient::ask(const std::string& topic, const std::string& request,
                           std::size_t answerBytes) {
    const Clock::time_point begin = Clock::now();
    _answerBytes = answerBytes;
    _client.publish(topic, request);
    pumpUntil([this] { return _answerBytes == 0; });
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

void DownloadClient::beginUnreported(int count, int perConnection) {
    for (int i = 0; i < count; ++i) {
        const int connection = kFirstUnreported + _unreported++ / perConnection;
        _client.publish(kRequestTopic,
                        littleEndian(connection) +
                            WireMessage(kDownload).integer(kTransfer).text("/root/data").encoded());
    }
}

void DownloadClient::send(const std::string& topic, int connection, const std::string& request) {
    _streams[connection];
    ++_running;
    _client.publish(topic, littleEndian(connection) +
                               WireMessage(kDownload).integer(kTransfer).text(request).encoded());
}

void DownloadClient::pumpUntil(const std::function<bool()>& done) {
    const auto isDone = [&] {
        takeArrived();
        return done();
    };
    Clock::time_point end = Clock::now() + kStandstill;
    for (std::size_t before = _streamBytes; !_client.pumpUntil(isDone, kPumpMilliseconds);) {
        reportDue();
        if (std::exchange(before, _streamBytes) != _streamBytes) {
            end = Clock::now() + kStandstill;
        } else if (Clock::now() > end) {
            throw std::runtime_error("a download stands still");
        }
    }
}

void DownloadClient::takeArrived() {
    while (!_client.deliveries.empty()) {
        const RawBusClient::Delivery delivery = std::move(_client.deliveries.front());
        _client.deliveries.pop_front();
        if (delivery.topic == kAskedTopic) {
            const int connection = WireMessage::decoded(delivery.payload).value().number(0);
            const auto stream = _streams.find(connection);
            if (stream != _streams.end()) {
                report(connection, stream->second);
            }
        } else {
            takeReply(delivery.payload);
        }
    }
    reportDue();
}

void DownloadClient::takeReply(std::string_view payload) {
    const int connection = littleEndianAt(payload).value();
    if (_streams.contains(connection)) {
        if (payload.size() < kDataHeaderBytes) {
            throw std::runtime_error("a download was refused");
        }
        takeData(connection, payload.substr(kDataHeaderBytes));
    } else if (payload.size() == _answerBytes) {
        _answerBytes = 0;
    } else {
        throw std::runtime_error("a message of another length than the answer");
    }
}

void DownloadClient::takeData(int connection, std::string_view piece) {
    Stream& stream = _streams[connection];
    const Clock::time_point now = Clock::now();
    if (stream.lastMessage) {
        _gaps.push_back(std::chrono::duration<double>(now - *stream.lastMessage).count());
    }
    stream.lastMessage = now;
    _streamBytes += piece.size();
    if (_tap) {
        _tap(piece);
    }
    follow(stream, piece);
    if (stream.isOver) {
        --_running;
        return;
    }
    stream.unreported += piece.size();
    if (stream.unreported >= kReportBytes) {
        report(connection, stream);
    }
}

void DownloadClient::follow(Stream& stream, std::string_view piece) {
    while (!piece.empty()) {
        if (stream.isOver) {
            throw std::runtime_error("something behind the end");
        }
        if (stream.payloadLeft > 0) {
            const std::size_t length = std::min(stream.payloadLeft, piece.size());
            stream.payloadLeft -= length;
            piece.remove_prefix(length);
            continue;
        }
        std::string& header = stream.recordHeader;
        header += piece.front();
        piece.remove_prefix(1);
        if (header.size() == kRecordHeaderBytes) {
            stream.payloadLeft = static_cast<unsigned char>(header[1]) |
                                 static_cast<std::size_t>(static_cast<unsigned char>(header[2]))
                                     << 8;
            stream.isOver = header[0] == kEndRecord;
            if (header[0] == kErrorRecord) {
                throw std::runtime_error("an entry could not be sent");
            }
            header.clear();
        }
    }
}

void DownloadClient::reportDue() {
    if (_reports != Reports::EveryMillisecond || Clock::now() < _nextReports) {
        return;
    }
    _nextReports = Clock::now() + kReportInterval;
    for (auto& [connection, stream] : _streams) {
        report(connection, stream);
    }
}

void DownloadClient::report(int connection, Stream& stream) {
    stream.unreported = 0;
    if (_isBare || stream.isOver) {
        return;
    }
    _client.publish("ConnectionManager/writeCount/" + std::to_string(connection),
                    WireMessage(kWriteCount).integer(connection).integer(0).encoded());
}

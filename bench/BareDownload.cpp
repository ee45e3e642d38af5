#include <fcntl.h>
#include <lzf.h>
#include <mosquitto.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

/// Downloads on libmosquitto and liblzf and nothing else, the peer of the daemon's: each request
/// that comes on a topic is read, compressed and published at once, as the same messages.
/// Usage: bare_download SOCKET REQUEST_TOPIC REPLY_TOPIC

namespace {

constexpr int kKeepAliveSeconds = 300;
constexpr int kWaitMilliseconds = 1000;
/// Connection, command, "iS" and its NUL, transfer: the entries follow.
constexpr std::size_t kConnectionBytes = 4;
constexpr std::size_t kTransferAt = 4 + 4 + 3;
constexpr std::size_t kEntriesAt = kTransferAt + 4;

constexpr std::size_t kBlockBytes = 64512;
constexpr std::size_t kMessageBytes = 8150;
constexpr char kRaw = 1;
constexpr char kCompressed = 2;
constexpr char kFirst = 4;
constexpr char kEnd = 4;

std::string littleEndian(std::uint32_t number, int bytes) {
    std::string text;
    for (int i = 0; i < bytes; ++i) {
        text += static_cast<char>(number >> (8 * i));
    }
    return text;
}

void fail(const char* what) {
    std::perror(what);
    std::exit(EXIT_FAILURE);
}

class BareDownload {
public:
    BareDownload(const char* socket, const char* requestTopic, const char* replyTopic)
        : _replyTopic(replyTopic) {
        mosquitto_lib_init();
        _client = mosquitto_new(nullptr, true, this);
        mosquitto_message_callback_set(_client, keepRequest);
        if (mosquitto_connect(_client, socket, 0, kKeepAliveSeconds) != MOSQ_ERR_SUCCESS ||
            mosquitto_subscribe(_client, nullptr, requestTopic, 0) != MOSQ_ERR_SUCCESS) {
            fail("no broker");
        }
        mosquitto_subscribe_callback_set(_client, tellReady);
    }

    [[noreturn]] void serve() {
        for (;;) {
            step(mosquitto_want_write(_client) ? POLLIN | POLLOUT : POLLIN);
            if (!_request.empty()) {
                answer(std::exchange(_request, {}));
            }
        }
    }

private:
    static void tellReady(mosquitto*, void*, int, int, const int*) {
        std::fprintf(stderr, "ready\n");
    }

    static void keepRequest(mosquitto*, void* context, const mosquitto_message* message) {
        static_cast<BareDownload*>(context)->_request.assign(
            static_cast<const char*>(message->payload),
            static_cast<std::size_t>(message->payloadlen));
    }

    void step(int events) {
        pollfd entry{mosquitto_socket(_client), static_cast<short>(events), 0};
        poll(&entry, 1, kWaitMilliseconds);
        if ((entry.revents & POLLOUT) != 0 &&
            mosquitto_loop_write(_client, 1) != MOSQ_ERR_SUCCESS) {
            fail("write");
        }
        if ((entry.revents & ~POLLOUT) != 0 &&
            mosquitto_loop_read(_client, 1) != MOSQ_ERR_SUCCESS) {
            fail("read");
        }
    }

    /// Published from here and not from the callback, where the library would queue the packets
    /// for its next round.
    void answer(const std::string& request) {
        _header = request.substr(0, kConnectionBytes) + littleEndian(0x14B0, 4) + "iB" + '\0' +
                  request.substr(kTransferAt, 4);
        // The entries, each with a byte behind it: a newline, the last one's a NUL.
        for (std::size_t begin = kEntriesAt; begin < request.size();) {
            const std::size_t end = request.find_first_of(std::string("\n\0", 2), begin);
            sendFile(request.substr(begin, end - begin));
            begin = end + 1;
        }
        addRecord(kEnd, nullptr, 0);
        publish(_used);
        _used = 0;
    }

    void sendFile(const std::string& path) {
        const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (file < 0) {
            fail(path.c_str());
        }
        char flags = kFirst;
        for (;;) {
            const auto length = read(file, _block.data(), _block.size());
            if (length < 1) {
                break;
            }
            const auto raw = static_cast<unsigned>(length);
            const unsigned packed = lzf_compress(_block.data(), raw, _packed.data(), raw - 1);
            if (packed > 0) {
                addRecord(static_cast<char>(kCompressed | flags), _packed.data(), packed);
            } else {
                addRecord(static_cast<char>(kRaw | flags), _block.data(), raw);
            }
            flags = 0;
        }
        close(file);
    }

    /// Whole messages go out at once; the rest waits for the next record.
    void addRecord(char type, const char* payload, std::size_t length) {
        const std::string header = type + littleEndian(static_cast<std::uint32_t>(length), 2);
        add(header.data(), header.size());
        add(payload, length);
    }

    void add(const char* bytes, std::size_t length) {
        while (length > 0) {
            const std::size_t piece = std::min(length, kMessageBytes - _used);
            std::memcpy(_message.data() + kHeaderBytes + _used, bytes, piece);
            _used += piece;
            bytes += piece;
            length -= piece;
            if (_used == kMessageBytes) {
                publish(_used);
                _used = 0;
            }
        }
    }

    void publish(std::size_t length) {
        const std::string header = _header + littleEndian(static_cast<std::uint32_t>(length), 4);
        std::memcpy(_message.data(), header.data(), header.size());
        mosquitto_publish(_client, nullptr, _replyTopic, static_cast<int>(header.size() + length),
                          _message.data(), 0, false);
        while (mosquitto_want_write(_client)) {
            step(POLLOUT);
        }
    }

    /// Connection, command, "iB" and its NUL, transfer, length.
    static constexpr std::size_t kHeaderBytes = 4 + 4 + 3 + 4 + 4;

    mosquitto* _client = nullptr;
    const char* _replyTopic;
    std::string _request;
    std::string _header;
    std::array<char, kHeaderBytes + kMessageBytes> _message;
    std::size_t _used = 0;
    std::array<char, kBlockBytes> _block;
    std::array<char, kBlockBytes> _packed;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: bare_download SOCKET REQUEST_TOPIC REPLY_TOPIC\n");
        return EXIT_FAILURE;
    }
    BareDownload(argv[1], argv[2], argv[3]).serve();
}

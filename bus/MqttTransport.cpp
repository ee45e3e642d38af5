#include "bus/MqttTransport.h"

#include "bus/DebugText.h"

#include <mosquitto.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <new>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

/// Long, because the loop serves no socket while an archive is made.
constexpr int kKeepAliveSeconds = 300;
constexpr int kConnectMilliseconds = 10'000;
constexpr int kUpkeepMilliseconds = 1000;
constexpr std::size_t kKeptPayloadBytes = 64 * 1024;
constexpr int kUnixPort = 0;
constexpr int kQoS = 0;
constexpr char kSystemTrustStore[] = "/etc/ssl/certs";

/// Within 4 ms, for a fraction of what the exact time costs on every wait.
std::int64_t nowMilliseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return std::int64_t(now.tv_sec) * 1000 + now.tv_nsec / 1'000'000;
}

/// The library ignores SIGPIPE whenever it makes a client. A handler of the process's own comes
/// back; the default action stays away, because a broken connection must not end the process.
class SigpipeKeeper {
public:
    SigpipeKeeper() { sigaction(SIGPIPE, nullptr, &_before); }
    ~SigpipeKeeper() {
        if (_before.sa_handler != SIG_DFL) {
            sigaction(SIGPIPE, &_before, nullptr);
        }
    }
    SigpipeKeeper(const SigpipeKeeper&) = delete;
    SigpipeKeeper& operator=(const SigpipeKeeper&) = delete;

private:
    struct sigaction _before {};
};

void initializeLibraryOnce() {
    static const int result = mosquitto_lib_init();
    (void)result;
}

int refusePassphrase(char*, int, int, void*) {
    return 0;
}

const char* textOrNull(const std::string& text) {
    return text.empty() ? nullptr : text.c_str();
}

MqttTransport* transportOf(void* self) {
    return static_cast<MqttTransport*>(self);
}

/// The library refused the call itself. Where it names such a fault in what it read, it has closed
/// the connection by then.
bool isRefusal(int result) {
    return result == MOSQ_ERR_INVAL || result == MOSQ_ERR_NOMEM ||
           result == MOSQ_ERR_PAYLOAD_SIZE || result == MOSQ_ERR_MALFORMED_UTF8 ||
           result == MOSQ_ERR_OVERSIZE_PACKET;
}

}  // namespace

MqttTransport::MqttTransport(const BusConfig& config) : _config(config) {
    const SigpipeKeeper keeper;
    initializeLibraryOnce();
}

MqttTransport::~MqttTransport() {
    destroyClient();
}

bool MqttTransport::createClient(const std::string& clientId) {
    const SigpipeKeeper keeper;
    _client = mosquitto_new(clientId.c_str(), true, this);
    if (!_client) {
        _lastError = std::strerror(errno);
        return false;
    }
    mosquitto_connect_callback_set(_client, onConnect);
    mosquitto_message_callback_set(_client, onMessage);
    mosquitto_publish_callback_set(_client, onPublish);
    mosquitto_subscribe_callback_set(_client, onSubscribe);
    mosquitto_log_callback_set(_client, onLog);
    if (!_config.user.empty()) {
        mosquitto_username_pw_set(_client, _config.user.c_str(), textOrNull(_config.password));
    }
    return _config.scheme != BusConfig::Scheme::Tls || applyTls();
}

bool MqttTransport::applyTls() {
    const int result = mosquitto_tls_set(
        _client, textOrNull(_config.caFile), _config.caFile.empty() ? kSystemTrustStore : nullptr,
        textOrNull(_config.certificateFile), textOrNull(_config.keyFile), refusePassphrase);
    if (result != MOSQ_ERR_SUCCESS) {
        _lastError = mosquitto_strerror(result);
    }
    return result == MOSQ_ERR_SUCCESS;
}

void MqttTransport::destroyClient() {
    if (_client) {
        mosquitto_destroy(_client);
    }
    _client = nullptr;
    _state = State::Disconnected;
    _arrivedCount = 0;
    _publishedBytes.clear();
    _bytesWaiting = 0;
    _subscriptionsPending = 0;
}

bool MqttTransport::connect(const std::string& clientId) {
    destroyClient();
    _libraryError.clear();
    _refusal.clear();
    if (!createClient(clientId)) {
        destroyClient();
        return false;
    }
    _state = State::Connecting;
    _connectStarted = nowMilliseconds();
    const int port = _config.scheme == BusConfig::Scheme::Unix ? kUnixPort : _config.port;
    const int result =
        mosquitto_connect_async(_client, _config.host.c_str(), port, kKeepAliveSeconds);
    if (!succeeded(result)) {
        return false;
    }
    fcntl(mosquitto_socket(_client), F_SETFD, FD_CLOEXEC);
    return true;
}

void MqttTransport::disconnect() {
    if (_state == State::Connected) {
        mosquitto_disconnect(_client);
    }
    destroyClient();
}

void MqttTransport::abandon() {
    if (_client) {
        ::close(mosquitto_socket(_client));
        // Destroying the client would say goodbye over TLS on the parent's connection.
        _client = nullptr;
    }
    destroyClient();
}

void MqttTransport::close(const std::string& reason) {
    _lastError = reason;
    destroyClient();
}

bool MqttTransport::succeeded(int result) {
    if (result == MOSQ_ERR_SUCCESS || result == MOSQ_ERR_CONN_PENDING) {
        return true;
    }
    if (isRefusal(result) && mosquitto_socket(_client) >= 0) {
        return false;
    }
    if (!_libraryError.empty()) {
        close(_libraryError);
    } else {
        close(result == MOSQ_ERR_ERRNO ? std::strerror(errno) : mosquitto_strerror(result));
    }
    return false;
}

void MqttTransport::subscribe(const std::string& topic) {
    if (_state == State::Connected &&
        succeeded(mosquitto_subscribe(_client, nullptr, topic.c_str(), kQoS))) {
        ++_subscriptionsPending;
    }
}

void MqttTransport::unsubscribe(const std::string& topic) {
    if (_state == State::Connected) {
        succeeded(mosquitto_unsubscribe(_client, nullptr, topic.c_str()));
    }
}

bool MqttTransport::publish(const char* topic, const void* payload, int length) {
    if (_state != State::Connected) {
        return false;
    }
    // The topic counts too: an empty payload that waits must be seen to wait.
    const std::size_t bytes = std::strlen(topic) + std::size_t(length);
    _publishedBytes.push_back(bytes);
    _bytesWaiting += bytes;
    const int result =
        mosquitto_publish(_client, nullptr, topic, length, payload, kQoS, /*retain=*/false);
    if (isRefusal(result)) {
        _publishedBytes.pop_back();
        _bytesWaiting -= bytes;
    }
    return succeeded(result);
}

bool MqttTransport::write(int milliseconds) {
    if (!_client) {
        return false;
    }
    pollfd socket{mosquitto_socket(_client), POLLOUT, 0};
    const std::int64_t deadline = nowMilliseconds() + milliseconds;
    int ready = 0;
    do {
        ready = poll(&socket, 1, int(std::max<std::int64_t>(0, deadline - nowMilliseconds())));
    } while (ready < 0 && errno == EINTR);
    return ready > 0 && succeeded(mosquitto_loop_write(_client, 1));
}

bool MqttTransport::connectTimedOut() {
    if (_state != State::Connecting || nowMilliseconds() - _connectStarted < kConnectMilliseconds) {
        return false;
    }
    close("no answer within 10 seconds");
    return true;
}

/// False where the connection just ended. The library's own time-keeping counts in minutes, so
/// that a look a second is enough.
bool MqttTransport::keepsAlive() {
    const std::int64_t now = nowMilliseconds();
    if (_state == State::Connected && now - _lastUpkeep < kUpkeepMilliseconds) {
        return true;
    }
    _lastUpkeep = now;
    return succeeded(mosquitto_loop_misc(_client)) && !connectTimedOut();
}

/// Asking is cheaper than a read that finds nothing. What TLS has decrypted no poll shows.
bool MqttTransport::mayHaveInput() {
    if (std::exchange(_sawInput, false) || _config.scheme == BusConfig::Scheme::Tls) {
        return true;
    }
    pollfd socket{mosquitto_socket(_client), POLLIN, 0};
    return poll(&socket, 1, 0) != 0;
}

/// With TLS the library begins the handshake on a connection that was refused, again and again.
bool MqttTransport::connectFailed() {
    sockaddr_storage peer{};
    socklen_t length = sizeof peer;
    if (_state != State::Connecting ||
        getpeername(mosquitto_socket(_client), reinterpret_cast<sockaddr*>(&peer), &length) == 0) {
        return false;
    }
    int error = 0;
    length = sizeof error;
    getsockopt(mosquitto_socket(_client), SOL_SOCKET, SO_ERROR, &error, &length);
    close(std::strerror(error != 0 ? error : ECONNREFUSED));
    return true;
}

Transport::WaitResult MqttTransport::wait(int milliseconds, int wakeDescriptor) {
    pollfd descriptors[2] = {{wakeDescriptor, POLLIN, 0}, {-1, 0, 0}};
    if (_client) {
        if (!keepsAlive()) {
            return WaitResult::Ready;
        }
        const bool writes = mosquitto_want_write(_client);
        descriptors[1].fd = mosquitto_socket(_client);
        descriptors[1].events = static_cast<short>(POLLIN | (writes ? POLLOUT : 0));
    }
    const int ready = poll(descriptors, 2, milliseconds);
    _sawInput = ready > 0 && descriptors[1].revents;
    if (ready == 0) {
        return WaitResult::TimeOver;
    }
    if (ready > 0 && (descriptors[1].revents & (POLLERR | POLLHUP)) && connectFailed()) {
        return WaitResult::Ready;
    }
    if (ready > 0 && (descriptors[1].revents & POLLOUT)) {
        succeeded(mosquitto_loop_write(_client, 1));
    }
    return ready < 0 || descriptors[0].revents ? WaitResult::Interrupted : WaitResult::Ready;
}

bool MqttTransport::takeIn() {
    // Also here, for a process that never waits.
    if (!_client || !keepsAlive() || !mayHaveInput()) {
        return false;
    }
    // The library takes an old EAGAIN for the end of what TLS has decrypted, which no poll shows.
    errno = 0;
    const int result = mosquitto_loop_read(_client, 1);
    const bool isDrained = errno == EAGAIN || errno == EWOULDBLOCK;
    std::swap(_taken, _arrived);
    const std::size_t count = std::exchange(_arrivedCount, 0);
    if (!_refusal.empty()) {
        close(_refusal);
    } else {
        succeeded(result);
    }
    for (std::size_t i = 0; i < count; ++i) {
        Arrived& delivery = _taken[i];
        _listener->delivered(delivery.topic.c_str(), delivery.payload.data(),
                             int(delivery.payload.size()));
        if (delivery.payload.capacity() > kKeptPayloadBytes) {
            delivery.payload = std::string();
        }
    }
    // A packet that was no delivery may stand before one.
    return count > 0 || (_state == State::Connected && !isDrained);
}

void MqttTransport::onConnect(mosquitto* client, void* self, int code) {
    if (code == 0) {
        transportOf(self)->_state = State::Connected;
        // With a log callback the library formats a line for each packet.
        mosquitto_log_callback_set(client, nullptr);
    } else {
        transportOf(self)->_refusal = mosquitto_connack_string(code);
    }
}

void MqttTransport::onMessage(mosquitto*, void* self, const mosquitto_message* message) {
    if (message->retain) {
        return;  // An old request must not run again.
    }
    try {
        transportOf(self)->keep(*message);
    } catch (const std::bad_alloc&) {
        DebugText::send("MqttTransport", "no memory for a delivery of %d bytes, dropped",
                        message->payloadlen);
    }
}

void MqttTransport::keep(const mosquitto_message& message) {
    if (_arrivedCount == _arrived.size()) {
        _arrived.emplace_back();
    }
    Arrived& arrived = _arrived[_arrivedCount];
    arrived.topic = message.topic;
    const auto* payload = static_cast<const char*>(message.payload);
    arrived.payload.assign(payload ? payload : "", size_t(message.payloadlen));
    ++_arrivedCount;
}

void MqttTransport::onPublish(mosquitto*, void* self, int) {
    MqttTransport* transport = transportOf(self);
    if (transport->_publishedBytes.empty()) {
        return;
    }
    transport->_bytesWaiting -= transport->_publishedBytes.front();
    transport->_publishedBytes.pop_front();
}

void MqttTransport::onSubscribe(mosquitto*, void* self, int, int, const int*) {
    --transportOf(self)->_subscriptionsPending;
}

void MqttTransport::onLog(mosquitto*, void* self, int level, const char* text) {
    if (level == MOSQ_LOG_ERR) {
        transportOf(self)->_libraryError = text;
    }
}

#include "tests/support/RawBusClient.h"

#include <mosquitto.h>
#include <poll.h>

#include <stdexcept>

namespace {

using SteadyClock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr int kBrokerKeepAliveSeconds = 300;
constexpr auto kKeepAliveInterval = std::chrono::seconds(3);
/// Command 0, format "".
const std::string kKeepAlive(5, '\0');

int millisecondsUntil(SteadyClock::time_point end) {
    // Rounded up: the last millisecond is waited out too, not polled away.
    const auto left = std::chrono::ceil<milliseconds>(end - SteadyClock::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

struct LibraryStart {
    LibraryStart() { mosquitto_lib_init(); }
    ~LibraryStart() { mosquitto_lib_cleanup(); }
};

}  // namespace

RawBusClient::RawBusClient(std::string socketPath) : _socketPath(std::move(socketPath)) {
    static const LibraryStart started;
    _handle = mosquitto_new(nullptr, true, this);
    if (_handle == nullptr) {
        throw std::runtime_error("no bus client");
    }
    mosquitto_connect_callback_set(_handle, onConnect);
    mosquitto_subscribe_callback_set(_handle, onSubscribe);
    mosquitto_message_callback_set(_handle, onMessage);
}

RawBusClient::~RawBusClient() {
    mosquitto_destroy(_handle);
}

bool RawBusClient::connect(int time) {
    const auto end = SteadyClock::now() + milliseconds(time);
    _connected = false;
    while (mosquitto_connect(_handle, _socketPath.c_str(), 0, kBrokerKeepAliveSeconds) !=
           MOSQ_ERR_SUCCESS) {
        if (SteadyClock::now() >= end) {
            return false;
        }
        poll(nullptr, 0, 5);
    }
    if (!pumpUntil([this] { return _connected; }, millisecondsUntil(end))) {
        return false;
    }
    _acknowledgedTopics = 0;
    for (const std::string& topic : _topics) {
        mosquitto_subscribe(_handle, nullptr, topic.c_str(), 0);
    }
    return pumpUntil([this] { return _acknowledgedTopics == _topics.size(); },
                     millisecondsUntil(end));
}

void RawBusClient::publish(const std::string& topic, const std::string& payload, bool retain) {
    mosquitto_publish(_handle, nullptr, topic.c_str(), static_cast<int>(payload.size()),
                      payload.data(), 0, retain);
}

bool RawBusClient::flush(int time) {
    const auto end = SteadyClock::now() + milliseconds(time);
    while (mosquitto_want_write(_handle)) {
        pollfd entry{mosquitto_socket(_handle), POLLOUT, 0};
        if (poll(&entry, 1, millisecondsUntil(end)) <= 0 ||
            mosquitto_loop_write(_handle, 1) != MOSQ_ERR_SUCCESS) {
            return false;
        }
    }
    return true;
}

void RawBusClient::pump(int time) {
    pumpUntil([] { return false; }, time);
}

bool RawBusClient::pumpUntil(const std::function<bool()>& done, int time) {
    const auto end = SteadyClock::now() + milliseconds(time);
    while (!done()) {
        if (SteadyClock::now() >= end) {
            return false;
        }
        sendDueKeepAlive();
        step(std::min(millisecondsUntil(end), 100));
    }
    return true;
}

void RawBusClient::sendKeepAlivesOn(const std::string& topic) {
    _keepAliveTopic = topic;
    _nextKeepAlive = SteadyClock::now() + kKeepAliveInterval;
}

void RawBusClient::sendDueKeepAlive() {
    if (!_keepAliveTopic.empty() && SteadyClock::now() >= _nextKeepAlive) {
        _nextKeepAlive = SteadyClock::now() + kKeepAliveInterval;
        publish(_keepAliveTopic, kKeepAlive);
    }
}

void RawBusClient::step(int time) {
    const int descriptor = mosquitto_socket(_handle);
    if (descriptor < 0) {
        _connected = false;
        poll(nullptr, 0, std::min(time, 5));
        return;
    }
    const bool writes = mosquitto_want_write(_handle);
    pollfd entry{descriptor, static_cast<short>(writes ? POLLIN | POLLOUT : POLLIN), 0};
    if (poll(&entry, 1, time) <= 0) {
        return;
    }
    int result = MOSQ_ERR_SUCCESS;
    if ((entry.revents & POLLOUT) != 0) {
        result = mosquitto_loop_write(_handle, 1);
    }
    if (result == MOSQ_ERR_SUCCESS && (entry.revents & ~POLLOUT) != 0) {
        result = mosquitto_loop_read(_handle, 1);
    }
    if (result != MOSQ_ERR_SUCCESS) {
        _connected = false;
    }
}

void RawBusClient::onConnect(mosquitto*, void* context, int result) {
    static_cast<RawBusClient*>(context)->_connected = result == 0;
}

void RawBusClient::onSubscribe(mosquitto*, void* context, int, int, const int*) {
    ++static_cast<RawBusClient*>(context)->_acknowledgedTopics;
}

void RawBusClient::onMessage(mosquitto*, void* context, const mosquitto_message* message) {
    static_cast<RawBusClient*>(context)->deliveries.push_back(
        {message->topic, std::string(static_cast<const char*>(message->payload),
                                     static_cast<std::size_t>(message->payloadlen))});
}

#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <string>
#include <vector>

struct mosquitto;
struct mosquitto_message;

/// A neighbour of the daemon on bare libmosquitto, driven by hand: nothing is read or written but
/// inside its calls, so that a test can be a reader that does not read.
class RawBusClient {
public:
    struct Delivery {
        std::string topic;
        std::string payload;
    };

    explicit RawBusClient(std::string socketPath);
    ~RawBusClient();
    RawBusClient(const RawBusClient&) = delete;
    RawBusClient& operator=(const RawBusClient&) = delete;

    /// Takes effect with the next `connect`.
    void subscribe(const std::string& topic) { _topics.push_back(topic); }
    /// True when the broker has acknowledged the connection and every subscription. Also connects
    /// again after a loss; what was not written by then is gone.
    bool connect(int milliseconds);
    bool isConnected() const { return _connected; }

    void publish(const std::string& topic, const std::string& payload, bool retain = false);
    /// Writes what is queued, without reading. False where it did not all go out in time.
    bool flush(int milliseconds);
    /// Reads and writes for the whole time, and sends the keep-alives that are due.
    void pump(int milliseconds);
    /// Reads and writes until `done`; false where the time is over first.
    bool pumpUntil(const std::function<bool()>& done, int milliseconds);

    /// Sends a keep-alive on a topic every 3 s from now on, from inside the pump; "" ends that.
    void sendKeepAlivesOn(const std::string& topic);

    /// What has arrived and was not taken, oldest first.
    std::deque<Delivery> deliveries;

private:
    using Time = std::chrono::steady_clock::time_point;

    void step(int milliseconds);
    void sendDueKeepAlive();
    static void onConnect(mosquitto* handle, void* context, int result);
    static void onSubscribe(mosquitto* handle, void* context, int id, int count,
                            const int* granted);
    static void onMessage(mosquitto* handle, void* context, const mosquitto_message* message);

    mosquitto* _handle;
    std::string _socketPath;
    std::vector<std::string> _topics;
    bool _connected = false;
    std::size_t _acknowledgedTopics = 0;
    std::string _keepAliveTopic;
    Time _nextKeepAlive;
};

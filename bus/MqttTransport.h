#pragma once

#include "bus/BusConfig.h"
#include "bus/Transport.h"

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

struct mosquitto;
struct mosquitto_message;

/// MQTT 3.1.1 through libmosquitto's single-threaded calls: QoS 0, clean session, nothing
/// retained. It polls by itself, since the library's own loop uses select (which fails from
/// descriptor 1024 on) and returns at once where there is no connection.
class MqttTransport : public Transport {
public:
    explicit MqttTransport(const BusConfig& config);
    ~MqttTransport() override;
    MqttTransport(const MqttTransport&) = delete;
    MqttTransport& operator=(const MqttTransport&) = delete;

    State state() const override { return _state; }
    std::string lastError() const override { return _lastError; }
    bool connect(const std::string& clientId) override;
    void disconnect() override;
    void close(const std::string& reason) override;
    void abandon() override;
    void subscribe(const std::string& topic) override;
    void unsubscribe(const std::string& topic) override;
    bool publish(const char* topic, const void* payload, int length) override;
    std::size_t bytesWaiting() const override { return _bytesWaiting; }
    int subscriptionsPending() const override { return _subscriptionsPending; }
    bool write(int milliseconds) override;
    WaitResult wait(int milliseconds, int wakeDescriptor) override;
    bool takeIn() override;

private:
    /// What the library's callback leaves behind: it holds a lock there, so that a send from inside
    /// would wait for itself. Kept from packet to packet, for their memory.
    struct Arrived {
        std::string topic;
        std::string payload;
    };

    static void onConnect(mosquitto* client, void* self, int code);
    static void onMessage(mosquitto* client, void* self, const mosquitto_message* message);
    static void onPublish(mosquitto* client, void* self, int id);
    static void onSubscribe(mosquitto* client, void* self, int id, int count, const int* granted);
    static void onLog(mosquitto* client, void* self, int level, const char* text);

    bool createClient(const std::string& clientId);
    bool applyTls();
    void destroyClient();
    /// Passes a library result on; closes the connection where it is an error of the connection.
    bool succeeded(int result);
    bool connectTimedOut();
    bool connectFailed();
    bool keepsAlive();
    bool mayHaveInput();
    void keep(const mosquitto_message& message);

    BusConfig _config;
    State _state = State::Disconnected;
    mosquitto* _client = nullptr;
    std::string _lastError;
    std::string _libraryError;
    std::string _refusal;
    std::vector<Arrived> _arrived;
    std::vector<Arrived> _taken;
    std::size_t _arrivedCount = 0;
    bool _sawInput = false;
    std::int64_t _lastUpkeep = 0;
    std::deque<std::size_t> _publishedBytes;
    std::size_t _bytesWaiting = 0;
    int _subscriptionsPending = 0;
    std::int64_t _connectStarted = 0;
};

#pragma once

#include "bus/Transport.h"

#include <QByteArray>
#include <QList>

#include <functional>

/// A transport for tests: records what is sent and delivers on cue, inside the wait. No broker,
/// no time passes. Topics are shown as token names again ("/" as ".").
class FakeTransport : public Transport {
public:
    struct Sent {
        QByteArray token;
        QByteArray payload;
    };

    /// What was published, oldest first.
    QList<Sent> sent;
    /// The argument of every wait that a pending wake-up did not end at once, oldest first.
    QList<int> waits;
    /// Called inside each wait, before anything is delivered (to move a clock, to deliver).
    std::function<void(int milliseconds)> onWait;
    /// Called for each message that is published (so that a forked child can tell of it).
    std::function<void(const Sent&)> onPublish;
    /// Called inside each write while bytes wait (to let the broker read, or go).
    std::function<void(int milliseconds)> onWrite;
    /// Whether connects and sends succeed; going from true to false loses the connection.
    void setBrokerPresent(bool present);
    /// Holds written bytes back, as a broker does that does not read.
    bool brokerReads = true;

    /// Queues a delivery for the next take-in; dropped unless subscribed.
    void deliver(const QByteArray& token, const QByteArray& payload);
    const QList<QByteArray>& subscriptions() const { return _subscriptions; }
    int connects() const { return _connects; }

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
    bool write(int milliseconds) override;
    WaitResult wait(int milliseconds, int wakeDescriptor) override;
    bool takeIn() override;

private:
    State _state = State::Disconnected;
    bool _brokerPresent = true;
    std::string _lastError = "no broker";
    int _connects = 0;
    std::size_t _bytesWaiting = 0;
    QList<Sent> _incoming;
    QList<QByteArray> _subscriptions;
};

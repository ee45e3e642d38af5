#pragma once

#include <cstddef>
#include <string>

/// Who is told what a transport received. The bytes are gone when the call returns.
class TransportListener {
public:
    virtual void delivered(const char* topic, const void* payload, int length) = 0;

protected:
    ~TransportListener() = default;
};

/// One connection to a broker, as PubSubInterface needs it: publish and subscribe by topic, in
/// one order, without threads. It does not reconnect by itself. Nothing is read but in `takeIn`,
/// and nothing is delivered but from there.
class Transport {
public:
    enum class State { Disconnected, Connecting, Connected };
    enum class WaitResult { TimeOver, Ready, Interrupted };

    virtual ~Transport() = default;

    void setListener(TransportListener* listener) { _listener = listener; }

    virtual State state() const = 0;
    /// Why the last connection attempt failed or the connection ended, for the log.
    virtual std::string lastError() const = 0;

    /// Begins to connect; `takeIn` carries it on. False where it failed at once.
    virtual bool connect(const std::string& clientId) = 0;
    /// Says goodbye and closes.
    virtual void disconnect() = 0;
    /// Closes a connection that is of no use any more; `reason` becomes the last error.
    virtual void close(const std::string& reason) = 0;
    /// Closes the descriptor of an inherited connection without writing a byte to it.
    virtual void abandon() = 0;

    virtual void subscribe(const std::string& topic) = 0;
    virtual void unsubscribe(const std::string& topic) = 0;
    /// Subscriptions that the broker has not confirmed yet.
    virtual int subscriptionsPending() const { return 0; }
    /// Queues and writes as much as the system takes at once. False where it was not taken.
    virtual bool publish(const char* topic, const void* payload, int length) = 0;
    /// Bytes published and not yet written; not 0 while anything is, even an empty payload.
    virtual std::size_t bytesWaiting() const = 0;
    /// Waits up to `milliseconds` for room and writes what it can. False if no byte went out.
    virtual bool write(int milliseconds) = 0;

    /// Blocks until there is something to take in (or the connection's state changed), a signal
    /// was caught, `wakeDescriptor` is readable, or the time is over. Writes what is queued.
    virtual WaitResult wait(int milliseconds, int wakeDescriptor) = 0;
    /// Takes in about one packet, a delivery or not. False where nothing more has arrived.
    virtual bool takeIn() = 0;

protected:
    TransportListener* _listener = nullptr;
};

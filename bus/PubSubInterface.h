#pragma once

#include "bus/Message.h"
#include "bus/PubSubMessage.h"
#include "bus/ReconnectPolicy.h"
#include "bus/TokenTable.h"
#include "bus/Transport.h"

#include <QByteArray>
#include <QByteArrayView>
#include <QObject>

#include <memory>
#include <string>
#include <vector>

/// An I/O scheduling class, with the system's numbers.
enum class IOPriority { Unchanged = 0, RealTime = 1, BestEffort = 2, Idle = 3 };

using PubSubCallback = void (*)(void* context, PubSubMessage* delivery);

/// The unit's bus: named tokens over one MQTT connection a process. Single-threaded; the
/// callback is called from inside `readWaitingMessages` and `takeInArrived` only. Where the
/// broker is away the process goes on: the connection is tried again from inside the wait (at
/// once, then after 50 ms, growing to 800 ms), every wanted token is subscribed again, and what is
/// sent meanwhile is dropped and counted.
class PubSubInterface : public QObject, private TransportListener {
public:
    /// The transport is MQTT as the environment says (see BusConfig).
    explicit PubSubInterface(QObject* parent);
    /// A transport of the caller's, for tests.
    PubSubInterface(QObject* parent, std::unique_ptr<Transport> transport);
    /// Hands what is queued to the broker and leaves the bus.
    ~PubSubInterface() override;

    /// The process's bus client, null where there is none.
    static PubSubInterface* instance();

    /// Joins the bus under `name`, waiting up to half a second for the broker. The buffer sizes and
    /// options are the callers' hints, and unused: the system's socket buffers serve. False,
    /// with one log line that names the variable, where the environment cannot be used.
    bool initialize(const char* name, PubSubCallback callback, void* context, int sendBufferBytes,
                    int receiveBufferBytes, int options, IOPriority ioPriority);

    /// Subscribes to a token; wanted tokens are counted, so each add needs its own remove. False,
    /// with a log line, for a name that is empty or holds "/", "+", "#" or NUL.
    bool addWantedToken(const QByteArray& name);
    void removeWantedToken(const QByteArray& name);
    /// Subscribes to every token below the prefix.
    void wantEverything();
    /// Subscribes to every token one step below `name`: for "a.b" those like "a.b.c".
    void wantBranch(QByteArrayView name);

    /// The number of a wanted token, -1 where it is not wanted. Numbers are not used again.
    int findToken(QByteArrayView name) const;
    /// The name of a token number, empty where there is none.
    QByteArray tokenName(int tokenId) const;

    /// Sends bytes, or a message's flat form, on a token. Never blocks on a reader and never
    /// reads; where more than 1 MiB waits to be written it waits for the broker to take it. False
    /// where it was dropped: no broker, a name that cannot be a token, or a payload too large.
    bool sendToken(QByteArrayView name, const void* data, int length);
    bool sendTokenMessage(QByteArrayView name, const Message& message);

    /// Blocks until a delivery arrives, a signal is caught, `wake` was called or the time is over;
    /// then calls the callback for what has arrived (at most 1,024 deliveries or 4 MiB a call).
    void readWaitingMessages(int milliseconds);
    /// The same without waiting. Returns the number of deliveries.
    int takeInArrived();
    /// Waits up to `milliseconds` until the broker has confirmed every subscription. What is
    /// delivered meanwhile is held back for the next wait.
    bool awaitSubscriptions(int milliseconds);
    /// The next wait takes in what has arrived and returns. Signal handlers may call it.
    static void wake();
    /// The same for work between two waits that goes on after the next: costs no system call.
    void skipNextWait() { _skipsNextWait = true; }

    bool isConnected() const;
    /// Grows by one whenever a connection that was up is lost, so that a stream can end with it.
    quint32 lostConnections() const;

    /// Milliseconds since process start, modulo 2^32.
    static quint32 getSystemTicks();
    /// The nice value of this process.
    static void setProcessPriority(int niceValue);
    /// The I/O scheduling class of this thread, numbered as IOPriority.
    static void setThreadIOPriority(int ioClass);

    /// Brackets a fork in the parent: the first hands everything queued to the broker, so that
    /// no half-written packet is inherited.
    void enterSafeToFork();
    void leaveSafeToFork();
    /// In a forked child: opens a connection of its own and subscribes it to the wanted tokens
    /// that it inherited. Without it a child can send and receives nothing.
    bool rejoin();

private:
    static constexpr char kLogTarget[] = "PubSubInterface";
    static constexpr int kMaximumBatchDeliveries = 1024;
    static constexpr qint64 kMaximumBatchBytes = 4 * 1024 * 1024;

    struct Held {
        int tokenId;
        QByteArray payload;
    };

    void delivered(const char* topic, const void* payload, int length) override;
    void handOver(int tokenId, const char* data, int length);
    void handOverHeld();

    void followFork();
    void keepConnected();
    void tryToConnect();
    void noteStateChange();
    void noteConnected();
    void noteDisconnected();
    void noteDropped(const std::string& topic);
    void subscribeWanted();
    bool connectNow(int milliseconds, bool insist);
    bool connectToSend();
    bool waitForRoom(std::size_t bytesAllowed);
    void wantFilter(const std::string& filter);

    std::unique_ptr<Transport> _transport;
    TokenTable _tokens{std::string()};
    ReconnectPolicy _reconnect;
    PubSubCallback _callback = nullptr;
    void* _context = nullptr;
    std::string _name;
    std::string _url;
    QByteArray _sentName;    ///< of the last send
    std::string _sentTopic;  ///< of the same
    Transport::State _state = Transport::State::Disconnected;
    quint32 _lostConnections = 0;
    quint32 _droppedSends = 0;
    unsigned _generation;
    std::vector<std::string> _filters;  ///< topic filters besides the wanted tokens
    bool _outageLogged = false;
    bool _listens = true;  ///< false in a forked child until it rejoins
    bool _isChild = false;
    bool _holdsBack = false;
    bool _skipsNextWait = false;
    QList<Held> _held;
    int _batchDeliveries = 0;
    qint64 _batchBytes = 0;
};

extern PubSubInterface* g_pubSubInterface;

#include "bus/PubSubInterface.h"

#include "bus/BusConfig.h"
#include "bus/Clock.h"
#include "bus/DebugText.h"
#include "bus/ForkedChild.h"
#include "bus/MqttTransport.h"
#include "bus/ProcessPriority.h"
#include "bus/Wakeup.h"

#include <algorithm>
#include <new>
#include <utility>

#include <poll.h>
#include <unistd.h>

PubSubInterface* g_pubSubInterface = nullptr;

namespace {

constexpr char kTarget[] = "PubSubInterface";

constexpr int kJoinMilliseconds = 500;
constexpr int kChildConnectMilliseconds = 5000;
/// While there is no connection the wait looks up at least this often.
constexpr int kLongestBlindWaitMilliseconds = 500;
/// A broker that takes nothing for this long is taken for dead, or a send would wait for ever.
constexpr int kStalledBrokerMilliseconds = 30'000;
constexpr int kGoodbyeMilliseconds = 2000;
constexpr std::size_t kMaximumBytesWaiting = 1024 * 1024;
constexpr int kMaximumBatchDeliveries = 1024;
constexpr qint64 kMaximumBatchBytes = 4 * 1024 * 1024;
constexpr qint64 kMaximumPacketBytes = 256 * 1024 * 1024 - 1;
constexpr qint64 kTopicLengthBytes = 2;

PubSubInterface* g_instance = nullptr;

std::string clientId(const std::string& name) {
    char host[256] = "";
    gethostname(host, sizeof host - 1);
    return name + "-" + host + "-" + std::to_string(getpid());
}

int elapsedSince(quint32 start) {
    return int(Clock::ticks() - start);
}

}  // namespace

PubSubInterface::PubSubInterface(QObject* parent) : PubSubInterface(parent, nullptr) {}

PubSubInterface::PubSubInterface(QObject* parent, std::unique_ptr<Transport> transport)
    : QObject(parent), _transport(std::move(transport)), _generation(ForkedChild::generation()) {
    g_instance = this;
}

PubSubInterface::~PubSubInterface() {
    if (g_instance == this) {
        g_instance = nullptr;
    }
    if (!_transport) {
        return;
    }
    followFork();
    while (_transport->bytesWaiting() > 0 && _transport->write(kGoodbyeMilliseconds)) {
    }
    _transport->disconnect();
}

PubSubInterface* PubSubInterface::instance() {
    return g_instance;
}

bool PubSubInterface::initialize(const char* name, PubSubCallback callback, void* context, int, int,
                                 int, IOPriority ioPriority) {
    _name = name;
    _callback = callback;
    _context = context;
    if (!_transport) {
        BusConfig config;
        std::string fault;
        if (!BusConfig::fromEnvironment(config, fault)) {
            DebugText::send(kTarget, "%s", fault.c_str());
            return false;
        }
        _tokens = TokenTable(config.prefix);
        _url = config.displayUrl();
        _transport = std::make_unique<MqttTransport>(config);
    }
    _transport->setListener(this);
    setThreadIOPriority(static_cast<int>(ioPriority));
    connectNow(kJoinMilliseconds, /*insist=*/false);
    return true;
}

bool PubSubInterface::addWantedToken(const QByteArray& name) {
    if (!TokenTable::isUsable(name)) {
        DebugText::send(kTarget, "token name \"%s\" refused", name.constData());
        return false;
    }
    followFork();
    if (_tokens.want(name) && _listens) {
        _transport->subscribe(_tokens.topicOf(name));
    }
    return true;
}

void PubSubInterface::removeWantedToken(const QByteArray& name) {
    followFork();
    if (_tokens.unwant(name) && _listens) {
        _transport->unsubscribe(_tokens.topicOf(name));
    }
}

void PubSubInterface::wantEverything() {
    _wantsEverything = true;
    _transport->subscribe(_tokens.everything());
}

int PubSubInterface::findToken(QByteArrayView name) const {
    return _tokens.find(name);
}

QByteArray PubSubInterface::tokenName(int tokenId) const {
    return _tokens.nameOf(tokenId);
}

bool PubSubInterface::sendToken(QByteArrayView name, const void* data, int length) {
    followFork();
    if (!TokenTable::isUsable(name)) {
        DebugText::send(kTarget, "token name \"%.*s\" refused", int(name.size()), name.data());
        return false;
    }
    const std::string topic = _tokens.topicOf(name);
    if (length < 0 || length > kMaximumPacketBytes - kTopicLengthBytes - qint64(topic.size())) {
        DebugText::send(kTarget, "%d bytes are too many for token \"%s\"", length, topic.c_str());
        return false;
    }
    if (!connectToSend() || !waitForRoom(kMaximumBytesWaiting) ||
        !_transport->publish(topic.c_str(), data, length)) {
        noteDropped(topic);
        return false;
    }
    return !_isChild || waitForRoom(0);
}

void PubSubInterface::noteDropped(const std::string& topic) {
    noteStateChange();
    if (_state == Transport::State::Connected) {
        DebugText::send(kTarget, "topic \"%s\" cannot be sent", topic.c_str());
    } else {
        ++_droppedSends;
    }
}

bool PubSubInterface::sendTokenMessage(QByteArrayView name, const Message& message) {
    return sendToken(name, message.buffer(), message.length());
}

/// A child connects when it first has something to send, and looks whether that connection
/// still stands before each send, since nothing else would tell it.
bool PubSubInterface::connectToSend() {
    if (!_isChild) {
        return _state == Transport::State::Connected;
    }
    if (!_listens) {
        _transport->takeIn();
        noteStateChange();
    }
    if (_state == Transport::State::Connected) {
        return true;
    }
    return connectNow(kChildConnectMilliseconds, /*insist=*/!_outageLogged);
}

/// Waits until at most `bytesAllowed` wait to be written.
bool PubSubInterface::waitForRoom(std::size_t bytesAllowed) {
    while (_transport->bytesWaiting() > bytesAllowed) {
        if (!_transport->write(kStalledBrokerMilliseconds)) {
            if (_transport->state() == Transport::State::Connected) {
                _transport->close("the broker took no data for 30 seconds");
            }
            noteStateChange();
            return false;
        }
    }
    return _transport->state() == Transport::State::Connected;
}

void PubSubInterface::readWaitingMessages(int milliseconds) {
    followFork();
    const quint32 start = Clock::ticks();
    for (;;) {
        keepConnected();
        if (!_held.isEmpty()) {
            takeInArrived();
            return;
        }
        const int left = std::max(0, milliseconds - elapsedSince(start));
        int slice = left;
        if (_state != Transport::State::Connected) {
            slice = std::min(slice, kLongestBlindWaitMilliseconds);
            const int untilDue = _reconnect.millisecondsUntilDue(Clock::ticks());
            if (_state == Transport::State::Disconnected && _listens && untilDue > 0) {
                slice = std::min(slice, untilDue);
            }
        }
        const Transport::WaitResult result = _transport->wait(slice, Wakeup::descriptor());
        if (result == Transport::WaitResult::Interrupted) {
            Wakeup::clear();
            takeInArrived();
            return;
        }
        if (result == Transport::WaitResult::Ready && takeInArrived() > 0) {
            return;
        }
        if (result == Transport::WaitResult::TimeOver && slice == left) {
            return;
        }
    }
}

int PubSubInterface::takeInArrived() {
    followFork();
    _batchDeliveries = 0;
    _batchBytes = 0;
    keepConnected();
    // A caller that never waits must still get its answers out and come back after a loss.
    if (_state == Transport::State::Connecting || _transport->bytesWaiting() > 0) {
        _transport->write(0);
    }
    handOverHeld();
    while (_batchDeliveries < kMaximumBatchDeliveries && _batchBytes < kMaximumBatchBytes &&
           _transport->takeIn()) {
    }
    noteStateChange();
    return _batchDeliveries;
}

bool PubSubInterface::awaitSubscriptions(int milliseconds) {
    const quint32 start = Clock::ticks();
    _holdsBack = true;
    _batchBytes = 0;
    while (_state == Transport::State::Connected && _transport->subscriptionsPending() > 0 &&
           elapsedSince(start) < milliseconds && _batchBytes < kMaximumBatchBytes) {
        _transport->wait(milliseconds - elapsedSince(start), /*wakeDescriptor=*/-1);
        _transport->takeIn();
        noteStateChange();
    }
    _holdsBack = false;
    return _state == Transport::State::Connected && _transport->subscriptionsPending() == 0;
}

void PubSubInterface::wake() {
    Wakeup::raise();
}

void PubSubInterface::delivered(const char* topic, const void* payload, int length) {
    const int tokenId = _wantsEverything ? _tokens.findOrAddTopic(topic) : _tokens.findTopic(topic);
    if (tokenId < 0) {
        return;
    }
    const auto* data = static_cast<const char*>(payload);
    ++_batchDeliveries;
    _batchBytes += length;
    if (_holdsBack) {
        _held.append({tokenId, QByteArray(data, length)});
        return;
    }
    handOver(tokenId, data, length);
}

void PubSubInterface::handOver(int tokenId, const char* data, int length) {
    if (!_callback) {
        return;
    }
    PubSubMessage message{tokenId, data, length};
    try {
        _callback(_context, &message);
    } catch (const std::bad_alloc&) {
        DebugText::send(kTarget, "no memory for a delivery of %d bytes, dropped", length);
    }
}

void PubSubInterface::handOverHeld() {
    const QList<Held> held = std::exchange(_held, {});
    for (const Held& delivery : held) {
        if (_tokens.nameOf(delivery.tokenId).isEmpty()) {
            continue;
        }
        ++_batchDeliveries;
        _batchBytes += delivery.payload.size();
        handOver(delivery.tokenId, delivery.payload.constData(), int(delivery.payload.size()));
    }
}

bool PubSubInterface::isConnected() const {
    return _state == Transport::State::Connected;
}

quint32 PubSubInterface::lostConnections() const {
    return _lostConnections;
}

quint32 PubSubInterface::getSystemTicks() {
    return Clock::ticks();
}

void PubSubInterface::setProcessPriority(int niceValue) {
    ProcessPriority::setNice(niceValue);
}

void PubSubInterface::setThreadIOPriority(int ioClass) {
    ProcessPriority::setIOClass(ioClass);
}

void PubSubInterface::enterSafeToFork() {
    followFork();
    waitForRoom(0);
}

void PubSubInterface::leaveSafeToFork() {}

bool PubSubInterface::rejoin() {
    followFork();
    _listens = true;
    if (_state == Transport::State::Connected) {
        subscribeWanted();
    } else if (!connectNow(kChildConnectMilliseconds, /*insist=*/true)) {
        return false;
    }
    return awaitSubscriptions(kChildConnectMilliseconds);
}

/// The first call in a forked child leaves the parent's connection to the parent.
void PubSubInterface::followFork() {
    if (_generation == ForkedChild::generation()) {
        return;
    }
    _generation = ForkedChild::generation();
    _isChild = true;
    _listens = false;
    _held.clear();
    _droppedSends = 0;
    _outageLogged = false;
    _reconnect = ReconnectPolicy();
    _state = Transport::State::Disconnected;
    if (_transport) {
        _transport->abandon();
    }
}

void PubSubInterface::keepConnected() {
    noteStateChange();
    if (_state == Transport::State::Disconnected && _listens &&
        _reconnect.millisecondsUntilDue(Clock::ticks()) <= 0) {
        tryToConnect();
    }
}

void PubSubInterface::tryToConnect() {
    _state = Transport::State::Connecting;
    _transport->connect(clientId(_name));
    noteStateChange();
}

/// Connects and waits for the broker's answer. With `insist` it goes on trying until the time is
/// over, without it a refusal ends it.
bool PubSubInterface::connectNow(int milliseconds, bool insist) {
    const quint32 start = Clock::ticks();
    _holdsBack = true;
    for (;;) {
        const int untilDue = _reconnect.millisecondsUntilDue(Clock::ticks());
        const int left = milliseconds - elapsedSince(start);
        if (_state == Transport::State::Connected || left <= 0) {
            break;
        }
        if (_state == Transport::State::Disconnected && untilDue <= 0) {
            tryToConnect();
        } else if (_state == Transport::State::Disconnected) {
            if (!insist) {
                break;
            }
            poll(nullptr, 0, std::min(left, untilDue));
        } else {
            _transport->wait(left, /*wakeDescriptor=*/-1);
            _transport->takeIn();
            noteStateChange();
        }
    }
    _holdsBack = false;
    return _state == Transport::State::Connected;
}

void PubSubInterface::noteStateChange() {
    const Transport::State before = _state;
    _state = _transport->state();
    if (_state == before) {
        return;
    }
    if (_state == Transport::State::Connected) {
        noteConnected();
    } else if (_state == Transport::State::Disconnected) {
        if (before == Transport::State::Connected) {
            ++_lostConnections;
            _reconnect.lost(Clock::ticks());
        } else {
            _reconnect.failed(Clock::ticks());
        }
        noteDisconnected();
    }
}

void PubSubInterface::noteConnected() {
    _reconnect.connected(Clock::ticks());
    _outageLogged = false;
    if (!_isChild) {
        DebugText::send(kTarget, "connected to %s", _url.c_str());
    }
    if (_listens) {
        subscribeWanted();
    }
    if (_droppedSends > 0) {
        DebugText::send(kTarget, "%u messages were dropped while there was no connection",
                        _droppedSends);
        _droppedSends = 0;
    }
}

void PubSubInterface::subscribeWanted() {
    const QList<QByteArray> names = _tokens.names();
    for (const QByteArray& name : names) {
        _transport->subscribe(_tokens.topicOf(name));
    }
    if (_wantsEverything) {
        _transport->subscribe(_tokens.everything());
    }
}

void PubSubInterface::noteDisconnected() {
    if (_outageLogged) {
        return;
    }
    _outageLogged = true;
    DebugText::send(kTarget, "no connection to %s: %s; trying again", _url.c_str(),
                    _transport->lastError().c_str());
}

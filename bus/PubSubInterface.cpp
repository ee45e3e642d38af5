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

PubSubInterface* g_pubSubInterface = nullptr;

namespace {

constexpr int kJoinMilliseconds = 500;
/// While there is no connection the wait looks up at least this often.
constexpr int kLongestBlindWaitMilliseconds = 500;
/// Longer waits are made of these: the transport keeps the connection up at the start of each.
constexpr int kLongestWaitMilliseconds = 60'000;
constexpr int kGoodbyeMilliseconds = 2000;
constexpr std::size_t kMaximumBytesWaiting = 1024 * 1024;
constexpr qint64 kMaximumPacketBytes = 256 * 1024 * 1024 - 1;
constexpr qint64 kTopicLengthBytes = 2;

PubSubInterface* g_instance = nullptr;

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
            DebugText::send(kLogTarget, "%s", fault.c_str());
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
        DebugText::send(kLogTarget, "token name \"%s\" refused", name.constData());
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
    wantFilter(_tokens.everything());
}

void PubSubInterface::wantBranch(QByteArrayView name) {
    wantFilter(_tokens.below(name));
}

void PubSubInterface::wantFilter(const std::string& filter) {
    _filters.push_back(filter);
    _transport->subscribe(filter);
}

int PubSubInterface::findToken(QByteArrayView name) const {
    return _tokens.find(name);
}

QByteArray PubSubInterface::tokenName(int tokenId) const {
    return _tokens.nameOf(tokenId);
}

bool PubSubInterface::sendToken(QByteArrayView name, const void* data, int length) {
    followFork();
    // The same token again is the usual case.
    if (name.isEmpty() || name != QByteArrayView(_sentName)) {
        if (!TokenTable::isUsable(name)) {
            DebugText::send(kLogTarget, "token name \"%.*s\" refused", int(name.size()),
                            name.data());
            return false;
        }
        // Both or none, should the memory run out between them.
        std::string topic = _tokens.topicOf(name);
        _sentName = name.toByteArray();
        _sentTopic = std::move(topic);
    }
    const std::string& topic = _sentTopic;
    if (length < 0 || length > kMaximumPacketBytes - kTopicLengthBytes - qint64(topic.size())) {
        DebugText::send(kLogTarget, "%d bytes are too many for token \"%s\"", length,
                        topic.c_str());
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
        DebugText::send(kLogTarget, "topic \"%s\" cannot be sent", topic.c_str());
    } else {
        ++_droppedSends;
    }
}

bool PubSubInterface::sendTokenMessage(QByteArrayView name, const Message& message) {
    return sendToken(name, message.buffer(), message.length());
}

void PubSubInterface::readWaitingMessages(int milliseconds) {
    followFork();
    const int wanted = std::exchange(_skipsNextWait, false) ? 0 : std::max(0, milliseconds);
    const quint32 start = Clock::ticks();
    for (int left = wanted;; left = std::max(0, wanted - Clock::ticksSince(start))) {
        keepConnected();
        if (!_held.isEmpty()) {
            takeInArrived();
            return;
        }
        int slice = std::min(left, kLongestWaitMilliseconds);
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

void PubSubInterface::wake() {
    Wakeup::raise();
}

void PubSubInterface::delivered(const char* topic, const void* payload, int length) {
    const int tokenId = _filters.empty() ? _tokens.findTopic(topic) : _tokens.findOrAddTopic(topic);
    if (tokenId < 0) {
        return;
    }
    const auto* data = static_cast<const char*>(payload);
    ++_batchDeliveries;
    _batchBytes += length;
    handOver(tokenId, data, length);
}

void PubSubInterface::handOver(int tokenId, const char* data, int length) {
    PubSubMessage message{tokenId, data, length};
    try {
        if (_holdsBack) {
            _held.append({tokenId, QByteArray(data, length)});
        } else if (_callback) {
            _callback(_context, &message);
        }
    } catch (const std::bad_alloc&) {
        DebugText::send(kLogTarget, "no memory for a delivery of %d bytes, dropped", length);
    }
}

void PubSubInterface::handOverHeld() {
    if (_held.isEmpty()) {
        return;
    }
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

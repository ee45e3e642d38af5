// The half of PubSubInterface that keeps the connection: joining, losing and finding the broker
// again, and what changes for a forked child.

#include "bus/Clock.h"
#include "bus/DebugText.h"
#include "bus/ForkedChild.h"
#include "bus/PubSubInterface.h"

#include <algorithm>

#include <poll.h>
#include <unistd.h>

namespace {

constexpr int kChildConnectMilliseconds = 5000;
/// A broker that takes nothing for this long is taken for dead, or a send would wait for ever.
constexpr int kStalledBrokerMilliseconds = 30'000;

std::string clientId(const std::string& name) {
    char host[256] = "";
    gethostname(host, sizeof host - 1);
    return name + "-" + host + "-" + std::to_string(getpid());
}

}  // namespace

bool PubSubInterface::isConnected() const {
    return _state == Transport::State::Connected;
}

quint32 PubSubInterface::lostConnections() const {
    return _lostConnections;
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

bool PubSubInterface::awaitSubscriptions(int milliseconds) {
    const quint32 start = Clock::ticks();
    _holdsBack = true;
    _batchBytes = 0;
    while (_state == Transport::State::Connected && _transport->subscriptionsPending() > 0 &&
           Clock::ticksSince(start) < milliseconds && _batchBytes < kMaximumBatchBytes) {
        _transport->wait(milliseconds - Clock::ticksSince(start), /*wakeDescriptor=*/-1);
        _transport->takeIn();
        noteStateChange();
    }
    _holdsBack = false;
    return _state == Transport::State::Connected && _transport->subscriptionsPending() == 0;
}

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
    _skipsNextWait = false;
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
        const int left = milliseconds - Clock::ticksSince(start);
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
    // That a child opens its connection goes without saying, but not that it has it again.
    if (!_isChild || _outageLogged) {
        DebugText::send(kLogTarget, "connected to %s", _url.c_str());
    }
    _outageLogged = false;
    if (_listens) {
        subscribeWanted();
    }
    if (_droppedSends > 0) {
        DebugText::send(kLogTarget, "%u messages were dropped while there was no connection",
                        _droppedSends);
        _droppedSends = 0;
    }
}

void PubSubInterface::subscribeWanted() {
    const QList<QByteArray> names = _tokens.names();
    for (const QByteArray& name : names) {
        _transport->subscribe(_tokens.topicOf(name));
    }
    for (const std::string& filter : _filters) {
        _transport->subscribe(filter);
    }
}

void PubSubInterface::noteDisconnected() {
    if (_outageLogged) {
        return;
    }
    _outageLogged = true;
    DebugText::send(kLogTarget, "no connection to %s: %s; trying again", _url.c_str(),
                    _transport->lastError().c_str());
}

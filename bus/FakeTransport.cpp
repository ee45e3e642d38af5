#include "bus/FakeTransport.h"

#include <cstring>

#include <poll.h>

namespace {

bool isReadable(int descriptor) {
    pollfd wanted{descriptor, POLLIN, 0};
    return poll(&wanted, 1, 0) > 0;
}

QByteArray topicOf(QByteArray token) {
    return token.replace('.', '/');
}

QByteArray tokenOf(const char* topic) {
    return QByteArray(topic).replace('/', '.');
}

}  // namespace

void FakeTransport::setBrokerPresent(bool present) {
    _brokerPresent = present;
    if (!present && _state != State::Disconnected) {
        disconnect();
    }
}

void FakeTransport::deliver(const QByteArray& token, const QByteArray& payload) {
    const QByteArray topic = topicOf(token);
    const QByteArray branch = topic.left(topic.lastIndexOf('/') + 1) + '+';
    const bool wanted = _subscriptions.contains(topic) || _subscriptions.contains(branch) ||
                        _subscriptions.contains("#");
    if (_state == State::Connected && wanted) {
        _incoming.append({token, payload});
    }
}

bool FakeTransport::connect(const std::string&) {
    ++_connects;
    if (!_brokerPresent) {
        return false;
    }
    _state = State::Connected;
    return true;
}

void FakeTransport::disconnect() {
    _state = State::Disconnected;
    _subscriptions.clear();
    _incoming.clear();
    _bytesWaiting = 0;
}

void FakeTransport::close(const std::string& reason) {
    disconnect();
    _lastError = reason;
}

void FakeTransport::abandon() {
    disconnect();
}

void FakeTransport::subscribe(const std::string& topic) {
    if (_state == State::Connected) {
        _subscriptions.append(QByteArray::fromStdString(topic));
    }
}

void FakeTransport::unsubscribe(const std::string& topic) {
    _subscriptions.removeOne(QByteArray::fromStdString(topic));
}

bool FakeTransport::publish(const char* topic, const void* payload, int length) {
    if (_state != State::Connected) {
        return false;
    }
    sent.append({tokenOf(topic), QByteArray(static_cast<const char*>(payload), length)});
    if (onPublish) {
        onPublish(sent.last());
    }
    if (!brokerReads) {
        _bytesWaiting += std::strlen(topic) + static_cast<std::size_t>(length);
    }
    return true;
}

bool FakeTransport::write(int milliseconds) {
    if (onWrite && _bytesWaiting > 0) {
        onWrite(milliseconds);
    }
    if (!brokerReads || _bytesWaiting == 0) {
        return false;
    }
    _bytesWaiting = 0;
    return true;
}

Transport::WaitResult FakeTransport::wait(int milliseconds, int wakeDescriptor) {
    if (isReadable(wakeDescriptor)) {
        return WaitResult::Interrupted;
    }
    waits.append(milliseconds);
    if (onWait) {
        onWait(milliseconds);
    }
    if (isReadable(wakeDescriptor)) {
        return WaitResult::Interrupted;
    }
    return _incoming.isEmpty() ? WaitResult::TimeOver : WaitResult::Ready;
}

bool FakeTransport::takeIn() {
    if (_incoming.isEmpty()) {
        return false;
    }
    const Sent delivery = _incoming.takeFirst();
    const QByteArray topic = topicOf(delivery.token);
    _listener->delivered(topic.constData(), delivery.payload.constData(),
                         static_cast<int>(delivery.payload.size()));
    return true;
}

#pragma once

#include "bus/FakeTransport.h"
#include "bus/Message.h"
#include "bus/PubSubInterface.h"

#include <memory>

/// A bus client over a FakeTransport as the process's `g_pubSubInterface` while it lives.
class FakeBus {
public:
    struct Sent {
        QByteArray token;
        int connection = 0;  ///< of a "ConnectionManager.clientMessage", else 0
        Message message;
    };

    explicit FakeBus(PubSubCallback callback = nullptr);
    ~FakeBus();
    FakeBus(const FakeBus&) = delete;
    FakeBus& operator=(const FakeBus&) = delete;

    FakeTransport& transport() { return *_transport; }
    PubSubInterface& bus() { return *_bus; }

    static Sent decoded(const FakeTransport::Sent& sent);
    /// What was sent since the last call, decoded.
    QList<Sent> takeSent();

private:
    FakeTransport* _transport;
    std::unique_ptr<PubSubInterface> _bus;
};

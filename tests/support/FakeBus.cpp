#include "tests/support/FakeBus.h"

#include "bus/Wakeup.h"

#include <QtEndian>

FakeBus::FakeBus(PubSubCallback callback) {
    Wakeup::clear();
    auto transport = std::make_unique<FakeTransport>();
    _transport = transport.get();
    _bus = std::make_unique<PubSubInterface>(nullptr, std::move(transport));
    _bus->initialize("test", callback, nullptr, 65536, 65536, 0, IOPriority::Unchanged);
    g_pubSubInterface = _bus.get();
}

FakeBus::~FakeBus() {
    g_pubSubInterface = nullptr;
}

FakeBus::Sent FakeBus::decoded(const FakeTransport::Sent& sent) {
    Sent result;
    result.token = sent.token;
    const bool framed = sent.token == "ConnectionManager.clientMessage";
    const int header = framed ? 4 : 0;
    if (framed && sent.payload.size() >= 4) {
        result.connection = qFromLittleEndian<qint32>(sent.payload.constData());
    }
    result.message.construct(sent.payload.constData() + header,
                             static_cast<int>(sent.payload.size()) - header);
    return result;
}

QList<FakeBus::Sent> FakeBus::takeSent() {
    QList<Sent> result;
    for (const FakeTransport::Sent& sent : std::as_const(_transport->sent)) {
        result.append(decoded(sent));
    }
    _transport->sent.clear();
    return result;
}

#include "bus/PubSubInterface.h"
#include "tools/storagectl/Commands.h"
#include "tools/storagectl/Interrupt.h"
#include "tools/storagectl/MessageText.h"

#include <QDateTime>

namespace storagectl {

namespace {

constexpr int kWaitMilliseconds = 1000;

struct Listener {
    PubSubInterface& bus;
    Output& output;
    int limit;
    int seen = 0;

    bool isDone() const { return (limit > 0 && seen >= limit) || output.isClosed(); }
};

void show(void* context, PubSubMessage* delivery) {
    Listener& listener = *static_cast<Listener*>(context);
    if (listener.isDone()) {
        return;
    }
    ++listener.seen;
    const MessageText text(listener.bus.tokenName(delivery->tokenId),
                           QByteArray(delivery->data, delivery->length));
    const QDateTime now = QDateTime::currentDateTime();
    if (listener.output.style().json) {
        QJsonObject object = text.object();
        object.insert("command", "sniff");
        object.insert("time", now.toOffsetFromUtc(now.offsetFromUtc()).toString(Qt::ISODateWithMs));
        listener.output.object(object);
        return;
    }
    listener.output.line(now.toString("HH:mm:ss.zzz") + ' ' + text.line());
    listener.output.flush();
}

}  // namespace

Outcome sniff(PubSubInterface& bus, const Options& options, Output& output) {
    Listener listener{bus, output, options.count};
    const Outcome joined = joinBus(bus, show, &listener);
    if (!joined.isDone()) {
        return joined;
    }
    bus.wantEverything();
    bool isConnected = true;
    while (!listener.isDone() && !Interrupt::requested()) {
        bus.readWaitingMessages(kWaitMilliseconds);
        if (bus.isConnected() != isConnected) {
            isConnected = !isConnected;
            output.talk(isConnected ? "the broker is back; messages in between were not seen"
                                    : "the broker is lost, waiting for it");
        }
    }
    return Interrupt::requested() ? Outcome::failure(ExitCode::Interrupted, {}) : Outcome::done();
}

}  // namespace storagectl

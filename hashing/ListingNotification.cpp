#include "hashing/ListingNotification.h"

#include "bus/Clock.h"
#include "bus/Message.h"
#include "bus/PubSubInterface.h"
#include "core/shared/StoragePaths.h"
#include "core/shared/Tokens.h"

namespace {

constexpr int kUpdateIntervalMilliseconds = 1000;
/// The last parameter of every notification about a listing.
constexpr int kLastParameter = 3600;
constexpr char kCardTitle[] = "Creating file listings for card storage";

bool isCard(const QString& root) {
    return root.startsWith(QLatin1String(StoragePaths::kCardRoot));
}

QByteArray textFor(const QString& root) {
    return isCard(root) ? QByteArray(kCardTitle) + " : data availability may be out of date"
                        : "Generating file listings for " + root.toUtf8();
}

void sendOnBus(const char* token, const Message& message) {
    if (PubSubInterface* const bus = PubSubInterface::instance()) {
        bus->sendTokenMessage(token, message);
    }
}

}  // namespace

bool ListingNotification::isWantedFor(const QString& root) {
    return !root.startsWith(QLatin1String("/root"));
}

void ListingNotification::add() const {
    send(Tokens::kNotificationAdd, "Generating file listings", 0, 0);
}

void ListingNotification::update(int total, int done) {
    if (_isUpdated && Clock::ticksSince(_lastUpdate) <= kUpdateIntervalMilliseconds) {
        return;
    }
    _isUpdated = true;
    _lastUpdate = Clock::ticks();
    send(Tokens::kNotificationUpdate, "Generating file list", total, done);
}

void ListingNotification::remove() const {
    Message message;
    message.construct(0, "ii", _processId, _id);
    sendOnBus(Tokens::kNotificationDelete, message);
}

void ListingNotification::send(const char* token, const char* title, int total, int done) const {
    Message message;
    message.construct(0, "iiiSSiiii", _processId, _id, static_cast<int>(Clock::wallSeconds()),
                      isCard(_root) ? kCardTitle : title, textFor(_root).constData(), 0, total,
                      done, kLastParameter);
    sendOnBus(token, message);
}

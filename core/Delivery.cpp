#include "core/Delivery.h"

#include "bus/DebugText.h"
#include "bus/ForkedChild.h"
#include "bus/PubSubInterface.h"
#include "core/ThumbnailSchedule.h"
#include "core/shared/MessageQueue.h"
#include "core/shared/Tokens.h"

#include <QtEndian>

#include <memory>

int g_StorageMessageTokenID = -1;

namespace {

constexpr int kConnectionBytes = 4;
constexpr int kCommandBytes = 4;

void enqueue(std::unique_ptr<Message> message) {
    g_waitingMessages.append(message.get());
    message.release();
}

void enqueueStorageRequest(const PubSubMessage& delivery) {
    auto message = std::make_unique<Message>();
    if (delivery.length < kConnectionBytes) {
        message->construct(nullptr, 0);
        enqueue(std::move(message));
        return;
    }
    message->construct(delivery.data + kConnectionBytes, delivery.length - kConnectionBytes);
    message->setTag(qFromLittleEndian<qint32>(delivery.data));
    enqueue(std::move(message));
}

void enqueueWithoutParameters(const PubSubMessage& delivery) {
    if (delivery.length < kConnectionBytes + kCommandBytes) {
        return;
    }
    auto message = std::make_unique<Message>();
    message->construct(qFromLittleEndian<qint32>(delivery.data + kConnectionBytes), "");
    message->setTag(qFromLittleEndian<qint32>(delivery.data));
    enqueue(std::move(message));
}

/// A forked child that listens hears of its parent's days too.
void handleDayFinished(const PubSubMessage& delivery) {
    if (ForkedChild::generation() == 0) {
        ThumbnailSchedule::handleDayFinished(delivery.data, delivery.length);
    }
}

void enqueueDelivery(const PubSubMessage& delivery) {
    const QByteArray token = PubSubInterface::instance()->tokenName(delivery.tokenId);
    // It carries a date and no message.
    if (token == Tokens::kThumbnailDayFinished) {
        handleDayFinished(delivery);
        return;
    }
    if (delivery.tokenId == g_StorageMessageTokenID) {
        enqueueStorageRequest(delivery);
        return;
    }
    auto message = std::make_unique<Message>();
    message->construct(delivery.data, delivery.length);
    enqueue(std::move(message));
}

void refuse(const PubSubMessage& delivery) noexcept {
    DebugText::send(Tokens::kClientName, "no memory for a delivery of %d bytes", delivery.length);
    if (delivery.tokenId != g_StorageMessageTokenID) {
        return;
    }
    try {
        enqueueWithoutParameters(delivery);
    } catch (...) {
        DebugText::send(Tokens::kClientName, "its client gets no answer");
    }
}

}  // namespace

void PubSubInterfaceCallback(void*, PubSubMessage* delivery) {
    try {
        enqueueDelivery(*delivery);
    } catch (...) {
        refuse(*delivery);
    }
}

#pragma once

#include "bus/FakeTransport.h"
#include "bus/PubSubInterface.h"
#include "bus/Wakeup.h"
#include "tests/support/FakeClock.h"
#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <utility>

/// A bus client over a fake transport whose waits move the clock, with every delivery kept.
class PubSubFixture : public testing::Test {
protected:
    struct Delivery {
        QByteArray token;
        QByteArray payload;
        bool operator==(const Delivery&) const = default;
    };

    PubSubFixture() {
        Wakeup::clear();
        auto made = std::make_unique<FakeTransport>();
        transport = made.get();
        bus = std::make_unique<PubSubInterface>(nullptr, std::move(made));
        transport->onWait = [this](int milliseconds) { passTime(milliseconds); };
    }

    bool join() {
        return bus->initialize("test", &PubSubFixture::take, this, 0, 0, 0, IOPriority::Unchanged);
    }
    void passTime(int milliseconds) { clock.tick += static_cast<quint32>(milliseconds); }
    QList<QByteArray> payloads() const {
        QList<QByteArray> result;
        for (const Delivery& delivery : deliveries) {
            result.append(delivery.payload);
        }
        return result;
    }

    FakeClock clock;
    LogCapture log;
    FakeTransport* transport = nullptr;
    std::unique_ptr<PubSubInterface> bus;
    QList<Delivery> deliveries;
    std::function<void()> onDelivery;

private:
    static void take(void* context, PubSubMessage* message) {
        auto* self = static_cast<PubSubFixture*>(context);
        self->deliveries.append(
            {self->bus->tokenName(message->tokenId), QByteArray(message->data, message->length)});
        if (self->onDelivery) {
            self->onDelivery();
        }
    }
};

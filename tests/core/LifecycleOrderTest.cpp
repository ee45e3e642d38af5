#include "core/Lifecycle.h"

#include "bus/FakeTransport.h"
#include "bus/PubSubInterface.h"
#include "core/shared/QuitFlag.h"
#include "datafile/MemoryCache.h"
#include "filesystem/Filesystem.h"
#include "history/HistoricalDataManager.h"
#include "jobs/RemoteJobManager.h"
#include "tests/core/KeptSignalHandlers.h"
#include "tests/support/LogCapture.h"
#include "thumbnails/ThumbnailManager.h"

#include <gtest/gtest.h>

namespace {

/// A part of a service that notes, when that is deleted, which services are still there.
class WitnessPart : public QObject {
public:
    WitnessPart(QObject* service, QList<QByteArray>& record) : QObject(service), _record(record) {}
    ~WitnessPart() override {
        QByteArray left;
        left += g_remoteManager ? "jobs " : "";
        left += g_pHistoricalDataManager ? "history " : "";
        left += g_pFilesystem ? "files " : "";
        left += g_pubSubInterface ? "bus " : "";
        left += g_ThumbnailManager ? "thumbnails " : "";
        left += g_memoryCache ? "cache" : "";
        _record.append(left);
    }

private:
    QList<QByteArray>& _record;
};

TEST(LifecycleOrder, ServicesAreDestroyedInTheirOrder) {
    const KeptSignalHandlers kept;
    const LogCapture log;
    QList<QByteArray> record;
    auto transport = std::make_unique<FakeTransport>();
    transport->onWait = [&record](int) {
        new WitnessPart(g_pHistoricalDataManager, record);
        new WitnessPart(g_pFilesystem, record);
        new WitnessPart(g_pubSubInterface, record);
        new WitnessPart(g_ThumbnailManager, record);
        raise(SIGUSR1);
    };
    Lifecycle lifecycle(std::move(transport));
    EXPECT_EQ(lifecycle.run(), 0);
    EXPECT_EQ(record,
              (QList<QByteArray>{"history files bus thumbnails cache", "files bus thumbnails cache",
                                 "bus thumbnails cache", "thumbnails cache"}));
    g_quit = false;
}

/// Notes which services there are when the bus is joined and when it is left.
class WitnessTransport : public FakeTransport {
public:
    explicit WitnessTransport(QList<QByteArray>& record) : _record(record) {}
    bool connect(const std::string& clientId) override {
        note("join:");
        return FakeTransport::connect(clientId);
    }
    void disconnect() override {
        note("leave:");
        FakeTransport::disconnect();
    }

private:
    void note(QByteArray event) {
        event += g_memoryCache ? " cache" : "";
        event += g_ThumbnailManager ? " thumbnails" : "";
        event += g_pFilesystem ? " files" : "";
        event += g_pHistoricalDataManager ? " history" : "";
        event += g_remoteManager ? " jobs" : "";
        _record.append(event);
    }

    QList<QByteArray>& _record;
};

TEST(LifecycleOrder, CacheAndThumbnailsAreThereBeforeAndAfterTheBusAndTheServicesOnlyBetween) {
    const KeptSignalHandlers kept;
    LogCapture log;
    QList<QByteArray> record;
    auto transport = std::make_unique<WitnessTransport>(record);
    transport->onWait = [](int) { raise(SIGUSR1); };
    Lifecycle lifecycle(std::move(transport));
    EXPECT_EQ(lifecycle.run(), 0);
    EXPECT_EQ(record, (QList<QByteArray>{"join: cache thumbnails", "leave: cache thumbnails"}));
    g_quit = false;
}

/// A broker that takes a wait to confirm the subscriptions.
class SlowTransport : public FakeTransport {
public:
    int subscriptionsPending() const override { return waits.isEmpty() ? 1 : 0; }
};

TEST(LifecycleOrder, ItSaysThatItIsStartingOnceItsRequestsAreHeard) {
    const KeptSignalHandlers kept;
    LogCapture log;
    QList<bool> saidInWait;
    auto transport = std::make_unique<SlowTransport>();
    transport->onWait = [&](int) {
        saidInWait.append(log.contains("scada-storage-process: scada-storage-process: starting"));
        if (saidInWait.last()) {
            raise(SIGUSR1);
        }
    };
    Lifecycle lifecycle(std::move(transport));
    EXPECT_EQ(lifecycle.run(), 0);
    EXPECT_EQ(saidInWait, (QList<bool>{false, true}));
    g_quit = false;
}

}  // namespace

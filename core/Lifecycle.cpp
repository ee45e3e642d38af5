#include "core/Lifecycle.h"

#include "bus/DebugText.h"
#include "bus/ForkedChild.h"
#include "bus/PubSubInterface.h"
#include "core/Delivery.h"
#include "core/Dispatch.h"
#include "core/RunState.h"
#include "core/Signals.h"
#include "core/ThumbnailSchedule.h"
#include "core/UnitLock.h"
#include "core/shared/ChildPool.h"
#include "core/shared/MessageQueue.h"
#include "core/shared/Replies.h"
#include "core/shared/StoragePaths.h"
#include "core/shared/Tokens.h"
#include "datafile/MemoryCache.h"
#include "filesystem/Filesystem.h"
#include "history/HistoricalDataManager.h"
#include "jobs/RemoteJobManager.h"
#include "thumbnails/ThumbnailManager.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include <sys/resource.h>
#include <sysexits.h>
#include <unistd.h>

namespace {

constexpr int kBusBufferBytes = 65536;
constexpr int kSubscriptionMilliseconds = 500;
constexpr int kNiceValue = 5;
constexpr rlim_t kDescriptors = Filesystem::kMaximumOpenHandles + 1024;

quint32 jobActivity() {
    return g_remoteManager->lastActivity();
}

/// The usual limit of 1,024 would be used up by one client's handles, and leave none for the bus.
void raiseDescriptorLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= kDescriptors) {
        return;
    }
    limit.rlim_cur = std::min<rlim_t>(kDescriptors, limit.rlim_max);
    setrlimit(RLIMIT_NOFILE, &limit);
}

template <typename Service>
void destroy(Service*& service) {
    delete service;
    service = nullptr;
}

void addWantedTokens() {
    const QByteArray tokens[] = {
        QString::asprintf(Tokens::kOwnCommandsFormat, getpid()).toLatin1(),
        Tokens::kStorageRequests,
        Tokens::kStorageManager,
        Tokens::kThumbnailDayFinished,
    };
    for (const QByteArray& token : tokens) {
        g_pubSubInterface->addWantedToken(token);
    }
}

}  // namespace

Lifecycle::Lifecycle() = default;

Lifecycle::Lifecycle(std::unique_ptr<Transport> transport) : _transport(std::move(transport)) {}

int Lifecycle::run() {
    const int status = start();
    if (status != 0) {
        destroyServices();
        return status;
    }
    _loop.run();
    stop();
    if (ForkedChild::generation() > 0) {
        ForkedChild::end();
    }
    return g_runState.exitCode;
}

void Lifecycle::renewFileService() {
    destroy(g_pFilesystem);
    g_pFilesystem = new Filesystem(nullptr);
}

int Lifecycle::start() {
    installSignalHandlers();
    raiseDescriptorLimit();
    g_quit = false;
    g_runState = {};
    std::snprintf(g_szOurPubSubToken, sizeof g_szOurPubSubToken, Tokens::kOwnRepliesFormat,
                  getpid());
    if (!UnitLock::take(StoragePaths::kDataRoot)) {
        return EX_TEMPFAIL;
    }
    g_memoryCache = new MemoryCache(false);
    g_ThumbnailManager = new ThumbnailManager(nullptr);
    if (!joinBus()) {
        return EX_CONFIG;
    }
    DebugText::send(Tokens::kClientName, "scada-storage-process: starting");
    ThumbnailSchedule::load();
    createServices();
    PubSubInterface::setProcessPriority(kNiceValue);
    PubSubInterface::setThreadIOPriority(static_cast<int>(IOPriority::Idle));
    g_runState.noteKeepalive();
    return 0;
}

void Lifecycle::stop() {
    destroyServices();
    DebugText::send(Tokens::kClientName, "exiting!");
    DebugText::flushRepeats();
}

bool Lifecycle::joinBus() {
    g_pubSubInterface = _transport ? new PubSubInterface(nullptr, std::move(_transport))
                                   : new PubSubInterface(nullptr);
    if (!g_pubSubInterface->initialize(Tokens::kClientName, PubSubInterfaceCallback, nullptr,
                                       kBusBufferBytes, kBusBufferBytes, 0,
                                       IOPriority::Unchanged)) {
        return false;
    }
    addWantedTokens();
    // "starting" says that requests are heard from now on.
    g_pubSubInterface->awaitSubscriptions(kSubscriptionMilliseconds);
    g_StorageMessageTokenID = g_pubSubInterface->findToken(Tokens::kStorageRequests);
    return true;
}

void Lifecycle::createServices() {
    g_pFilesystem = new Filesystem(nullptr);
    g_pHistoricalDataManager = new HistoricalDataManager(nullptr);
    g_remoteManager = new RemoteJobManager();
    setDrainHooks({processMessage, jobActivity});
}

void Lifecycle::destroyServices() {
    destroy(g_remoteManager);
    destroy(g_pHistoricalDataManager);
    destroy(g_pFilesystem);
    destroy(g_pubSubInterface);
    destroy(g_ThumbnailManager);
    destroy(g_memoryCache);
    setDrainHooks({});
    dropWaitingMessages();
    ThumbnailSchedule::forget();
    ChildPools::forget();
    UnitLock::release();
}

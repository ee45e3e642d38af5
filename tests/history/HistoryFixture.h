#pragma once

#include "core/Delivery.h"
#include "core/Dispatch.h"
#include "core/shared/ChildPool.h"
#include "core/shared/MessageQueue.h"
#include "core/shared/QuitFlag.h"
#include "core/shared/Replies.h"
#include "datafile/MemoryCache.h"
#include "history/HistoricalDataManager.h"
#include "tests/support/FakeClock.h"
#include "tests/support/Files.h"
#include "tests/support/ForkObserver.h"
#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

#include <cstring>

/// A manager on the sandbox's empty roots, whose children are observed. The daemon's own dispatch
/// is in place, so that what is delivered inside a replay reaches it.
class HistoryFixture : public testing::Test {
protected:
    HistoryFixture() {
        emptyRoots();
        bus.bus().addWantedToken("StorageManager.to");
        std::strcpy(g_szOurPubSubToken, "Message.ExtProc.from.1");
        g_memoryCache = &cache;
        g_pHistoricalDataManager = &manager;
        setDrainHooks({processMessage, nullptr});
        g_lastJobActivity = 0;
        g_quit = false;
        ChildPools::forget();
    }

    ~HistoryFixture() override {
        setDrainHooks({});
        dropWaitingMessages();
        g_pHistoricalDataManager = nullptr;
        g_memoryCache = nullptr;
        ChildPools::forget();
        g_quit = false;
    }

    MemoryCache cache{false};
    FakeClock clock;
    LogCapture untilObserved;
    FakeBus bus{PubSubInterfaceCallback};
    ForkObserver children{bus};
    HistoricalDataManager manager{nullptr};
};

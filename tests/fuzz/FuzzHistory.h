#pragma once

#include "core/shared/MessageQueue.h"
#include "datafile/MemoryCache.h"
#include "history/HistoricalDataManager.h"
#include "tests/history/Tree.h"
#include "tests/support/FakeBus.h"
#include "tests/support/FakeClock.h"
#include "tests/support/ForkStandIn.h"

#include <functional>

/// A manager on files of the fuzzer's choice, whose children this process plays itself, so that
/// the fuzzer sees what they reach. In the sandbox only: the unit's roots are emptied.
class FuzzHistory {
public:
    explicit FuzzHistory(const Tree& tree);
    ~FuzzHistory();
    FuzzHistory(const FuzzHistory&) = delete;
    FuzzHistory& operator=(const FuzzHistory&) = delete;

    /// Runs what has to end a child, with status 0.
    static void playToItsEnd(const std::function<void()>& life);

    HistoricalDataManager& manager() { return _manager; }
    FakeBus& bus() { return _bus; }

private:
    /// First, so that nothing is logged.
    struct Silence {
        Silence();
        ~Silence();
    };

    Silence _silence;
    FakeClock _clock;
    MemoryCache _cache{false};
    FakeBus _bus;
    HistoricalDataManager _manager{nullptr};
    ForkStandIn _fork{ForkStandIn::Outcome::IsPlayed};
};

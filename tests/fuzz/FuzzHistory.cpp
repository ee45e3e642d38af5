#include "tests/fuzz/FuzzHistory.h"

#include "bus/DebugText.h"
#include "core/shared/ChildPool.h"
#include "core/shared/Replies.h"
#include "tests/fuzz/Require.h"
#include "tests/fuzz/UnitRoots.h"

#include <cstring>

FuzzHistory::Silence::Silence() {
    DebugText::setSink([](const char*, std::size_t) {});
}

FuzzHistory::Silence::~Silence() {
    DebugText::setSink(nullptr);
}

FuzzHistory::FuzzHistory(const Tree& tree) {
    static const UnitRoots roots;
    writeTree(tree);
    std::strcpy(g_szOurPubSubToken, "Message.ExtProc.from.1");
    g_memoryCache = &_cache;
    g_pHistoricalDataManager = &_manager;
}

FuzzHistory::~FuzzHistory() {
    setDrainHooks({});
    g_pHistoricalDataManager = nullptr;
    g_memoryCache = nullptr;
    ChildPools::forget();
}

void FuzzHistory::playToItsEnd(const std::function<void()>& life) {
    constexpr int kWentOn = -1;
    int status = kWentOn;
    try {
        life();
    } catch (const ForkStandIn::EndOfChild& end) {
        status = end.status;
    }
    REQUIRE(status == 0);
}

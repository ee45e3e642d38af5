#include "core/shared/ChildPool.h"

#include "bus/DebugText.h"
#include "bus/ForkedChild.h"
#include "core/shared/Tokens.h"

#include <cstdlib>

#include <sys/wait.h>

void ChildPool::run(const Work& work) {
    if (_waiting.isEmpty() && hasRoom()) {
        start(work);
        return;
    }
    if (_waiting.size() >= _maximumWaiting) {
        DebugText::send(Tokens::kClientName, "too many children, request dropped");
        return;
    }
    _waiting.append(work);
}

void ChildPool::startWaiting() {
    const unsigned generation = ForkedChild::generation();
    while (!_waiting.isEmpty() && hasRoom() && ForkedChild::generation() == generation) {
        start(_waiting.takeFirst());
    }
}

void ChildPool::forget() {
    _running.clear();
    _waiting.clear();
}

/// Asked without reaping, which is the signal handler's: one that was reaped is no child any more,
/// even where another process has its pid by now.
bool ChildPool::hasEnded(pid_t child) {
    siginfo_t info{};
    return waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOHANG | WNOWAIT) != 0;
}

bool ChildPool::hasRoom() {
    _running.removeIf(hasEnded);
    return _running.size() < _maximumRunning;
}

void ChildPool::start(const Work& work) {
    // Before the fork: a child that is not counted would keep no other waiting.
    _running.reserve(_running.size() + 1);
    const pid_t child = ForkedChild::start();
    if (child < 0) {
        DebugText::send(Tokens::kClientName, "no child, request dropped");
        return;
    }
    if (child > 0) {
        _running.append(child);
        return;
    }
    ChildPools::forget();
    try {
        work();
    } catch (...) {
        DebugText::send(Tokens::kClientName, "no memory in a child");
        ForkedChild::end(EXIT_FAILURE);
    }
}

namespace ChildPools {

namespace {

constexpr int kMaximumLookupsAndListings = 8;
constexpr int kMaximumWaiting = 64;
constexpr int kMaximumInvalidLookups = 4;
constexpr int kMaximumReplayWorkers = 8;

}  // namespace

ChildPool g_lookupsAndListings(kMaximumLookupsAndListings, kMaximumWaiting);
ChildPool g_invalidLookups(kMaximumInvalidLookups, 0);
ChildPool g_replayWorkers(kMaximumReplayWorkers, 0);

void startWaiting() noexcept {
    try {
        g_lookupsAndListings.startWaiting();
    } catch (...) {
        DebugText::send(Tokens::kClientName, "no memory for a child, request dropped");
    }
}

void forget() {
    g_lookupsAndListings.forget();
    g_invalidLookups.forget();
    g_replayWorkers.forget();
}

}  // namespace ChildPools

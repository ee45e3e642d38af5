#include "core/RunState.h"

#include "bus/Clock.h"

std::atomic<bool> g_quit = false;
RunState g_runState;

void RunState::noteKeepalive() {
    _lastKeepalive = Clock::wallSeconds();
    _lastKeepaliveTicks = Clock::ticks();
}

bool RunState::isKeepaliveOverdue() {
    const qint64 now = Clock::wallSeconds();
    if (now < _lastKeepalive) {
        _lastKeepalive = now;
    }
    if (now - _lastKeepalive <= kKeepaliveLimitSeconds) {
        return false;
    }
    return Clock::ticks() - _lastKeepaliveTicks >= kKeepaliveLimitSeconds * 1000U;
}

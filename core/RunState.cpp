#include "core/RunState.h"

#include "bus/Clock.h"

RunState g_runState;

void RunState::noteKeepalive() {
    _lastKeepalive = Clock::wallSeconds();
    _lastKeepaliveTicks = Clock::ticks();
}

bool RunState::isKeepaliveOverdue() const {
    const quint32 elapsedMilliseconds = Clock::ticks() - _lastKeepaliveTicks;
    if (elapsedMilliseconds < kKeepaliveLimitSeconds * 1000U) {
        return false;
    }
    return Clock::wallSeconds() - _lastKeepalive > kKeepaliveLimitSeconds ||
           elapsedMilliseconds >= (kKeepaliveLimitSeconds + 1) * 1000U;
}

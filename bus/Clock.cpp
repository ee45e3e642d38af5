#include "bus/Clock.h"

#include <ctime>

namespace {

qint64 monotonicMilliseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return qint64(now.tv_sec) * 1000 + now.tv_nsec / 1'000'000;
}

const qint64 g_processStart = monotonicMilliseconds();
const Clock g_realClock;
const Clock* g_clock = &g_realClock;

}  // namespace

qint64 Clock::wallSecondsNow() const {
    return time(nullptr);
}

quint32 Clock::ticksNow() const {
    return static_cast<quint32>(monotonicMilliseconds() - g_processStart);
}

qint64 Clock::wallSeconds() {
    return g_clock->wallSecondsNow();
}

quint32 Clock::ticks() {
    return g_clock->ticksNow();
}

void Clock::replace(const Clock* clock) {
    g_clock = clock ? clock : &g_realClock;
}

#pragma once

#include "bus/Clock.h"

/// The process's clock while it lives, moved by hand.
class FakeClock : public Clock {
public:
    FakeClock() { Clock::replace(this); }
    ~FakeClock() override { Clock::replace(nullptr); }
    FakeClock(const FakeClock&) = delete;
    FakeClock& operator=(const FakeClock&) = delete;

    qint64 wall = 1'700'000'000;
    quint32 tick = 5'000;

    /// Both clocks together, as time does.
    void advance(qint64 seconds) {
        wall += seconds;
        tick += static_cast<quint32>(seconds * 1000);
    }

    qint64 wallSecondsNow() const override { return wall; }
    quint32 ticksNow() const override { return tick; }
};

#pragma once

#include <QtGlobal>

/// The process's two clocks in one place, so that a test can move them by hand. `ticks` is
/// monotonic, counts milliseconds from process start and wraps at 2^32; a forked child goes on
/// with its parent's count. `wallSeconds` is time(): seconds since 1970, and may step.
class Clock {
public:
    virtual ~Clock() = default;
    virtual qint64 wallSecondsNow() const;
    virtual quint32 ticksNow() const;

    static qint64 wallSeconds();
    static quint32 ticks();
    /// Milliseconds from `start`, a value of `ticks`, until now; right up to 24 days.
    static int ticksSince(quint32 start) { return static_cast<int>(ticks() - start); }

    /// Replaces the process's clock; null restores the real one. The caller keeps ownership.
    static void replace(const Clock* clock);
};

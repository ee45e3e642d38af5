#pragma once

#include "core/shared/QuitFlag.h"

#include <QtGlobal>

/// What the run of this process hangs on besides `g_quit`: when the supervisor was last heard and
/// what the process will return. A forked child goes on with the values that it inherits, so one
/// that hears no keep-alives of its own ends by the watchdog. Main thread only.
class RunState {
public:
    static constexpr int kKeepaliveLimitSeconds = 15;
    static constexpr int kWatchdogExitCode = -7;

    int exitCode = 0;

    /// A keep-alive arrived now.
    void noteKeepalive();

    /// Whether more than the limit has passed since the last keep-alive. The wall clock decides,
    /// in whole seconds; where it leaps ahead, the monotonic clock has to agree that the limit is
    /// over, and where it steps back, the monotonic clock goes on counting alone.
    bool isKeepaliveOverdue() const;

private:
    qint64 _lastKeepalive = 0;
    quint32 _lastKeepaliveTicks = 0;
};

extern RunState g_runState;

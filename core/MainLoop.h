#pragma once

#include "core/WorkerRole.h"

#include <QtGlobal>

/// The daemon's one loop: watchdog, idle handles, a slice of every job, a step of the thumbnail
/// schedule, and the wait for the bus, pass by pass. Needs the services that Lifecycle creates.
class MainLoop {
public:
    /// Takes now as the last second logged.
    MainLoop();

    /// Passes until `g_quit` is set or a pass says that the loop is over.
    void run();

    /// One pass; waits for the bus in its last step. False, with the rest of the pass left out,
    /// where the watchdog fired (g_runState has the exit code then) or a forked child's parent
    /// has ended.
    bool runPass();

private:
    void logSecond();

    qint64 _lastLoggedSecond;
    WorkerRole _role;
};

#pragma once

#include "bus/Transport.h"
#include "core/MainLoop.h"

#include <memory>

/// The daemon from its start to its exit status: installs the signal handlers, creates the
/// services in their order, hands the lower layers their calls upwards, runs the main loop, and
/// destroys the services in their order. The one owner of the service globals. One at a time.
class Lifecycle {
public:
    Lifecycle();
    /// Over a transport of the caller's, for tests.
    explicit Lifecycle(std::unique_ptr<Transport> transport);

    /// The whole life; returns the process's exit status: 0 after a quit, -7 where the watchdog
    /// fired, EX_TEMPFAIL where another daemon serves this unit, EX_CONFIG where the bus's
    /// environment cannot be used. In a forked child that went on in the loop it does not return.
    int run();

    /// For a forked child: a file service without the inherited handles, which are its parent's.
    static void renewFileService();

private:
    int start();
    void stop();
    bool joinBus();
    void createServices();
    void destroyServices();

    std::unique_ptr<Transport> _transport;
    MainLoop _loop;
};

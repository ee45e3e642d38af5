#pragma once

#include "bus/PubSubInterface.h"
#include "tools/supervisor/ServiceManager.h"
#include "tools/supervisor/SupervisedProcess.h"
#include "tools/supervisor/SupervisorPolicy.h"

#include <QByteArray>

#include <string>

/// Keeps one daemon running until it is told to stop: carries out what the policy says is due,
/// and tells the policy, the log and the service manager what happened. Single-threaded; blocks
/// in the bus wait only. It owns the process's bus client.
class Supervisor {
public:
    explicit Supervisor(std::string daemonPath);
    ~Supervisor();
    Supervisor(const Supervisor&) = delete;
    Supervisor& operator=(const Supervisor&) = delete;

    /// Returns the process's exit status: 0 after a stop, 78 where the environment has no usable
    /// bus (which the bus library has logged).
    int run();

    /// The next pass stops the daemon in order. Signal handlers may call both.
    static void requestStop();
    /// A child may have ended.
    static void look();

private:
    static void take(void* context, PubSubMessage* delivery);

    void answered();
    void noteRunEnd();
    /// False once the stop is complete.
    bool carryOut(SupervisorPolicy::Action action);
    void start();
    void noteNextStart();
    void beginStop();
    void send(int command);

    PubSubInterface _bus;
    ServiceManager _serviceManager;
    SupervisedProcess _daemon;
    SupervisorPolicy _policy;
    QByteArray _commandToken;
    QByteArray _answerToken;
    bool _isStopping = false;
    bool _wasReady = false;
    bool _runAnswers = false;
};

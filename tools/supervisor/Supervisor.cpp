#include "tools/supervisor/Supervisor.h"

#include "bus/DebugText.h"
#include "bus/Message.h"
#include "tools/supervisor/RunEnd.h"

#include <csignal>
#include <cstring>

namespace {

constexpr char kTarget[] = "scada-storage-supervisor";
constexpr int kBufferBytes = 65'536;
constexpr int kUnusableEnvironment = 78;
constexpr int kCommandKeepalive = 0;
constexpr int kCommandQuit = 1;

volatile std::sig_atomic_t g_stopIsRequested = 0;

}  // namespace

Supervisor::Supervisor(std::string daemonPath) : _bus(nullptr), _daemon(std::move(daemonPath)) {}

Supervisor::~Supervisor() = default;

void Supervisor::requestStop() {
    g_stopIsRequested = 1;
    look();
}

void Supervisor::look() {
    PubSubInterface::wake();
}

int Supervisor::run() {
    if (!_bus.initialize(kTarget, take, this, kBufferBytes, kBufferBytes, 0,
                         IOPriority::Unchanged)) {
        return kUnusableEnvironment;
    }
    for (;;) {
        noteRunEnd();
        if (g_stopIsRequested != 0 && !_isStopping) {
            beginStop();
        }
        if (!_bus.isConnected()) {
            _policy.busIsAway();
        }
        SupervisorPolicy::Action action = _policy.next();
        while (action != SupervisorPolicy::Action::Nothing) {
            if (!carryOut(action)) {
                return 0;
            }
            action = _policy.next();
        }
        _bus.readWaitingMessages(_policy.millisecondsToNext());
    }
}

void Supervisor::take(void* context, PubSubMessage* delivery) {
    auto* self = static_cast<Supervisor*>(context);
    const int pid = static_cast<int>(self->_daemon.pid());
    if (pid == 0 || delivery->tokenId != self->_bus.findToken(self->_answerToken)) {
        return;
    }
    Message message;
    message.construct(delivery->data, delivery->length);
    if (message.command() != kCommandKeepalive) {
        return;
    }
    if (std::strcmp(message.formatString(), "i") != 0 || message.parameterAsInt32(0) != pid) {
        DebugText::send(kTarget, "an answer to process %d's keep-alive is not its own", pid);
        return;
    }
    self->answered();
}

void Supervisor::answered() {
    _policy.answered();
    _serviceManager.alive();
    if (_runAnswers) {
        return;
    }
    _runAnswers = true;
    const QByteArray pid = QByteArray::number(_daemon.pid());
    if (!_isStopping) {
        _serviceManager.status("process " + pid + " answers");
    }
    if (!_isStopping && !_wasReady) {
        _wasReady = true;
        _serviceManager.ready();
    }
    DebugText::send(kTarget, "process %s answers", pid.constData());
}

void Supervisor::noteRunEnd() {
    const int pid = static_cast<int>(_daemon.pid());
    const auto status = _daemon.takeEnd();
    if (!status) {
        return;
    }
    const QByteArray ending = RunEnd::describe(*status);
    DebugText::send(kTarget, "process %d ended: %s", pid, ending.constData());
    _bus.removeWantedToken(_answerToken);
    _policy.ended();
    if (!_isStopping) {
        noteNextStart();
        _serviceManager.status("starts again in " + QByteArray::number(_policy.pauseSeconds()) +
                               " s; last run: " + ending);
    }
}

void Supervisor::noteNextStart() {
    DebugText::send(kTarget, "next start in %d s", _policy.pauseSeconds());
}

void Supervisor::beginStop() {
    _isStopping = true;
    _policy.requestStop();
    _serviceManager.stopping();
    DebugText::send(kTarget, "stopping");
}

bool Supervisor::carryOut(SupervisorPolicy::Action action) {
    const int pid = static_cast<int>(_daemon.pid());
    switch (action) {
        case SupervisorPolicy::Action::Nothing:
            break;
        case SupervisorPolicy::Action::Start:
            start();
            break;
        case SupervisorPolicy::Action::SendKeepalive:
            send(kCommandKeepalive);
            break;
        case SupervisorPolicy::Action::SendQuit:
            send(kCommandQuit);
            break;
        case SupervisorPolicy::Action::Interrupt:
            DebugText::send(kTarget, "process %d does not react, sending SIGUSR1", pid);
            _daemon.send(SIGUSR1);
            break;
        case SupervisorPolicy::Action::Kill:
            DebugText::send(kTarget, "process %d is still there, sending SIGKILL", pid);
            _daemon.send(SIGKILL);
            break;
        case SupervisorPolicy::Action::Finish:
            DebugText::send(kTarget, "stopped");
            return false;
    }
    return true;
}

void Supervisor::start() {
    _runAnswers = false;
    if (!_daemon.start()) {
        _policy.ended();
        noteNextStart();
        return;
    }
    const QByteArray pid = QByteArray::number(_daemon.pid());
    _commandToken = "Message.ExtProc.to." + pid;
    _answerToken = "Message.ExtProc.from." + pid;
    _bus.addWantedToken(_answerToken);
    DebugText::send(kTarget, "started %s as process %s", _daemon.path().c_str(), pid.constData());
    _serviceManager.status("process " + pid + " started");
}

void Supervisor::send(int command) {
    Message message;
    message.construct(command, "");
    _bus.sendTokenMessage(_commandToken, message);
}

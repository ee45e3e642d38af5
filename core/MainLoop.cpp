#include "core/MainLoop.h"

#include "bus/Clock.h"
#include "bus/DebugText.h"
#include "bus/PubSubInterface.h"
#include "core/DaemonCommands.h"
#include "core/RunState.h"
#include "core/ThumbnailSchedule.h"
#include "core/shared/ChildPool.h"
#include "core/shared/MessageQueue.h"
#include "core/shared/Tokens.h"
#include "filesystem/Filesystem.h"
#include "jobs/RemoteJobManager.h"

#include <algorithm>

namespace {

// Each take-in is bounded; a keep-alive may stand behind what many clients sent meanwhile.
constexpr int kTakeInsBeforeAborting = 16;

bool isKeepaliveQueued() {
    return std::any_of(
        g_waitingMessages.cbegin(), g_waitingMessages.cend(),
        [](const Message* message) { return message->command() == COMMAND_KEEPALIVE; });
}

/// A long slice of work must not end the daemon while keep-alives wait unread.
bool hasKeepaliveArrived() {
    for (int i = 0; i < kTakeInsBeforeAborting && !isKeepaliveQueued(); ++i) {
        if (g_pubSubInterface->takeInArrived() == 0) {
            return false;
        }
    }
    // What was taken in here is to be dispatched in this pass, not after a long wait.
    PubSubInterface::wake();
    return isKeepaliveQueued();
}

bool doesWatchdogFire() {
    return g_runState.isKeepaliveOverdue() && !hasKeepaliveArrived();
}

}  // namespace

MainLoop::MainLoop() : _lastLoggedSecond(Clock::wallSeconds()) {}

void MainLoop::run() {
    while (!g_quit && runPass()) {
    }
}

bool MainLoop::runPass() {
    if (!_role.mayGoOn()) {
        return false;
    }
    logSecond();
    if (doesWatchdogFire()) {
        DebugText::send(Tokens::kClientName, "no keepalive, aborting...");
        g_runState.exitCode = RunState::kWatchdogExitCode;
        return false;
    }
    g_pFilesystem->expireHandles();
    g_remoteManager->runSlice();
    ThumbnailSchedule::runStep();
    ChildPools::startWaiting();
    processWaitingMessages();
    return true;
}

void MainLoop::logSecond() {
    const qint64 now = Clock::wallSeconds();
    if (now == _lastLoggedSecond) {
        return;
    }
    DebugText::sendRoutine(Tokens::kClientName, "loop");
    _lastLoggedSecond = now;
}

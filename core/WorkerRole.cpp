#include "core/WorkerRole.h"

#include "bus/DebugText.h"
#include "bus/ForkedChild.h"
#include "core/DaemonCommands.h"
#include "core/Lifecycle.h"
#include "core/ThumbnailSchedule.h"
#include "core/shared/MessageQueue.h"
#include "core/shared/Tokens.h"
#include "history/HistoricalDataManager.h"
#include "jobs/RemoteJobManager.h"

#include <csignal>

#include <sys/prctl.h>
#include <unistd.h>

namespace {

void dropJobs() {
    while (!g_remoteManager->jobs().isEmpty()) {
        RemoteJob* const job = g_remoteManager->jobs().first();
        g_remoteManager->removeJob(job);
        delete job;
    }
}

}  // namespace

WorkerRole::WorkerRole() : _generation(ForkedChild::generation()), _process(getpid()) {}

bool WorkerRole::mayGoOn() {
    if (ForkedChild::generation() != _generation) {
        becomeWorker();
    }
    if (_parent == 0) {
        return true;
    }
    if (g_pHistoricalDataManager->isAbandoned()) {
        DebugText::send(Tokens::kClientName, "replay worker was told nothing, ending");
        return false;
    }
    if (getppid() != _parent) {
        DebugText::send(Tokens::kClientName, "parent process ended");
        return false;
    }
    return true;
}

bool WorkerRole::actsOn(int command) {
    switch (command) {
        case COMMAND_KEEPALIVE:
        case COMMAND_QUIT:
        case COMMAND_CONTINUE_REPLAY:
        case COMMAND_ACKNOWLEDGE_REPLAY_DATA:
            return true;
        default:
            return false;
    }
}

void WorkerRole::becomeWorker() {
    _generation = ForkedChild::generation();
    _parent = _process;
    _process = getpid();
    // Ends the wait on the bus in order; a parent that ended before this line is found by its pid.
    prctl(PR_SET_PDEATHSIG, SIGUSR1);
    dropJobs();
    Lifecycle::renewFileService();
    ThumbnailSchedule::forget();
    dropWaitingMessages();
}

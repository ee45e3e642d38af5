#include "jobs/RemoteJobManager.h"

#include "bus/DebugText.h"
#include "core/shared/Replies.h"

#include <QtAlgorithms>

RemoteJobManager* g_remoteManager = nullptr;

namespace {

/// False where the slice failed by an exception, running out of memory above all.
bool sliceSucceeds(RemoteJob* job) {
    try {
        job->runSlice();
        return true;
    } catch (...) {
        DebugText::send("RemoteJob", "job of connection %d failed and ends", job->connectionID());
        return false;
    }
}

}  // namespace

RemoteJobManager::RemoteJobManager() = default;

RemoteJobManager::~RemoteJobManager() {
    qDeleteAll(_jobs);
}

void RemoteJobManager::addJob(RemoteJob* job) {
    _resumes = _resumes || _jobs.isEmpty();
    _jobs.append(job);
}

void RemoteJobManager::removeJob(RemoteJob* job) {
    _jobs.removeOne(job);
}

bool RemoteJobManager::sendMessage(int connection, Message& message) {
    sendMessageToConnection(connection, &message);
    return true;
}

void RemoteJobManager::runSlice() {
    for (qsizetype i = 0; i < _jobs.size();) {
        RemoteJob* const job = _jobs.at(i);
        const bool succeeded = sliceSucceeds(job);
        // Signed, so that the newer of two times is found across the wrap of the ticks; after a
        // time without jobs the old one may be too long ago for that.
        if (_resumes || static_cast<qint32>(job->lastActivity() - _lastActivity) >= 0) {
            _lastActivity = job->lastActivity();
            _resumes = false;
        }
        if (succeeded && !job->needsToClose()) {
            ++i;
            continue;
        }
        _jobs.removeAt(i);
        delete job;
    }
}

#include "jobs/RemoteJobManager.h"

#include "bus/DebugText.h"
#include "core/shared/Replies.h"

#include <QtAlgorithms>

#include <algorithm>

RemoteJobManager* g_remoteManager = nullptr;

namespace {

/// False where the slice failed by an exception, running out of memory above all.
bool sliceSucceeds(RemoteJob* job) {
    // It may be gone by the time of the exception.
    const int connection = job->connectionID();
    try {
        job->runSlice();
        return true;
    } catch (...) {
        DebugText::send("RemoteJob", "job of connection %d failed and ends", connection);
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

bool RemoteJobManager::hasRoomFor(int connection) const {
    const auto sameConnection = std::count_if(
        _jobs.cbegin(), _jobs.cend(),
        [connection](const RemoteJob* job) { return job->connectionID() == connection; });
    return _jobs.size() < kMaximumJobs && sameConnection < kMaximumJobsPerConnection;
}

void RemoteJobManager::removeJob(RemoteJob* job) {
    const qsizetype index = _jobs.indexOf(job);
    if (index < 0) {
        return;
    }
    _jobs.removeAt(index);
    if (index < _nextIndex) {
        --_nextIndex;
    }
    if (job == _running) {
        _running = nullptr;
    }
}

bool RemoteJobManager::sendMessage(int connection, Message& message) {
    sendMessageToConnection(connection, &message);
    return true;
}

void RemoteJobManager::runSlice() {
    for (_nextIndex = 0; _nextIndex < _jobs.size();) {
        _running = _jobs.at(_nextIndex);
        ++_nextIndex;
        const bool succeeded = sliceSucceeds(_running);
        RemoteJob* const job = _running;
        if (job == nullptr) {
            continue;
        }
        noteActivity(job->lastActivity());
        if (!succeeded || job->needsToClose()) {
            removeJob(job);
            delete job;
        }
    }
    _running = nullptr;
}

void RemoteJobManager::noteActivity(quint32 ticks) {
    // Signed, so that the newer of two times is found across the wrap of the ticks; after a time
    // without jobs the old one may be too long ago for that.
    if (_resumes || static_cast<qint32>(ticks - _lastActivity) >= 0) {
        _lastActivity = ticks;
        _resumes = false;
    }
}

#pragma once

#include "bus/Message.h"
#include "jobs/RemoteJob.h"

#include <QList>

/// Owns the running jobs and gives each one slice a pass of the main loop, in the order in which
/// they were added.
class RemoteJobManager {
public:
    static constexpr int kMaximumJobs = 64;
    static constexpr int kMaximumJobsPerConnection = 8;

    RemoteJobManager();
    /// Deletes the remaining jobs, in order.
    ~RemoteJobManager();
    RemoteJobManager(const RemoteJobManager&) = delete;
    RemoteJobManager& operator=(const RemoteJobManager&) = delete;

    /// Whether one more job of a connection may be added. `addJob` does not ask.
    bool hasRoomFor(int connection) const;
    /// Takes ownership.
    void addJob(RemoteJob* job);
    /// Takes a job off the list without deleting it; it is the caller's again, who may delete it.
    /// A job may be removed from any job's slice, also its own.
    void removeJob(RemoteJob* job);
    const QList<RemoteJob*>& jobs() const { return _jobs; }

    /// Sends to a connection. Returns true.
    bool sendMessage(int connection, Message& message);

    /// One slice of every job; a job that is over is deleted right after its last slice. A slice
    /// that fails by an exception ends its job.
    void runSlice();

    /// The latest activity seen among the jobs, in system ticks (ms); 0 before the first.
    quint32 lastActivity() const { return _lastActivity; }

private:
    void noteActivity(quint32 ticks);

    QList<RemoteJob*> _jobs;
    /// Of the job that comes next in the pass under way, and the one whose slice it is: null
    /// where it was removed in it.
    qsizetype _nextIndex = 0;
    RemoteJob* _running = nullptr;
    quint32 _lastActivity = 0;
    /// The next slice is the first since the list was empty.
    bool _resumes = false;
};

extern RemoteJobManager* g_remoteManager;

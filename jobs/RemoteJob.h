#pragma once

#include <QString>
#include <QtGlobal>

class RemoteJobManager;

/// Work of one remote connection that takes longer than a message, advanced in small slices by
/// the main loop. Owned by its manager once added.
class RemoteJob {
public:
    static constexpr int kDefaultTimeoutMilliseconds = 30000;

    RemoteJob(RemoteJobManager* manager, int connectionID);
    virtual ~RemoteJob();
    RemoteJob(const RemoteJob&) = delete;
    RemoteJob& operator=(const RemoteJob&) = delete;

    /// The job's type name.
    virtual QString type() const;
    /// Does one bounded piece of work; sets `_needsToClose` when the job is over.
    virtual void runSlice();

    int connectionID() const { return _connectionID; }
    int jobID() const { return _jobID; }
    bool needsToClose() const { return _needsToClose; }
    /// Time of the last progress, in system ticks (ms).
    quint32 lastActivity() const { return _lastActivity; }

    /// Records progress now.
    void hadActivity();
    /// True, and logged, if nothing has happened for longer than the limit. The manager does not
    /// ask; a job that wants an idle limit does, from its own slice.
    bool timeout() const;

protected:
    /// True, and logged, if more than the limit has passed since `ticks`.
    bool isOverdue(quint32 ticks) const;

    RemoteJobManager* _manager;
    int _connectionID;
    int _jobID = 0;
    bool _needsToClose = false;
    quint32 _lastActivity;
    int _timeoutMilliseconds = kDefaultTimeoutMilliseconds;
};

#pragma once

#include "tools/storagectl/Connection.h"
#include "tools/storagectl/Pacing.h"
#include "tools/storagectl/StreamReader.h"

#include <functional>

namespace storagectl {

/// One run of the daemon's download job: sends the request, plays the connection manager for the
/// connection's number (`Pacing`), and reads the stream. The daemon cannot be told to stop: a job
/// that is left hears no reports any more and ends itself.
class DownloadJob {
public:
    /// All of it the caller's, and living longer than the job.
    struct Ends {
        Connection& connection;
        Pacing& pacing;
        StreamEvents& events;
        QString subject;  ///< opens the sentence about a break
    };

    explicit DownloadJob(const Ends& ends);
    ~DownloadJob();
    DownloadJob(const DownloadJob&) = delete;
    DownloadJob& operator=(const DownloadJob&) = delete;

    /// Runs until the stream has ended, or `goesOn`, which is asked after each wait, says no. Done
    /// in both cases; else the break in the conversation that it ended with. `entries` has one a
    /// line.
    Outcome run(const QByteArray& entries, const std::function<bool()>& goesOn);

    /// The daemon has no room for one more job.
    bool isRefused() const { return _isRefused; }
    bool hasEnded() const { return _reader.hasEnded(); }
    /// A break: what came is not what a daemon sends.
    Outcome broken(const QString& fault) const;
    /// Of the data messages.
    qint64 bytesOnWire() const { return _bytesOnWire; }

private:
    void take(const Message& message);
    void report();
    Outcome converse(const std::function<bool()>& goesOn);

    Ends _ends;
    StreamReader _reader;
    int _transfer;
    bool _isRefused = false;
    bool _isUnfit = false;
    qint64 _bytesOnWire = 0;
    quint32 _lastNews = 0;  ///< or since when there is reason to wait for some
};

}  // namespace storagectl

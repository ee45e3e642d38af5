#pragma once

#include "jobs/DirectoryReader.h"
#include "jobs/DownloadEntry.h"
#include "jobs/PrefixHash.h"
#include "jobs/RecordBuffer.h"
#include "jobs/RemoteJob.h"

#include <QByteArray>
#include <QFile>
#include <QString>

#include <optional>

/// Streams files and directories to one connection as records (DownloadStream.h), compressed where
/// that makes them shorter. One slice sends one message, packs one block, opens one entry with the
/// first piece of its prefix's hash, or hashes one more. Nothing is sent while the connection
/// manager reports too much queued for the connection, as is assumed until its first report. What
/// is wrong with one entry is said in the stream, and the next one follows. The stream has no
/// sequence numbers, so the job ends with the bus connection that it began on.
class LZFDownloadRemoteJob : public RemoteJob {
public:
    /// Without a report for so long, a job that waits for one ends.
    static constexpr int kReportTimeoutMilliseconds = 600'000;

    /// `transferID` is the first parameter of every data message, and the job's id. `request` has
    /// an entry a line; an empty line is an entry too. Asks the connection manager for reports.
    LZFDownloadRemoteJob(RemoteJobManager* manager, int connectionID, int transferID,
                         const QString& request);
    ~LZFDownloadRemoteJob() override;

    QString type() const override;
    void runSlice() override;

    /// The bytes that are still queued for the connection.
    void handleWriteCount(int count);

    /// Appends a record to what waits to be sent.
    void addData(unsigned char type, unsigned short length, const char* data);
    void addError(const QString& text);
    /// Appends a directory's entry to the block being packed. Returns its length in bytes.
    int addDirEntry(unsigned char type, int size, unsigned int time, const QString& name);
    /// Sends one message with what waits, also if that is nothing.
    void sendData();

private:
    bool isConnectionLost() const;
    bool isSendDue() const;
    bool hasPending() const { return _nextPending <= _request.size(); }
    QString takePending();

    void advance();
    void startNextEntry();
    void startDirectory(const QString& path);
    void startFile(const DownloadEntry& entry);
    void continuePrefixHash();
    void startBlocks(int offset);
    void packDirectoryBlock();
    void packDirectoryEntries();
    void endDirectory();
    void failDirectory();
    void packFileBlock();
    void packWork(unsigned char flags);
    void finish();

    QString _request;
    qsizetype _nextPending = 0;  ///< where the next entry begins in the request

    QFile _file;
    DownloadEntry _entry;                   ///< of the file
    std::optional<PrefixHash> _prefixHash;  ///< while it is computed
    int _fileSize = 0;
    int _position = 0;
    int _deltaOffset = 0;
    DirectoryReader _directory;
    bool _isFirstBlock = true;

    RecordBuffer _records;
    QByteArray _work;
    QByteArray _compressed;
    qint64 _lastSend;     ///< wall clock, seconds
    quint32 _waitsSince;  ///< system ticks; the last report, or the last slice that did not wait
    quint32 _lostConnections = 0;
    int _writeCount;
};

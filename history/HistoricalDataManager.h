#pragma once

#include "bus/DebugText.h"
#include "datafile/DataFile.h"
#include "history/MnemonicHistory.h"

#include <QList>
#include <QMap>
#include <QObject>
#include <QString>
#include <QStringList>

#include <array>
#include <memory>
#include <vector>

/// Answers questions about the past out of the recorded data files. A lookup gives the values of
/// 30 minutes, a replay streams everything from a day on, in blocks that the client acknowledges.
/// Both run in forked children, so that the daemon's loop never waits for a file. One instance in
/// the process; what a request sets, only its own child's copy knows.
class HistoricalDataManager : public QObject {
    Q_OBJECT

public:
    static constexpr int kAcknowledgeMilliseconds = 60'000;
    static constexpr int kContinueMilliseconds = 600'000;

    /// A block of replayed values: items of a kind byte (0 int, 1 float, 2 string), the name with
    /// its NUL, and the value.
    /// KEPT: each item is written at the block's start, over the one before it, and counts as if
    /// it stood after it. So a block carries its last item; what follows is left over from longer
    /// ones, or zeros.
    struct ReplayData {
        static constexpr int kBytes = 4096;
        /// What is sent is `used` bytes: the last record that was begun before the block was full
        /// counts too, and takes far less than the other half.
        static constexpr int kStorageBytes = 2 * kBytes;

        std::array<char, kStorageBytes> data{};
        int used = 0;
        bool overflow = false;  ///< an item did not fit into `kBytes` any more
    };

    /// A data file that is being replayed, and its next record.
    struct FileEntry {
        enum FileEntryType { System = 0, GaugeCard = 1, Gauge = 2 };

        QString path;
        DataFile file{QStringLiteral("Replay")};
        FileEntryType type = System;
        int channel = 0;
        quint32 timestamp = 0;  ///< of the pending record, in seconds since 1970
        int recordType = 0;
        int recordLength = 0;
        std::array<char, DataFileFormat::kMaximumRecordBytes> record{};  ///< its type byte first
    };

    struct ReplayJob {
        int jobId = 0;
        QString requester;
        QString startString;  ///< "yyyyMMddhhmmss", local time
        /// KEPT: from the creation on, so that the first block of a job that is continued late has
        /// little time left, or none.
        quint32 ackTicks = 0;
        quint32 continuedTicks = 0;
        quint32 startTime = 0;
        QStringList days;
        QMap<QString, int> dayFlags;  ///< a bit for each folder that has the day
        std::vector<std::unique_ptr<FileEntry>> files;
        QMap<QString, int> channels;
        int sequence = 0;  ///< of the last block; negative once it is acknowledged
        bool isStreaming = false;
    };

    explicit HistoricalDataManager(QObject* parent);
    ~HistoricalDataManager() override;

    /// True in a forked replay worker.
    bool isWorkerThread() const { return _isWorker; }
    /// True in a worker that was told nothing for so long that its client must be gone.
    bool isAbandoned() const;

    /// For each gauge of the list (names separated by line feeds) the values of the 30 minutes
    /// from date ("yyyy-MM-dd") and time ("hh:mm:ss", UTC) on, on "HistoricalData.gaugeData", then
    /// the end. `valueSelector` 0 is a record's first value, any other number the second; it is
    /// echoed, as is `requestTag`.
    /// KEPT: without a valid date and time nothing is sent, and the child goes on in the main
    /// loop: may return in two processes.
    void lookup(const QString& archiveFolder, int valueSelector, int requestTag,
                const QString& date, const QString& time, const QString& gaugeList);

    /// Starts a worker with one replay job and tells the job's number with command 232. Returns in
    /// two processes: the worker goes on in the main loop.
    void beginHistoricalReplay(const QString& requester, const QString& start);
    /// Streams the job's days, as blocks of command 233, until their end or until a block is not
    /// acknowledged in time, and ends the worker. `options` gives the folders to replay and their
    /// channel numbers: "name=number|name=number". Does not return but for an unknown or streaming
    /// job, a start that is no time, or a quit. May re-enter the drain.
    void continueHistoricalReplay(int jobId, QString options);
    void ackReplayData(int jobId, int sequence);

    /// Each adds one item.
    static void replayAddInt(ReplayData* block, const char* name, int value);
    static void replayAddFloat(ReplayData* block, const char* name, float value);
    static void replayAddString(ReplayData* block, const char* name, const char* text);

private:
    void enterChild();
    void lookupGauges(const QString& gaugeList);
    void lookupGauge(int gaugeIndex, const QString& gauge);
    void lookupRecords(int gaugeIndex, DataFile& file);
    void noteSample(int gaugeIndex, quint32 time, const char* record, int length);

    void becomeWorker(const QString& requester, const QString& start);
    ReplayJob* findJob(int jobId);
    void replayDays(ReplayJob* job, const QDate& first);
    void findDays(ReplayJob* job, const QDate& first);
    void prepDay(ReplayJob* job, const QString& day);
    bool replayDay(ReplayJob* job);
    void prepFileForHistoricalReplay(ReplayJob* job, FileEntry::FileEntryType type,
                                     const QString& path, int channel);
    bool readNextRecord(FileEntry* entry);
    void processReplayFileList(ReplayJob* job);
    bool awaitAcknowledgement(ReplayJob* job);

    QString _archiveFolder;
    int _valueSelector = 0;
    int _requestTag = 0;
    QString _dateString;
    QString _timeString;
    quint32 _startTime = 0;
    int _nextJobId = 1;
    bool _isWorker = false;
    QList<ReplayJob*> _jobs;
    MnemonicHistory _history{QString()};
    DebugTextTarget _debug{"HistoricalDataManager"};
};

extern HistoricalDataManager* g_pHistoricalDataManager;

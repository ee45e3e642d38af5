#pragma once

#include "bus/DebugText.h"

#include <QFile>
#include <QMap>
#include <QObject>
#include <QString>

#include <sys/types.h>

class DataFile;
struct ThumbnailCategory;

/// Condenses days of recorded data into monthly thumbnail files: for each 15 minutes of the month
/// the first record of each type, with its time (layout in docs/formats.md). One instance in the
/// process; `appendDay` does the work in a forked child, everything else in the calling process.
/// No failure is reported but by the log: a day goes on with the next source, whatever happens
/// to one. Dates are "yyyy-MM-dd", months "yyyy-MM", both UTC.
class ThumbnailManager : public QObject {
    Q_OBJECT

public:
    explicit ThumbnailManager(QObject* parent = nullptr);

    /// Where thumbnail files are written ("/root/data" at first) and where the day's data files
    /// are read ("/mmc").
    void setRootAndArchiveFolder(const QString& root, const QString& archive);
    /// The job's name, the second level of every path; empty at first.
    void setJob(const QString& job);

    /// Starts a child that does the whole day at low priority, then sends command 221 on
    /// "ConnectionManager.to" and the date on "ThumbnailManager.dayFinished", and ends. Returns
    /// the child's pid at once; -1 where there is none.
    pid_t appendDay(const QString& date);

    /// Every source of one category that has a folder on that day.
    void appendDayGauges(const QString& date);
    void appendDayGaugeCards(const QString& date);
    void appendDayInputs(const QString& date);
    void appendDayWireless(const QString& date);
    void appendDayOstrevin(const QString& date);
    void appendDaySystem(const QString& date);

    /// One source, named by its folder.
    void appendDaySingleGauge(const QString& date, const QString& source);
    void appendDaySingleGaugeCard(const QString& date, const QString& source);
    void appendDaySingleInput(const QString& date, const QString& source);
    void appendDaySingleWireless(const QString& date, const QString& source);
    void appendDaySingleOstrevin(const QString& date, const QString& source);

    /// Opens the thumbnail file that `thumb` (not open) names for reading and writing, or creates
    /// it from the header of `source` (open). Fills in the header's length in bytes and the slot
    /// map (see ThumbnailLayout); `fallbackType` is the record code for a header that describes
    /// no types or more than 7. False, logged, on failure; `thumb` may then be open.
    bool appendDayOpenThumb(const QString& month, DataFile& source, QFile& thumb, int& headerSize,
                            int fallbackType, QMap<int, int>& slotMap);

    /// Walks the data file `source` from its first record on and places the first record of each
    /// type of each interval. `dayIndex` is the day of the month minus 1, `monthStart` in seconds
    /// since 1970. Returns how many records were to be placed, those refused among them.
    int appendDayWorker(int headerSize, const QMap<int, int>& slotMap, int dayIndex,
                        unsigned monthStart, DataFile& source, QFile& thumb);

    /// Writes one record, of `type` and at `time`, into its slot. `position` is where the file
    /// stands, kept over the calls to save seeks. False where it was not placed; logged, but for
    /// a type that has no slot.
    bool writeThumbRecord(QFile& thumb, int& position, int headerSize,
                          const QMap<int, int>& slotMap, int dayIndex, unsigned monthStart,
                          unsigned time, int type, const char* record);

private:
    void appendCategory(const ThumbnailCategory& category, const QString& date);
    void appendSource(const ThumbnailCategory& category, const QString& date,
                      const QString& source);
    void appendWholeDay(const QString& date);
    void announceDay(const QString& date);
    QString pathOf(const char* pattern, const QString& folder, const QString& time,
                   const QString& source) const;
    bool createThumb(const QString& month, const DataFile& source, QFile& thumb,
                     QByteArray& header);
    bool openThumb(QFile& thumb, QByteArray& header);
    bool openInPlace(QFile& thumb);

    QString _rootFolder;
    QString _archiveFolder;
    QString _job;
    DebugTextTarget _debug{"ThumbnailManager"};
};

extern ThumbnailManager* g_ThumbnailManager;

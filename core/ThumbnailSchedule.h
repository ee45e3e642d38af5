#pragma once

#include <QList>
#include <QString>

/// Which day's thumbnails are built next, and when. Days are requested by the to-do file at start
/// and by command, and built one at a time, oldest request first, by children that
/// ThumbnailManager forks; a child says that its day is finished on "ThumbnailManager.dayFinished".
/// While there is work a notification is open. Days of the to-do file that are finished are
/// recorded in a second file, so that a restart does not build them again (layouts in
/// docs/formats.md). Main thread only.

/// A requested day.
class ThumbnailDate {
public:
    QString date;
    QString job;
    bool fromFile = false;  ///< requested by the to-do file
};

/// Days that wait to be started, oldest first.
extern QList<ThumbnailDate> g_thumbnailDays;
/// Days started and not yet reported finished; never below 0.
extern int g_thumbnailDaysOutstanding;
/// Whether the day started last was requested by the to-do file.
extern bool g_thumbnailDayFromFile;
/// The open notification's number, 0 where none is open.
extern int g_thumbnailNotificationID;

namespace ThumbnailSchedule {

/// How often a day is started in all whose child was killed each time.
inline constexpr int kMaximumAttempts = 5;
/// How long after the end of a day's child its word may still come.
inline constexpr int kLostAfterMilliseconds = 10'000;
inline constexpr int kForkRetryMilliseconds = 1'000;
/// What one may ask for: more waiting days, or longer texts, are refused with a log line.
inline constexpr int kMaximumWaitingDays = 10'000;
inline constexpr int kMaximumTextLength = 1'024;
/// A longer scheduling file is not read, so that none can keep the daemon from starting.
inline constexpr int kMaximumFileBytes = 1'048'576;

/// Takes the to-do file's days, less those that are recorded as finished; where none is left of
/// them, deletes both files. Called once, at start.
void load();

/// Appends a day that was asked for by command.
void request(const QString& job, const QString& date);

/// Once a pass: starts the next day where none is outstanding, or closes the notification after
/// the last. Takes up again what a lost child or a failed fork has left.
void runStep() noexcept;

/// For every delivery of "ThumbnailManager.dayFinished", whoever sent it: lowers the count, and
/// records the date where the day started last came from the to-do file. The date ends at a NUL
/// and is cut to 31 bytes.
void handleDayFinished(const char* data, int length);

/// Drops all of it, without a message to anyone: for a forked child, and at the end.
void forget();

}  // namespace ThumbnailSchedule

#include "core/ThumbnailSchedule.h"

#include "bus/Clock.h"
#include "bus/DebugText.h"
#include "bus/PubSubInterface.h"
#include "core/shared/Notification.h"
#include "core/shared/ReapedChildren.h"
#include "core/shared/RegularFile.h"
#include "core/shared/StoragePaths.h"
#include "core/shared/Tokens.h"
#include "thumbnails/ThumbnailManager.h"

#include <QHash>

#include <algorithm>
#include <optional>
#include <utility>

#include <unistd.h>

QList<ThumbnailDate> g_thumbnailDays;
int g_thumbnailDaysOutstanding = 0;
bool g_thumbnailDayFromFile = false;
int g_thumbnailNotificationID = 0;

namespace {

constexpr int kDateBufferBytes = 32;
constexpr int kNotificationSeconds = 3600;

/// A day whose child has not been heard of since it was started.
struct StartedDay {
    ThumbnailDate day;
    pid_t child;
    /// A value of ReapedChildren::count from before the start.
    unsigned reapedBefore;
    bool hasEnded = false;
    int status = 0;
    quint32 endTicks = 0;
};

/// One at a time, unless somebody else's dayFinished has let the next one start early.
QList<StartedDay> g_startedDays;

/// How many children each day (job, date) has lost. Kept beside the waiting days: what is asked
/// for is a job and a date, and a day that is asked for twice deserves no more attempts.
QHash<std::pair<QString, QString>, int> g_killedChildren;

/// When the child of the first waiting day could not be forked.
std::optional<quint32> g_forkFailedAt;

std::pair<QString, QString> keyOf(const ThumbnailDate& day) {
    return {day.job, day.date};
}

QString todoPath() {
    return QLatin1String(StoragePaths::kDataRoot) + QLatin1String("/thumbnailTodo.txt");
}

QString finishedPath() {
    return QLatin1String(StoragePaths::kDataRoot) + QLatin1String("/thumbnailsComplete.txt");
}

QList<QString> linesOf(const QString& path) {
    QFile file;
    if (!RegularFile::open(file, path, QIODevice::ReadOnly)) {
        return {};
    }
    if (file.size() > ThumbnailSchedule::kMaximumFileBytes) {
        DebugText::send(Tokens::kClientName, "%s is too long, ignored", qPrintable(path));
        return {};
    }
    QList<QString> lines;
    for (const QByteArray& line : file.read(ThumbnailSchedule::kMaximumFileBytes).split('\n')) {
        lines.append(QString::fromLocal8Bit(line.trimmed()));
    }
    return lines;
}

void loadTodo() {
    for (const QString& line : linesOf(todoPath())) {
        const QList<QString> parts = line.split(u',');
        if (parts.size() == 2) {
            g_thumbnailDays.append({parts[1], parts[0], true});
        }
    }
}

/// Each finished line takes the first waiting day of its date.
void leaveOutFinished() {
    QHash<QString, int> finished;
    for (const QString& line : linesOf(finishedPath())) {
        ++finished[line];
    }
    // An empty line stands for no day, although a day's date may be empty.
    finished.remove(QString());
    for (const ThumbnailDate& day : std::exchange(g_thumbnailDays, {})) {
        const auto line = finished.find(day.date);
        if (line != finished.end() && *line > 0) {
            --*line;
        } else {
            g_thumbnailDays.append(day);
        }
    }
}

/// The text before the first NUL in the receiver's buffer of 32 bytes.
/// KEPT: the last byte that is taken counts as the NUL, whatever it is.
QByteArray dateOf(const char* data, int length) {
    const int taken = std::min(kDateBufferBytes, length);
    if (taken <= 0) {
        return {};
    }
    return {data, static_cast<qsizetype>(qstrnlen(data, static_cast<size_t>(taken - 1)))};
}

/// The same as a child reports it.
QByteArray reportedDate(const ThumbnailDate& day) {
    const QByteArray date = day.date.toLatin1();
    return dateOf(date.constData(), static_cast<int>(date.size()) + 1);
}

void stopWatching(const QByteArray& date) {
    const auto started = std::find_if(
        g_startedDays.begin(), g_startedDays.end(),
        [&](const StartedDay& candidate) { return reportedDate(candidate.day) == date; });
    if (started != g_startedDays.end()) {
        g_killedChildren.remove(keyOf(started->day));
        g_startedDays.erase(started);
    }
}

void recordFinished(const QByteArray& date) {
    QFile file;
    if (RegularFile::open(file, finishedPath(), QIODevice::WriteOnly | QIODevice::Append)) {
        file.write(QString::fromLatin1(date).toLocal8Bit() + '\n');
    }
}

void sendNotification(const char* token, const QString& date) {
    const QByteArray text = QStringLiteral("Updating thumbnails for date %1").arg(date).toLatin1();
    Message message;
    // The receiver expects a tenth parameter that nothing is known of.
    message.construct(0, "iiiSSiiiii", getpid(), g_thumbnailNotificationID,
                      static_cast<int>(Clock::wallSeconds()), "Updating thumbnails",
                      text.constData(), 0, 0, 0, kNotificationSeconds, 0);
    g_pubSubInterface->sendTokenMessage(token, message);
}

void announce(const QString& date) {
    if (g_thumbnailNotificationID > 0) {
        sendNotification(Tokens::kNotificationUpdate, date);
        return;
    }
    g_thumbnailNotificationID = getNextRemoteID();
    sendNotification(Tokens::kNotificationAdd, date);
}

void closeNotification() {
    if (g_thumbnailNotificationID <= 0) {
        return;
    }
    Message message;
    message.construct(0, "ii", getpid(), g_thumbnailNotificationID);
    g_pubSubInterface->sendTokenMessage(Tokens::kNotificationDelete, message);
    g_thumbnailNotificationID = 0;
}

/// The day stays where it is, in front, until its child is there.
void startFirstDay() {
    const ThumbnailDate day = g_thumbnailDays.first();
    announce(day.date);
    g_ThumbnailManager->setJob(day.job);
    const unsigned reapedBefore = ReapedChildren::count();
    const pid_t child = g_ThumbnailManager->appendDay(day.date);
    if (child < 0) {
        g_forkFailedAt = Clock::ticks();
        DebugText::send(Tokens::kClientName, "no child for thumbnail day %s yet",
                        qPrintable(day.date));
        return;
    }
    g_forkFailedAt.reset();
    g_thumbnailDays.removeFirst();
    ++g_thumbnailDaysOutstanding;
    g_thumbnailDayFromFile = day.fromFile;
    g_startedDays.append({day, child, reapedBefore});
}

bool isForkToBeTriedLater() {
    return g_forkFailedAt &&
           Clock::ticksSince(*g_forkFailedAt) < ThumbnailSchedule::kForkRetryMilliseconds;
}

/// The status is kept: ReapedChildren remembers the last children only.
void noteEnd(StartedDay& started) {
    if (!started.hasEnded &&
        ReapedChildren::find(started.child, started.reapedBefore, started.status)) {
        started.hasEnded = true;
        started.endTicks = Clock::ticks();
    }
}

bool isLost(const StartedDay& started) {
    return started.hasEnded &&
           Clock::ticksSince(started.endTicks) >= ThumbnailSchedule::kLostAfterMilliseconds;
}

/// A child that ended with 0 has done its day, and only its word got lost. One that was killed has
/// not: the day goes behind the others, so that one that kills each child keeps none waiting.
void takeUpLost(const StartedDay& lost) {
    const QByteArray date = lost.day.date.toLocal8Bit();
    DebugText::send(Tokens::kClientName,
                    "thumbnail day %s: its child ended (status 0x%04X) unheard", date.constData(),
                    static_cast<unsigned>(lost.status));
    if (lost.status != 0 &&
        ++g_killedChildren[keyOf(lost.day)] < ThumbnailSchedule::kMaximumAttempts) {
        g_thumbnailDays.append(lost.day);
        return;
    }
    g_killedChildren.remove(keyOf(lost.day));
    if (lost.status != 0) {
        DebugText::send(Tokens::kClientName, "thumbnail day %s: given up after %d attempts",
                        date.constData(), ThumbnailSchedule::kMaximumAttempts);
    }
}

void takeUpLostDays() {
    for (qsizetype i = 0; i < g_startedDays.size();) {
        noteEnd(g_startedDays[i]);
        if (!isLost(g_startedDays[i])) {
            ++i;
            continue;
        }
        const StartedDay lost = g_startedDays.takeAt(i);
        // Not simply one less: a stranger's dayFinished may have counted this one already.
        g_thumbnailDaysOutstanding =
            std::min(g_thumbnailDaysOutstanding, static_cast<int>(g_startedDays.size()));
        takeUpLost(lost);
    }
}

void startOrClose() {
    if (g_thumbnailDaysOutstanding != 0) {
        return;
    }
    if (g_thumbnailDays.isEmpty()) {
        closeNotification();
    } else if (!isForkToBeTriedLater()) {
        startFirstDay();
    }
}

}  // namespace

void ThumbnailSchedule::load() {
    loadTodo();
    const bool hasBatch = !g_thumbnailDays.isEmpty();
    leaveOutFinished();
    if (hasBatch && g_thumbnailDays.isEmpty()) {
        QFile::remove(todoPath());
        QFile::remove(finishedPath());
    }
}

void ThumbnailSchedule::request(const QString& job, const QString& date) {
    if (g_thumbnailDays.size() >= kMaximumWaitingDays || job.size() > kMaximumTextLength ||
        date.size() > kMaximumTextLength) {
        DebugText::send(Tokens::kClientName, "thumbnail day refused (%d waiting)",
                        static_cast<int>(g_thumbnailDays.size()));
        return;
    }
    g_thumbnailDays.append({date, job, false});
}

void ThumbnailSchedule::runStep() noexcept {
    try {
        takeUpLostDays();
        startOrClose();
    } catch (...) {
        DebugText::send(Tokens::kClientName, "thumbnail scheduling failed");
    }
}

void ThumbnailSchedule::handleDayFinished(const char* data, int length) {
    g_thumbnailDaysOutstanding = std::max(0, g_thumbnailDaysOutstanding - 1);
    const QByteArray date = dateOf(data, length);
    DebugText::send(Tokens::kClientName, "ThumbnailManager dayFinished %s (outstanding %d)",
                    date.constData(), g_thumbnailDaysOutstanding);
    stopWatching(date);
    if (g_thumbnailDayFromFile) {
        recordFinished(date);
    }
}

void ThumbnailSchedule::forget() {
    g_thumbnailDays.clear();
    g_thumbnailDaysOutstanding = 0;
    g_thumbnailDayFromFile = false;
    g_thumbnailNotificationID = 0;
    g_startedDays.clear();
    g_killedChildren.clear();
    g_forkFailedAt.reset();
}

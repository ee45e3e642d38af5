#include "tools/storagectl/ThumbsProgress.h"

#include <cstring>

namespace storagectl {

namespace {

constexpr char kDayFinished[] = "ThumbnailManager.dayFinished";
constexpr char kConnectionManager[] = "ConnectionManager.to";
constexpr char kNotificationAdd[] = "Notification.add";
constexpr char kNotificationUpdate[] = "Notification.update";
constexpr char kNotificationDelete[] = "Notification.delete";
constexpr int kDayDoneCommand = 221;

constexpr char kTitle[] = "Updating thumbnails";
constexpr char kTextBeforeDate[] = "Updating thumbnails for date ";

bool hasFormat(const Message& message, const char* format) {
    return std::strcmp(message.formatString(), format) == 0;
}

}  // namespace

ThumbsProgress::ThumbsProgress(const QByteArray& job, QDate from, QDate to) : _job(job) {
    for (QDate day = from; day <= to; day = day.addDays(1)) {
        _days.append(day.toString(Qt::ISODate).toLatin1());
    }
}

QByteArrayList ThumbsProgress::tokens() {
    return {kDayFinished, kConnectionManager, kNotificationAdd, kNotificationUpdate,
            kNotificationDelete};
}

bool ThumbsProgress::take(const QByteArray& token, const char* data, int length) {
    // The day alone, without its job: news that the daemon works, and no more.
    if (token == kDayFinished) {
        return true;
    }
    Message message;
    message.construct(data, length);
    if (token == kConnectionManager) {
        return takeDayDone(message);
    }
    return token == kNotificationDelete ? takeClosing(message) : takeAnnouncement(message);
}

bool ThumbsProgress::takeAnnouncement(const Message& message) {
    const QByteArray text = message.parameterAsString(4);
    if (!hasFormat(message, "iiiSSiiiii") || qstrcmp(message.parameterAsString(3), kTitle) != 0 ||
        !text.startsWith(kTextBeforeDate)) {
        return false;
    }
    _notification = {message.parameterAsInt32(0), message.parameterAsInt32(1)};
    _current = text.mid(static_cast<qsizetype>(std::strlen(kTextBeforeDate)));
    _isIdle = false;
    return true;
}

bool ThumbsProgress::takeClosing(const Message& message) {
    const std::pair closed = {message.parameterAsInt32(0), message.parameterAsInt32(1)};
    if (!hasFormat(message, "ii") || closed != _notification) {
        return false;
    }
    _isIdle = true;
    return true;
}

bool ThumbsProgress::takeDayDone(const Message& message) {
    if (message.command() != kDayDoneCommand || !hasFormat(message, "SS")) {
        return false;
    }
    // The daemon sends Latin-1, whatever letters the job was asked for in.
    const QByteArray day = message.parameterAsString(1);
    const bool isOurs = QString::fromLatin1(message.parameterAsString(0)) ==
                            QString::fromLatin1(QString::fromUtf8(_job).toLatin1()) &&
                        _days.contains(day);
    if (isOurs && !_finished.contains(day)) {
        _finished.insert(day);
        _news.append(day);
    }
    return true;
}

QByteArrayList ThumbsProgress::unfinished() const {
    QByteArrayList days = _days;
    days.removeIf([this](const QByteArray& day) { return _finished.contains(day); });
    return days;
}

}  // namespace storagectl

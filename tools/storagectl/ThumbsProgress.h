#pragma once

#include "bus/Message.h"

#include <QByteArray>
#include <QByteArrayList>
#include <QDate>
#include <QSet>

#include <utility>

namespace storagectl {

/// What becomes of requested days of thumbnails, as the daemon tells the unit: it announces the
/// day that it begins with a notification, tells of each day that it has gone through, and closes
/// its notification when nothing is left to do. A day that is not told of by then never will be.
class ThumbsProgress {
public:
    ThumbsProgress(const QByteArray& job, QDate from, QDate to);

    static QByteArrayList tokens();

    /// In order, as the daemon has them.
    const QByteArrayList& days() const { return _days; }
    /// Takes in a delivery; true where it is news of the daemon's work. `data` need not be well
    /// formed.
    bool take(const QByteArray& token, const char* data, int length);

    /// Told of as gone through since the last call, in the order of the news.
    QByteArrayList takeFinished() { return std::exchange(_news, {}); }
    QByteArrayList unfinished() const;
    int finishedCount() const { return static_cast<int>(_finished.size()); }
    /// The day that was announced last, of whatever job; empty before.
    const QByteArray& current() const { return _current; }
    /// Whether the daemon has said that nothing is left to do, after it had begun something.
    bool isIdle() const { return _isIdle; }

private:
    bool takeAnnouncement(const Message& message);
    bool takeClosing(const Message& message);
    bool takeDayDone(const Message& message);

    QByteArray _job;
    QByteArrayList _days;
    QSet<QByteArray> _finished;
    QByteArrayList _news;
    QByteArray _current;
    bool _isIdle = false;
    std::pair<int, int> _notification = {0, 0};  ///< process and number
};

}  // namespace storagectl

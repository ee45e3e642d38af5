#pragma once

#include <QByteArray>
#include <QByteArrayList>
#include <QDate>
#include <QMap>
#include <QtGlobal>

namespace storagectl {

/// What lookup asks for. Times are seconds since 1970; both ends belong to it.
struct LookupOptions {
    QByteArrayList gauges;
    QByteArray job;  ///< empty: the days right below the roots
    qint64 from = 0;
    qint64 to = 0;
    bool second = false;  ///< the second value of each record
    bool csv = false;
    bool plot = false;
    int width = 0;  ///< characters; 0 is the terminal's
};

/// What replay asks for.
struct ReplayOptions {
    QDate from;
    QMap<QByteArray, int> channels;  ///< by the folder of a gauge or a gauge card
    bool step = false;               ///< a line of standard input lets one block go
    double pace = 0;                 ///< blocks a second; 0 is as fast as they come
};

}  // namespace storagectl

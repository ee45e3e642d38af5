#pragma once

#include <QList>
#include <QString>
#include <QTimeZone>

namespace storagectl {

/// Where the marks of an axis stand, and what is written at them.
namespace PlotAxis {

struct Mark {
    double at = 0;  ///< a value, or seconds since 1970
    QString label;
};

/// The round values that enclose what is drawn, or some room around a single value: at least 2,
/// at most about `most` + 1. The first and the last are the ends of the axis.
QList<Mark> valueMarks(double minimum, double maximum, int most);

/// The shortest step of a clock or calendar, in seconds, that takes at most `most` to `span`.
qint64 timeStep(qint64 span, qint64 most);
/// Round times of the zone's own clock within a span, at most about `most`. A time that a change
/// of the clock leaves out has no mark; one that comes twice has one.
QList<Mark> timeMarks(qint64 from, qint64 to, const QTimeZone& zone, int most);

}  // namespace PlotAxis

}  // namespace storagectl

#include "tools/storagectl/PlotAxis.h"

#include <QDateTime>

#include <algorithm>
#include <cmath>

namespace storagectl::PlotAxis {

namespace {

constexpr qint64 kMinute = 60;
constexpr qint64 kHour = 60 * kMinute;
constexpr qint64 kDay = 24 * kHour;
constexpr qint64 kYear = 365 * kDay;

constexpr qint64 kTimeSteps[] = {
    1,        2,           5,           10,           15,           30,
    kMinute,  2 * kMinute, 5 * kMinute, 10 * kMinute, 15 * kMinute, 30 * kMinute,
    kHour,    2 * kHour,   3 * kHour,   6 * kHour,    12 * kHour,   kDay,
    2 * kDay, 5 * kDay,    10 * kDay,   30 * kDay,    90 * kDay,    180 * kDay,
    kYear,    2 * kYear,   5 * kYear,   20 * kYear,   50 * kYear};

double roundStep(double span, int most) {
    const double atLeast = span / most;
    const double power = std::pow(10.0, std::floor(std::log10(atLeast)));
    for (const double factor : {1.0, 2.0, 5.0}) {
        if (factor * power >= atLeast) {
            return factor * power;
        }
    }
    return 10 * power;
}

QString valueLabel(double value, double step) {
    const int decimals = std::max(0, -static_cast<int>(std::floor(std::log10(step) + 1e-9)));
    const QString plain = QString::number(value, 'f', decimals);
    constexpr qsizetype kMostCharacters = 9;
    return plain.size() <= kMostCharacters ? plain : QString::number(value, 'g', 4);
}

QString timeFormat(qint64 step, qint64 span) {
    if (step < kMinute) {
        return "HH:mm:ss";
    }
    if (step < kDay) {
        return span > kDay ? "MM-dd HH:mm" : "HH:mm";
    }
    return span > kYear ? "yyyy-MM-dd" : "MM-dd";
}

}  // namespace

QList<Mark> valueMarks(double minimum, double maximum, int most) {
    // Too narrow for its own numbers, too: steps below their precision lead nowhere.
    const double size = std::max(std::fabs(minimum), std::fabs(maximum));
    const bool isNarrow = maximum - minimum <= size * 1e-9;
    const double room = !isNarrow ? 0 : size > 0 ? size / 10 : 1;
    const double low = minimum - room;
    const double high = maximum + room;
    const double step = roundStep(high - low, most - 1);
    QList<Mark> marks;
    const double last = std::ceil(high / step - 1e-9);
    for (double k = std::floor(low / step + 1e-9); k <= last; ++k) {
        marks.append({k * step, valueLabel(k == 0 ? 0 : k * step, step)});
    }
    return marks;
}

qint64 timeStep(qint64 span, qint64 most) {
    for (const qint64 step : kTimeSteps) {
        if (span <= step * most) {
            return step;
        }
    }
    return *std::rbegin(kTimeSteps);
}

QList<Mark> timeMarks(qint64 from, qint64 to, const QTimeZone& zone, int most) {
    const qint64 step = timeStep(to - from, most);
    const qint64 days = std::max<qint64>(1, step / kDay);
    const QString format = timeFormat(step, to - from);
    QList<Mark> marks;
    QDate day = QDateTime::fromSecsSinceEpoch(from, zone).date();
    while (day.startOfDay(zone).toSecsSinceEpoch() <= to) {
        for (qint64 second = 0; second < kDay; second += step) {
            const QTime clock = QTime::fromMSecsSinceStartOfDay(static_cast<int>(second) * 1000);
            const QDateTime time(day, clock, zone);
            const qint64 at = time.toSecsSinceEpoch();
            if (time.isValid() && time.time() == clock && at >= from && at <= to) {
                marks.append({static_cast<double>(at), time.toString(format)});
            }
        }
        day = day.addDays(days);
    }
    return marks;
}

}  // namespace storagectl::PlotAxis

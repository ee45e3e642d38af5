#include "tools/storagectl/Plot.h"

#include "tools/storagectl/Output.h"

#include <algorithm>
#include <functional>

namespace storagectl {

namespace {

template <typename Extreme>
double extremeOf(const PlotPanel& panel, double PlotColumn::*value, Extreme isBetter) {
    double result = 0;
    bool isFirst = true;
    for (const PlotColumn& column : panel.columns) {
        if (column.samples > 0 && (isFirst || isBetter(column.*value, result))) {
            result = column.*value;
            isFirst = false;
        }
    }
    return result;
}

}  // namespace

void PlotColumn::add(qint64 time, double value) {
    if (samples++ == 0) {
        minimum = maximum = first = value;
        firstTime = time;
    }
    minimum = std::min(minimum, value);
    maximum = std::max(maximum, value);
    sum += value;
    last = value;
    lastTime = time;
}

QString PlotPanel::title() const {
    return source + ": " + value + (isThumbnail ? ", first sample of each 15 minutes" : "");
}

bool PlotPanel::isEmpty() const {
    return std::all_of(columns.begin(), columns.end(),
                       [](const PlotColumn& column) { return column.samples == 0; });
}

double PlotPanel::minimum() const {
    return extremeOf(*this, &PlotColumn::minimum, std::less<>());
}

double PlotPanel::maximum() const {
    return extremeOf(*this, &PlotColumn::maximum, std::greater<>());
}

qint64 Plot::columnTime(qint64 column) const {
    return from + column * (to - from + 1) / std::max<qint64>(1, columnCount());
}

QString Plot::span() const {
    return isoTime(from, zone) + " to " + isoTime(to, zone);
}

QStringList Plot::captions() const {
    if (!note.isEmpty()) {
        return {note};
    }
    const auto isThumbnail = [](const PlotPanel& panel) { return panel.isThumbnail; };
    QStringList captions;
    if (std::any_of(panels.begin(), panels.end(), isThumbnail)) {
        captions.append(kThumbnailCaption);
    }
    if (!std::all_of(panels.begin(), panels.end(), isThumbnail)) {
        captions.append("Recorded samples: from the lowest to the highest of each step of time.");
    }
    return captions;
}

}  // namespace storagectl

#pragma once

#include <QList>
#include <QStringList>
#include <QTimeZone>

#include <vector>

namespace storagectl {

/// The samples of one value in one part of the time axis.
struct PlotColumn {
    qint64 samples = 0;
    double minimum = 0;
    double maximum = 0;
    double sum = 0;
    double first = 0;  ///< in the order of the file
    double last = 0;
    qint64 firstTime = 0;
    qint64 lastTime = 0;

    void add(qint64 time, double value);
    double mean() const { return sum / static_cast<double>(samples); }
    /// Whether a line may lead here from an earlier column.
    bool follows(const PlotColumn& earlier, qint64 longestStep) const {
        return firstTime - earlier.lastTime <= longestStep;
    }
};

/// One value of one source over the whole time axis.
struct PlotPanel {
    QString source;
    QString value;  ///< "gauge.value"
    bool isThumbnail = false;
    qint64 longestStep = 0;  ///< seconds without a sample that are no gap yet
    std::vector<PlotColumn> columns;

    QString title() const;
    bool isEmpty() const;
    /// Of all samples; of an empty panel 0.
    double minimum() const;
    double maximum() const;
};

/// What is drawn, whatever it is drawn with: panels over one time axis of equal columns.
struct Plot {
    qint64 from = 0;  ///< seconds since 1970; both ends belong to it
    qint64 to = 0;
    QTimeZone zone = QTimeZone::utc();
    QList<PlotPanel> panels;
    QString note = {};  ///< what the columns stand for, where they are no recording's

    /// The same for every panel.
    qint64 columnCount() const {
        return panels.isEmpty() ? 0 : static_cast<qint64>(panels.first().columns.size());
    }
    /// The first second of a column.
    qint64 columnTime(qint64 column) const;
    /// Both ends of the time axis, with their offsets.
    QString span() const;
    /// What the columns stand for, a sentence each for thumbnails and for recordings.
    QStringList captions() const;
};

inline constexpr char kThumbnailCaption[] =
    "Thumbnail: the first sample of each 15 minutes, neither mean nor extreme.";

}  // namespace storagectl

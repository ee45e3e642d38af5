#pragma once

#include "tools/sample/Options.h"
#include "tools/sample/RecordingWriter.h"
#include "tools/sample/Signal.h"

#include <QByteArray>
#include <QList>

/// The six categories of recordings, as one table: where their files stand, what records they
/// hold, and how a sample becomes records.
namespace sample {

/// What one sample is made from.
struct Sample {
    const QList<Signal>& values;
    qint64 time;
    qint64 number;  ///< from 0, in this recording
    bool pumpIsOn;
    Random& noise;

    double value(int signal) const { return values[signal].at(time, pumpIsOn, noise); }
};

struct Category {
    QByteArray folder;
    QByteArray element;  ///< in the job's configuration; the system stands in none
    QByteArray fileName;
    /// None: the category is its own single source, without a folder for it.
    int Options::*sources;
    QByteArray (*nameOf)(int source);
    /// Seconds between samples are this many times those of a gauge.
    int slowness;
    QList<RecordKind> kinds;
    QList<Shape> (*shapesOf)(int source);
    void (*record)(const Category& category, const Sample& sample, RecordingWriter& writer);

    /// 1 where there is no folder a source.
    int sourceCount(const Options& options) const { return sources ? options.*sources : 1; }
};

const QList<Category>& categories();

/// The unit that a gauge measures in.
QByteArray gaugeUnit(int source);

}  // namespace sample

#pragma once

#include "tools/storagectl/Plot.h"
#include "tools/storagectl/RecordSelection.h"
#include "tools/storagectl/RecordingSurvey.h"

#include <array>
#include <functional>
#include <memory>
#include <vector>

namespace storagectl {

/// Recordings that are drawn together. Samples are read anew for each plot, straight into its
/// columns, so that memory does not grow with the recordings. Values that are no numbers are left
/// out.
class PlotSources {
public:
    using Visitor = std::function<void(qsizetype panel, qint64 time, double value)>;

    /// Surveys a recording and takes in what is selected of it.
    const RecordingSurvey& add(std::unique_ptr<Recording> recording,
                               const RecordSelection& selection);
    /// Whether there was anything to be taken of the last one.
    bool hasTaken() const { return _hasTaken; }
    /// What there is to be drawn, without columns.
    const QList<PlotPanel>& panels() const { return _panels; }
    /// Every selected sample, file by file, in each file's order.
    void forEachSample(const Visitor& visit) const;
    /// The first and the last time of a selected sample. False where there is none.
    bool findSpan(qint64& from, qint64& to) const;
    /// REQUIRES: `columns` above 0, `from` not above `to`. Panels without a sample are left out.
    Plot plot(qint64 from, qint64 to, qint64 columns, const QTimeZone& zone) const;

private:
    struct Drawn {
        const RecordField* field;
        qsizetype panel;
    };
    struct Source {
        Source(std::unique_ptr<Recording> taken, const RecordSelection& wanted);

        std::unique_ptr<Recording> recording;
        RecordSelection selection;
        RecordingSurvey survey;
        std::array<QList<Drawn>, DataFileFormat::kMaximumRecordBytes> drawn;  ///< by type
    };

    void take(Source& source, const RecordingSurvey::Type& type);
    qsizetype panelFor(const PlotPanel& panel);

    std::vector<std::unique_ptr<Source>> _sources;
    QList<PlotPanel> _panels;
    bool _hasTaken = false;
};

}  // namespace storagectl

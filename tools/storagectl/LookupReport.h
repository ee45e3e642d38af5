#pragma once

#include "tools/storagectl/HalfHours.h"
#include "tools/storagectl/Plot.h"

#include <QStringList>

namespace storagectl {

class Output;

/// Shows half hours in order as they come: a table, CSV, JSON, or at the end a plot. All times
/// are UTC. What is not known is said for each minute: a 0 may stand for no sample.
class LookupReport {
public:
    /// The arguments must outlive it.
    LookupReport(Output& output, const LookupOptions& options);

    void begin();
    void add(const HalfHour& half);
    /// Draws, and tells what there was.
    void finish();

    /// The gauges that had no sample in any minute.
    QStringList emptyGauges() const;
    /// The spans that stayed unanswered.
    const QStringList& unanswered() const { return _unanswered; }
    qint64 answeredMinutes() const { return _answeredMinutes; }

private:
    struct Minute {
        bool hasValue = false;
        float value = 0;
        const char* note = "";
    };

    Minute minuteOf(const HalfHour& half, std::size_t gauge, int minute) const;
    void show(qint64 time, const QList<Minute>& minutes);
    void plotMinutes(qint64 time, const QList<Minute>& minutes);
    QString cell(const Minute& minute) const;
    void noteUnanswered(const HalfHour& half);

    Output& _output;
    const LookupOptions& _options;
    bool _isPlot;
    Plot _plot;
    std::vector<bool> _hasSamples;  ///< by gauge
    qint64 _values = 0;
    qint64 _zeros = 0;
    qint64 _none = 0;
    qint64 _answeredMinutes = 0;
    qint64 _unansweredUntil = 0;
    qint64 _unansweredFrom = 0;
    QStringList _unanswered;
};

}  // namespace storagectl

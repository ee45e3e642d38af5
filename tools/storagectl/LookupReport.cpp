#include "tools/storagectl/LookupReport.h"

#include "tools/storagectl/FileService.h"
#include "tools/storagectl/HistoryOptions.h"
#include "tools/storagectl/Output.h"
#include "tools/storagectl/RecordDump.h"
#include "tools/storagectl/TerminalPlot.h"

#include <QJsonObject>

#include <cmath>

namespace storagectl {

namespace {

constexpr qint64 kMinuteSeconds = 60;
/// Slow samples are joined by lines all the same.
constexpr qint64 kLongestStepSeconds = 600;
constexpr char kZero[] = "0 or no sample";
constexpr char kNoSample[] = "no sample";
constexpr char kNotAnswered[] = "not answered";
constexpr int kCellCharacters = 16;

QString utc(qint64 seconds) {
    return isoTime(seconds, QTimeZone::utc());
}

}  // namespace

LookupReport::LookupReport(Output& output, const LookupOptions& options)
    : _output(output),
      _options(options),
      _isPlot(options.plot && !output.style().json),
      _hasSamples(static_cast<std::size_t>(options.gauges.size()), false) {}

void LookupReport::begin() {
    if (_isPlot) {
        _plot.from = _options.from;
        _plot.to = _options.to;
        _plot.note = "The first sample of each minute; 0 is left out, it may be no sample.";
        const int columns = TerminalPlot::columnsFor(TerminalPlot::widthFor(_options.width));
        for (const QByteArray& gauge : _options.gauges) {
            PlotPanel panel{text(gauge),
                            _options.second ? "second value" : "first value",
                            false,
                            kLongestStepSeconds,
                            {}};
            panel.columns.resize(static_cast<std::size_t>(columns));
            _plot.panels.append(panel);
        }
        return;
    }
    if (_options.csv) {
        _output.line("time,seconds,gauge,value,note");
        return;
    }
    QString heading = QString("time (UTC)").leftJustified(kCellCharacters);
    for (const QByteArray& gauge : _options.gauges) {
        heading += "  " + text(gauge).rightJustified(kCellCharacters);
    }
    _output.line(heading);
}

void LookupReport::add(const HalfHour& half) {
    if (!half.isAnswered) {
        noteUnanswered(half);
    }
    for (int minute = 0; minute < half.minutes; ++minute) {
        QList<Minute> minutes;
        for (std::size_t gauge = 0; gauge < half.values.size(); ++gauge) {
            minutes.append(minuteOf(half, gauge, minute));
            const Minute& last = minutes.last();
            _hasSamples[gauge] = _hasSamples[gauge] || last.hasValue;
            _values += last.hasValue && last.value != 0 ? 1 : 0;
            _zeros += last.hasValue && last.value == 0 ? 1 : 0;
            _none += half.isAnswered && !last.hasValue ? 1 : 0;
        }
        _answeredMinutes += half.isAnswered ? 1 : 0;
        const qint64 time = half.start + minute * kMinuteSeconds;
        if (_isPlot) {
            plotMinutes(time, minutes);
        } else {
            show(time, minutes);
        }
    }
}

QStringList LookupReport::emptyGauges() const {
    QStringList empty;
    for (qsizetype i = 0; i < _options.gauges.size(); ++i) {
        if (!_hasSamples[static_cast<std::size_t>(i)]) {
            empty.append(text(_options.gauges[i]));
        }
    }
    return empty;
}

LookupReport::Minute LookupReport::minuteOf(const HalfHour& half, std::size_t gauge,
                                            int minute) const {
    if (!half.isAnswered) {
        return {false, 0, kNotAnswered};
    }
    const std::vector<float>& values = half.values[gauge];
    const auto index = static_cast<std::size_t>(minute);
    if (index >= values.size()) {
        return {false, 0, kNoSample};
    }
    return {true, values[index], values[index] == 0 ? kZero : ""};
}

void LookupReport::noteUnanswered(const HalfHour& half) {
    const qint64 end = half.start + half.minutes * kMinuteSeconds;
    if (!_unanswered.isEmpty() && _unansweredUntil == half.start) {
        _unanswered.removeLast();
    } else {
        _unansweredFrom = half.start;
    }
    _unansweredUntil = end;
    _unanswered.append(utc(_unansweredFrom) + " to " + utc(end - 1));
}

QString LookupReport::cell(const Minute& minute) const {
    return *minute.note != '\0' ? minute.note : decimalText(double{minute.value});
}

void LookupReport::plotMinutes(qint64 time, const QList<Minute>& minutes) {
    const qint64 shown = std::max(time, _plot.from);
    const qint64 column = (shown - _plot.from) * _plot.columnCount() / (_plot.to - _plot.from + 1);
    for (qsizetype i = 0; i < minutes.size(); ++i) {
        const Minute& minute = minutes[i];
        if (minute.hasValue && minute.value != 0 && std::isfinite(minute.value)) {
            _plot.panels[i].columns[static_cast<std::size_t>(column)].add(shown,
                                                                          double{minute.value});
        }
    }
}

void LookupReport::show(qint64 time, const QList<Minute>& minutes) {
    if (!_options.csv && !_output.style().json) {
        QString line = utc(time).left(kCellCharacters).replace('T', ' ');
        for (qsizetype i = 0; i < minutes.size(); ++i) {
            const qsizetype width =
                std::max<qsizetype>(kCellCharacters, text(_options.gauges[i]).size());
            line += "  " + cell(minutes[i]).rightJustified(width);
        }
        _output.line(line);
        return;
    }
    for (qsizetype i = 0; i < minutes.size(); ++i) {
        const Minute& minute = minutes[i];
        const QString number = minute.hasValue ? decimalText(double{minute.value}) : QString();
        QJsonValue value;
        if (minute.hasValue) {
            value = std::isfinite(minute.value) ? QJsonValue(number.toDouble()) : number;
        }
        QJsonObject object{{"command", "lookup"},
                           {"time", utc(time)},
                           {"gauge", text(_options.gauges[i])},
                           {"value", value}};
        if (*minute.note != '\0') {
            object.insert("note", minute.note);
        }
        _output.object(object);
        _output.line(QStringList{utc(time), QString::number(time),
                                 csvField(text(_options.gauges[i])), number, minute.note}
                         .join(','));
    }
}

void LookupReport::finish() {
    _plot.panels.removeIf([](const PlotPanel& panel) { return panel.isEmpty(); });
    if (!_plot.panels.isEmpty()) {
        const int width = TerminalPlot::widthFor(_options.width);
        const int rows = TerminalPlot::rowsFor(_plot.panels.size());
        for (const QString& line : TerminalPlot::draw(_plot, width, rows)) {
            _output.line(line);
        }
    }
    _output.talk(QString("times are UTC: %1 minutes answered; %2 values, %3 times %4, %5 times %6")
                     .arg(_answeredMinutes)
                     .arg(_values)
                     .arg(_zeros)
                     .arg(kZero)
                     .arg(_none)
                     .arg(kNoSample));
}

}  // namespace storagectl

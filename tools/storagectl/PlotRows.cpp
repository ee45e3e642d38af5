#include "tools/storagectl/PlotRows.h"

#include "tools/storagectl/Output.h"
#include "tools/storagectl/PlotAxis.h"
#include "tools/storagectl/RecordDump.h"

namespace storagectl {

namespace {

/// 15 minutes for a month, 30 seconds for a day.
constexpr qint64 kMostSteps = 3000;

class Rows {
public:
    Rows(Output& output, const QTimeZone& zone) : _output(output), _zone(zone) {
        output.line("time,source,value,first,minimum,maximum,mean,samples");
    }

    void first(const PlotPanel& panel, qint64 time, double value) {
        _output.line(begin(panel, time) + ',' + decimalText(value) + ",,,,");
        QJsonObject object = objectOf(panel, time);
        object.insert("first", decimalText(value).toDouble());
        _output.object(object);
    }

    void step(const PlotPanel& panel, qint64 time, const PlotColumn& column) {
        _output.line(begin(panel, time) + ",," + decimalText(column.minimum) + ',' +
                     decimalText(column.maximum) + ',' + decimalText(column.mean()) + ',' +
                     QString::number(column.samples));
        QJsonObject object = objectOf(panel, time);
        object.insert("minimum", decimalText(column.minimum).toDouble());
        object.insert("maximum", decimalText(column.maximum).toDouble());
        object.insert("mean", column.mean());
        object.insert("samples", column.samples);
        _output.object(object);
    }

private:
    QString begin(const PlotPanel& panel, qint64 time) const {
        return isoTime(time, _zone) + ',' + csvField(panel.source) + ',' + csvField(panel.value);
    }
    QJsonObject objectOf(const PlotPanel& panel, qint64 time) const {
        return {{"command", "plot"},
                {"time", isoTime(time, _zone)},
                {"seconds", time},
                {"source", panel.source},
                {"value", panel.value}};
    }

    Output& _output;
    QTimeZone _zone;
};

}  // namespace

void writePlotRows(Output& output, const PlotSources& sources, qint64 from, qint64 to,
                   const QTimeZone& zone) {
    Rows rows(output, zone);
    sources.forEachSample([&](qsizetype panel, qint64 time, double value) {
        if (sources.panels()[panel].isThumbnail) {
            rows.first(sources.panels()[panel], time, value);
        }
    });
    const qint64 step = PlotAxis::timeStep(to - from + 1, kMostSteps);
    const qint64 begin = from / step * step;
    const qint64 steps = (to - begin) / step + 1;
    const Plot plot = sources.plot(begin, begin + steps * step - 1, steps, zone);
    for (const PlotPanel& panel : plot.panels) {
        for (std::size_t i = 0; i < panel.columns.size() && !panel.isThumbnail; ++i) {
            if (panel.columns[i].samples > 0) {
                rows.step(panel, plot.columnTime(static_cast<qint64>(i)), panel.columns[i]);
            }
        }
    }
}

}  // namespace storagectl

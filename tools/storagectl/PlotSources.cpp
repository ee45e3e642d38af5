#include "tools/storagectl/PlotSources.h"

#include "tools/storagectl/FileService.h"

#include <algorithm>
#include <cmath>

namespace storagectl {

namespace {

constexpr qint64 kThumbnailSeconds = 900;

}  // namespace

PlotSources::Source::Source(std::unique_ptr<Recording> taken, const RecordSelection& wanted)
    : recording(std::move(taken)), selection(wanted), survey(*recording) {}

const RecordingSurvey& PlotSources::add(std::unique_ptr<Recording> recording,
                                        const RecordSelection& selection) {
    Source& source =
        *_sources.emplace_back(std::make_unique<Source>(std::move(recording), selection));
    _hasTaken = false;
    for (const RecordingSurvey::Type& type : source.survey.types()) {
        if (selection.takesType(type.layout)) {
            take(source, type);
        }
    }
    return source.survey;
}

void PlotSources::take(Source& source, const RecordingSurvey::Type& type) {
    const Recording& recording = *source.recording;
    const QString name =
        recording.source().isEmpty() ? text(baseNameOf(recording.path())) : recording.source();
    const qint64 longestStep =
        recording.isThumbnail() ? 3 * kThumbnailSeconds : type.times.longestStep();
    for (const RecordField& field : type.layout.fields) {
        if (field.isNumber() && source.selection.takesField(type.layout, field)) {
            const PlotPanel panel{
                name, type.layout.qualified(field), recording.isThumbnail(), longestStep, {}};
            source.drawn[static_cast<std::size_t>(type.layout.type)].append(
                {&field, panelFor(panel)});
            _hasTaken = true;
        }
    }
}

qsizetype PlotSources::panelFor(const PlotPanel& panel) {
    for (qsizetype i = 0; i < _panels.size(); ++i) {
        PlotPanel& same = _panels[i];
        if (same.source == panel.source && same.value == panel.value &&
            same.isThumbnail == panel.isThumbnail) {
            same.longestStep = std::max(same.longestStep, panel.longestStep);
            return i;
        }
    }
    _panels.append(panel);
    return _panels.size() - 1;
}

void PlotSources::forEachSample(const Visitor& visit) const {
    for (const auto& source : _sources) {
        source->recording->forEach([&](const Recording::Record& record) {
            if (record.length < record.wanted || !source->selection.takesTime(record.time)) {
                return;
            }
            for (const Drawn& drawn : source->drawn[static_cast<std::size_t>(record.type)]) {
                const double value = drawn.field->number(record.bytes);
                if (std::isfinite(value)) {
                    visit(drawn.panel, record.time, value);
                }
            }
        });
    }
}

bool PlotSources::findSpan(qint64& from, qint64& to) const {
    bool isFound = false;
    forEachSample([&](qsizetype, qint64 time, double) {
        from = isFound ? std::min(from, time) : time;
        to = isFound ? std::max(to, time) : time;
        isFound = true;
    });
    return isFound;
}

Plot PlotSources::plot(qint64 from, qint64 to, qint64 columns, const QTimeZone& zone) const {
    Plot plot{from, to, zone, _panels};
    for (PlotPanel& panel : plot.panels) {
        panel.columns.resize(static_cast<std::size_t>(columns));
    }
    forEachSample([&](qsizetype panel, qint64 time, double value) {
        if (time >= from && time <= to) {
            const qint64 column = (time - from) * columns / (to - from + 1);
            plot.panels[panel].columns[static_cast<std::size_t>(column)].add(time, value);
        }
    });
    plot.panels.removeIf([](const PlotPanel& panel) { return panel.isEmpty(); });
    return plot;
}

}  // namespace storagectl

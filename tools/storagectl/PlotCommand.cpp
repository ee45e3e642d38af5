#include "tools/storagectl/Commands.h"

#include "tools/storagectl/DayFiles.h"
#include "tools/storagectl/PlotRows.h"
#include "tools/storagectl/RecordingReport.h"
#include "tools/storagectl/RecordingSource.h"
#include "tools/storagectl/SvgPlot.h"
#include "tools/storagectl/TerminalPlot.h"

#include <QDateTime>
#include <QFileInfo>
#include <QSaveFile>

namespace storagectl {

namespace {

Outcome take(std::unique_ptr<Recording> recording, const RecordSelection& selection,
             PlotSources& sources) {
    const Recording& taken = *recording;
    const RecordingSurvey& survey = sources.add(std::move(recording), selection);
    const bool isOfUse = sources.hasTaken() || survey.all().records() == 0;
    return isOfUse ? damageOutcome(taken, survey) : nothingSelected(taken, survey);
}

Outcome addFile(Context& context, const QByteArray& path, PlotSources& sources) {
    auto recording = std::make_unique<Recording>();
    const Outcome outcome = openRecording(context, path, *recording);
    return outcome.isDone()
               ? take(std::move(recording), context.options.recordings.selection, sources)
               : outcome;
}

/// Opens a day where it lies; NotFound where it is nowhere.
Outcome openDay(Context& context, const QByteArrayList& candidates, Recording& recording) {
    Outcome outcome = Outcome::failure(ExitCode::NotFound, {});
    for (const QByteArray& path : candidates) {
        if (!context.options.isOnUnit(path) && !QFile::exists(text(path))) {
            continue;
        }
        outcome = openRecording(context, path, recording);
        if (outcome.code != ExitCode::NotFound) {
            break;
        }
    }
    return outcome;
}

/// Days of a month are days in UTC.
RecordSelection withinMonth(RecordSelection selection, const DayFiles& days) {
    const QDate first = QDate::fromString(QString::fromLatin1(days.month()) + "-01", Qt::ISODate);
    const qint64 begin = first.startOfDay(QTimeZone::utc()).toSecsSinceEpoch();
    const qint64 end = first.addMonths(1).startOfDay(QTimeZone::utc()).toSecsSinceEpoch();
    selection.from = std::max(selection.from, begin);
    selection.to = std::min(selection.to, end - 1);
    return selection;
}

/// The days behind a thumbnail file. What is wrong with one is told, and the others are drawn.
Outcome addDays(Context& context, const QByteArray& thumbnail, PlotSources& sources) {
    const bool isLocal = !context.options.isOnUnit(thumbnail);
    const DayFiles days(isLocal ? QFileInfo(text(thumbnail)).absoluteFilePath().toUtf8()
                                : thumbnail);
    if (!days.isValid()) {
        return Outcome::failure(ExitCode::Usage,
                                text(thumbnail) +
                                    ": --raw takes JOB/CATEGORY/thumbnails/*.gdt, whose "
                                    "name tells where its days are");
    }
    const RecordSelection selection = withinMonth(context.options.recordings.selection, days);
    int found = 0;
    int failed = 0;
    for (int day = 1; day <= days.days(); ++day) {
        auto recording = std::make_unique<Recording>();
        Outcome outcome = openDay(context, days.candidates(day), *recording);
        if (outcome.code == ExitCode::NotFound) {
            continue;
        }
        ++found;
        if (outcome.isDone()) {
            outcome = take(std::move(recording), selection, sources);
        } else if (outcome.mayRetry || outcome.code == ExitCode::Interrupted) {
            return outcome;
        }
        if (!outcome.isDone()) {
            context.output.error(outcome);
            ++failed;
        }
    }
    if (found == 0) {
        return Outcome::failure(ExitCode::NotFound,
                                text(thumbnail) + ": no day of it is recorded, " +
                                    text(days.candidates(1).join(" or ")) + " and so on");
    }
    return failed == 0
               ? Outcome::done()
               : Outcome::failure(
                     ExitCode::Partly,
                     text(thumbnail) + QString(": %1 of its %2 days are drawn in part or not")
                                           .arg(failed)
                                           .arg(found));
}

Outcome writeSvg(Context& context, const Plot& plot) {
    const QByteArray& target = context.options.recordings.svgTarget;
    const QByteArray document = SvgPlot::draw(plot);
    QSaveFile file(text(target));
    if (!file.open(QIODevice::WriteOnly) || file.write(document) != document.size() ||
        !file.commit()) {
        return Outcome::failure(ExitCode::LocalFile,
                                text(target) + ": cannot be written: " + file.errorString());
    }
    context.output.object({{"command", "plot"}, {"svg", text(target)}});
    context.output.talk("drawn into " + text(target) + ": " + plot.captions().join(' '));
    return Outcome::done();
}

void drawOnTerminal(Context& context, const PlotSources& sources, qint64 from, qint64 to) {
    const int width = TerminalPlot::widthFor(context.options.recordings.width);
    const Plot plot =
        sources.plot(from, to, TerminalPlot::columnsFor(width), context.options.recordings.zone);
    const int rows = TerminalPlot::rowsFor(plot.panels.size());
    for (const QString& line : TerminalPlot::draw(plot, width, rows)) {
        context.output.line(line);
    }
}

Outcome draw(Context& context, const PlotSources& sources) {
    const RecordingOptions& options = context.options.recordings;
    qint64 from = 0;
    qint64 to = 0;
    if (!sources.findSpan(from, to)) {
        return Outcome::failure(ExitCode::NotFound, "no sample to be drawn");
    }
    if (!options.svgTarget.isEmpty()) {
        return writeSvg(context, sources.plot(from, to, SvgPlot::kColumns, options.zone));
    }
    if (options.csv || context.output.style().json) {
        writePlotRows(context.output, sources, from, to, options.zone);
        for (const PlotPanel& panel : sources.panels()) {
            if (panel.isThumbnail) {
                context.output.talk(kThumbnailCaption);
                break;
            }
        }
        return Outcome::done();
    }
    drawOnTerminal(context, sources, from, to);
    return Outcome::done();
}

}  // namespace

ExitCode plot(Context& context) {
    PlotSources sources;
    const auto add = context.options.recordings.raw ? addDays : addFile;
    const ExitCode added =
        forEachFile(context, [&](const QByteArray& path) { return add(context, path, sources); });
    const bool isHopeless = sources.panels().isEmpty() && added != ExitCode::Done;
    if (isHopeless || added == ExitCode::Interrupted) {
        return added;
    }
    const Outcome drawn = draw(context, sources);
    if (!drawn.isDone()) {
        context.output.error(drawn);
    }
    return added == ExitCode::Done ? drawn.code : added;
}

}  // namespace storagectl

#include "tools/storagectl/Commands.h"

#include "tools/storagectl/RecordDump.h"
#include "tools/storagectl/RecordingReport.h"
#include "tools/storagectl/RecordingSource.h"

namespace storagectl {

namespace {

/// Damage is told of after everything that could be read.
ExitCode forEachRecording(
    Context& context,
    const std::function<Outcome(const Recording&, const RecordingSurvey&)>& work) {
    return forEachFile(context, [&](const QByteArray& path) {
        Recording recording;
        Outcome outcome = openRecording(context, path, recording);
        if (!outcome.isDone()) {
            return outcome;
        }
        const RecordingSurvey survey(recording);
        outcome = work(recording, survey);
        return outcome.isDone() ? damageOutcome(recording, survey) : outcome;
    });
}

Outcome dump(Context& context, const Recording& recording, const RecordingSurvey& survey) {
    Output& output = context.output;
    const RecordingOptions& options = context.options.recordings;
    const RecordDump rows(survey, options.selection, options.zone);
    if (rows.isEmpty() && survey.all().records() > 0) {
        return nothingSelected(recording, survey);
    }
    const bool json = output.style().json;
    output.line(rows.heading());
    recording.forEach([&](const Recording::Record& record) {
        if (!rows.takes(record) || output.isClosed()) {
            return;
        }
        if (json) {
            output.data(rows.object(record));
        } else {
            output.line(rows.line(record));
        }
    });
    return Outcome::done();
}

}  // namespace

ExitCode dataInfo(Context& context) {
    return forEachRecording(
        context, [&](const Recording& recording, const RecordingSurvey& survey) {
            const RecordingReport report(recording, survey, context.options.recordings.zone);
            context.output.object(report.object());
            for (const QString& line : report.lines()) {
                context.output.line(line);
            }
            return Outcome::done();
        });
}

ExitCode dataDump(Context& context) {
    return forEachRecording(context,
                            [&](const Recording& recording, const RecordingSurvey& survey) {
                                return dump(context, recording, survey);
                            });
}

}  // namespace storagectl

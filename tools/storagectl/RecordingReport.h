#pragma once

#include "tools/storagectl/RecordSelection.h"
#include "tools/storagectl/RecordingSurvey.h"

#include <QJsonObject>
#include <QTimeZone>

namespace storagectl {

/// What is known of a recording, for people and for scripts. The arguments must outlive it.
class RecordingReport {
public:
    RecordingReport(const Recording& recording, const RecordingSurvey& survey,
                    const QTimeZone& zone)
        : _recording(recording), _survey(survey), _zone(zone) {}

    QStringList lines() const;
    QJsonObject object() const;

private:
    QStringList typeLines() const;
    QStringList stepLines() const;
    QString span(quint32 first, quint32 last) const;

    const Recording& _recording;
    const RecordingSurvey& _survey;
    QTimeZone _zone;
};

/// Done, or Integrity with all that is wrong.
Outcome damageOutcome(const Recording& recording, const RecordingSurvey& survey);
/// What a recording would have had to offer where nothing of it was taken.
Outcome nothingSelected(const Recording& recording, const RecordingSurvey& survey);
/// "1 d 02:03:04"
QString durationText(qint64 seconds);

}  // namespace storagectl

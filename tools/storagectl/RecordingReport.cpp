#include "tools/storagectl/RecordingReport.h"

#include "tools/storagectl/FileService.h"
#include "tools/storagectl/Output.h"

#include <QJsonArray>

namespace storagectl {

namespace {

constexpr qsizetype kListedSteps = 10;

QString counted(qint64 number, const QString& what) {
    return QString("%1 %2%3").arg(number).arg(what, number == 1 ? "" : "s");
}

QStringList fieldTexts(const RecordLayout& layout) {
    QStringList texts;
    for (const RecordField& field : layout.fields) {
        texts.append(
            QString("%1 (%2%3)")
                .arg(field.name, field.kindName(), field.isGuessed && field.isNumber() ? "?" : ""));
    }
    return texts;
}

QJsonArray stepObjects(const RecordingSurvey::Steps& steps, const QTimeZone& zone) {
    QJsonArray array;
    for (const RecordingSurvey::Step& step : steps.kept) {
        array.append(QJsonObject{{"from", isoTime(step.from, zone)},
                                 {"to", isoTime(step.to, zone)},
                                 {"seconds", qint64{step.to} - qint64{step.from}}});
    }
    return array;
}

QJsonObject typeObject(const RecordingSurvey::Type& type, int bytes, const QTimeZone& zone) {
    QJsonArray values;
    for (const RecordField& field : type.layout.fields) {
        values.append(QJsonObject{{"name", field.name},
                                  {"offset", field.offset},
                                  {"kind", field.kindName()},
                                  {"guessed", field.isGuessed}});
    }
    return {{"type", type.layout.type},
            {"record", type.layout.name},
            {"bytes", bytes},
            {"described", type.layout.isDescribed},
            {"records", type.times.records()},
            {"first", isoTime(type.times.first(), zone)},
            {"last", isoTime(type.times.last(), zone)},
            {"values", values}};
}

}  // namespace

QString durationText(qint64 seconds) {
    const qint64 days = seconds / 86'400;
    const QString time = QString("%1:%2:%3")
                             .arg(seconds / 3600 % 24, 2, 10, QChar('0'))
                             .arg(seconds / 60 % 60, 2, 10, QChar('0'))
                             .arg(seconds % 60, 2, 10, QChar('0'));
    return days > 0 ? QString("%1 d ").arg(days) + time : time;
}

QString RecordingReport::span(quint32 first, quint32 last) const {
    return isoTime(first, _zone) + " to " + isoTime(last, _zone);
}

QStringList RecordingReport::lines() const {
    QStringList lines{
        text(_recording.path()),
        QString("  source   %1").arg(_recording.source()),
        QString("  kind     %1")
            .arg(_recording.isThumbnail() ? "thumbnails: the first sample of each 15 minutes, "
                                            "neither mean nor extreme"
                                          : "recording"),
        QString("  created  %1").arg(isoTime(_recording.created(), _zone)),
        QString("  bytes    %1, of which the header has %2 (version %3, describes %4)")
            .arg(_recording.size())
            .arg(_recording.header().size())
            .arg(_recording.version())
            .arg(counted(_recording.statedTypes(), "record type")),
        QString("  records  %1, %2, %3")
            .arg(_survey.all().records())
            .arg(counted(_survey.timeRecords(), "time step"),
                 counted(_survey.emptyRecords(), "empty byte"))};
    if (_survey.all().records() > 0) {
        lines.append("  span     " + span(_survey.all().first(), _survey.all().last()) + ", " +
                     durationText(qint64{_survey.all().last()} - _survey.all().first()));
        lines += typeLines() + stepLines();
    }
    for (const QString& damage : _survey.damage()) {
        lines.append("  DAMAGED  " + damage);
    }
    return lines;
}

QStringList RecordingReport::typeLines() const {
    QStringList lines;
    for (const RecordingSurvey::Type& type : _survey.types()) {
        lines.append(QString("  type %1 %2, %3 of %4 bytes%5")
                         .arg(type.layout.type, -3)
                         .arg(type.layout.name, counted(type.times.records(), "record"))
                         .arg(_recording.recordBytes(type.layout.type))
                         .arg(type.layout.isDescribed ? "" : ", not described by the header"));
        lines.append("           " + span(type.times.first(), type.times.last()));
        if (!type.layout.fields.isEmpty()) {
            lines.append("           " + fieldTexts(type.layout).join(", "));
        }
    }
    return lines;
}

QStringList RecordingReport::stepLines() const {
    const RecordingSurvey::Steps& gaps = _survey.gaps();
    const RecordingSurvey::Steps& jumps = _survey.jumps();
    QStringList lines;
    lines.append(QString("  gaps     %1 above %2 s (the usual step is %3 s)")
                     .arg(gaps.count)
                     .arg(_survey.all().longestStep())
                     .arg(_survey.all().usualStep()));
    for (const RecordingSurvey::Step& gap : gaps.kept.mid(0, kListedSteps)) {
        lines.append("           " + span(gap.from, gap.to) + ", " +
                     durationText(qint64{gap.to} - gap.from));
    }
    lines.append(QString("  jumps    the clock was set back %1").arg(counted(jumps.count, "time")));
    for (const RecordingSurvey::Step& jump : jumps.kept.mid(0, kListedSteps)) {
        lines.append("           " + span(jump.from, jump.to) + ", " +
                     durationText(qint64{jump.from} - jump.to) + " back");
    }
    if (gaps.count > kListedSteps || jumps.count > kListedSteps) {
        lines.append(QString("           (the first %1 of each; --json has up to %2)")
                         .arg(kListedSteps)
                         .arg(RecordingSurvey::Steps::kMaximumKept));
    }
    return lines;
}

QJsonObject RecordingReport::object() const {
    QJsonArray types;
    for (const RecordingSurvey::Type& type : _survey.types()) {
        types.append(typeObject(type, _recording.recordBytes(type.layout.type), _zone));
    }
    QJsonObject object{{"command", "data info"},
                       {"file", text(_recording.path())},
                       {"source", _recording.source()},
                       {"thumbnails", _recording.isThumbnail()},
                       {"version", static_cast<qint64>(_recording.version())},
                       {"created", isoTime(_recording.created(), _zone)},
                       {"bytes", _recording.size()},
                       {"headerBytes", _recording.header().size()},
                       {"typesDescribed", static_cast<qint64>(_recording.statedTypes())},
                       {"records", _survey.all().records()},
                       {"timeSteps", _survey.timeRecords()},
                       {"emptyBytes", _survey.emptyRecords()},
                       {"usualStep", static_cast<qint64>(_survey.all().usualStep())},
                       {"types", types},
                       {"gapCount", _survey.gaps().count},
                       {"gaps", stepObjects(_survey.gaps(), _zone)},
                       {"jumpCount", _survey.jumps().count},
                       {"jumps", stepObjects(_survey.jumps(), _zone)},
                       {"damage", QJsonArray::fromStringList(_survey.damage())}};
    if (_survey.all().records() > 0) {
        object.insert("first", isoTime(_survey.all().first(), _zone));
        object.insert("last", isoTime(_survey.all().last(), _zone));
    }
    return object;
}

Outcome damageOutcome(const Recording& recording, const RecordingSurvey& survey) {
    return survey.damage().isEmpty()
               ? Outcome::done()
               : Outcome::failure(ExitCode::Integrity, text(recording.path()) + ": damaged: " +
                                                           survey.damage().join("; "));
}

Outcome nothingSelected(const Recording& recording, const RecordingSurvey& survey) {
    QStringList names;
    for (const RecordingSurvey::Type& type : survey.types()) {
        for (const RecordField& field : type.layout.fields) {
            names.append(type.layout.qualified(field));
        }
        if (type.layout.fields.isEmpty()) {
            names.append(type.layout.name);
        }
    }
    return Outcome::failure(
        ExitCode::NotFound,
        text(recording.path()) + ": has nothing of what is asked for; it has " + names.join(", "));
}

}  // namespace storagectl

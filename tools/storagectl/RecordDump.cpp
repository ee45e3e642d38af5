#include "tools/storagectl/RecordDump.h"

#include "tools/storagectl/Output.h"

#include <QJsonDocument>

#include <cmath>

namespace storagectl {

namespace {

bool has(const Recording::Record& record, const RecordField& field) {
    return field.offset + field.width <= record.length;
}

QString hexOf(const Recording::Record& record) {
    return QString::fromLatin1(QByteArray(record.bytes, record.length).toHex());
}

QJsonValue jsonOf(const Recording::Record& record, const RecordField& field) {
    if (!has(record, field)) {
        return {};
    }
    if (!field.isNumber() || !std::isfinite(field.number(record.bytes))) {
        return field.textOf(record.bytes);
    }
    // The shortest decimal of a real, and not that of the double it becomes.
    return field.textOf(record.bytes).toDouble();
}

}  // namespace

RecordDump::RecordDump(const RecordingSurvey& survey, const RecordSelection& selection,
                       const QTimeZone& zone)
    : _selection(selection), _zone(zone) {
    for (const RecordingSurvey::Type& type : survey.types()) {
        const RecordLayout& layout = type.layout;
        if (!selection.takesType(layout)) {
            continue;
        }
        Columns columns{&layout, {}, _columnCount};
        for (const RecordField& field : layout.fields) {
            if (selection.takesField(layout, field)) {
                columns.fields.append(&field);
            }
        }
        _columnCount += static_cast<int>(columns.fields.size());
        _wantsHex = _wantsHex || layout.wantsHex;
        _columns.insert(layout.type, columns);
    }
}

bool RecordDump::takes(const Recording::Record& record) const {
    return _columns.contains(record.type) && _selection.takesTime(record.time);
}

QString RecordDump::heading() const {
    QStringList names{"time", "seconds", "type", "record"};
    for (const Columns& columns : _columns) {
        for (const RecordField* field : columns.fields) {
            names.append(csvField(columns.layout->qualified(*field)));
        }
    }
    if (_wantsHex) {
        names.append("hex");
    }
    return names.join(',');
}

QString RecordDump::line(const Recording::Record& record) const {
    const Columns& columns = *_columns.constFind(record.type);
    QStringList cells{isoTime(record.time, _zone), QString::number(record.time),
                      QString::number(record.type), csvField(columns.layout->name)};
    const qsizetype fixed = cells.size();
    cells.resize(fixed + _columnCount + (_wantsHex ? 1 : 0));
    for (qsizetype i = 0; i < columns.fields.size(); ++i) {
        if (has(record, *columns.fields[i])) {
            cells[fixed + columns.first + i] = columns.fields[i]->textOf(record.bytes);
        }
    }
    if (columns.layout->wantsHex) {
        cells.last() = hexOf(record);
    }
    return cells.join(',');
}

QByteArray RecordDump::object(const Recording::Record& record) const {
    const Columns& columns = *_columns.constFind(record.type);
    QJsonObject values;
    for (const RecordField* field : columns.fields) {
        values.insert(field->name, jsonOf(record, *field));
    }
    QJsonObject object{{"time", isoTime(record.time, _zone)},
                       {"seconds", static_cast<qint64>(record.time)},
                       {"type", record.type},
                       {"record", columns.layout->name},
                       {"values", values}};
    if (columns.layout->wantsHex) {
        object.insert("hex", hexOf(record));
    }
    return QJsonDocument(object).toJson(QJsonDocument::Compact) + '\n';
}

QString csvField(const QString& text) {
    const bool isPlain =
        !text.contains(',') && !text.contains('"') && !text.contains('\n') && !text.contains('\r');
    return isPlain ? text : '"' + QString(text).replace('"', "\"\"") + '"';
}

}  // namespace storagectl

#pragma once

#include "tools/storagectl/RecordSelection.h"
#include "tools/storagectl/RecordingSurvey.h"

#include <QTimeZone>

namespace storagectl {

/// The records of a recording as CSV or as JSON, one a line. A column a value, and where bytes
/// are left that no name explains, the record's bytes in hex.
class RecordDump {
public:
    RecordDump(const RecordingSurvey& survey, const RecordSelection& selection,
               const QTimeZone& zone);

    /// Whether no type of the recording is taken.
    bool isEmpty() const { return _columns.isEmpty(); }
    bool takes(const Recording::Record& record) const;
    QString heading() const;
    /// REQUIRES: a record that it takes, as `object`. A value that a cut record has not is left
    /// out.
    QString line(const Recording::Record& record) const;
    /// With its line feed.
    QByteArray object(const Recording::Record& record) const;

private:
    /// Where a type's values stand among all.
    struct Columns {
        const RecordLayout* layout;
        QList<const RecordField*> fields;
        int first;
    };

    QMap<int, Columns> _columns;
    int _columnCount = 0;
    bool _wantsHex = false;
    RecordSelection _selection;
    QTimeZone _zone;
};

/// A field of a CSV line: quoted where it has to be.
QString csvField(const QString& text);

}  // namespace storagectl

#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

namespace storagectl {

/// One value of a record: where it stands and what its bytes mean. A header tells names and
/// widths, not meanings (its type codes are the writer's own), so the meaning comes from the
/// device's known records where name and width are at the same place there, else from the width:
/// 1 byte is unsigned, 2 are signed, 4 are a real if all the file's values look like one, else
/// signed. Every other width is bytes.
struct RecordField {
    enum class Kind { Unsigned, Signed, Real, RealOrSigned, Bytes };

    QString name;
    int offset = 0;  ///< from the type byte
    int width = 0;
    Kind kind = Kind::Bytes;
    bool isGuessed = false;  ///< nothing but its width speaks for its kind

    bool isNumber() const { return kind != Kind::Bytes; }
    /// REQUIRES: a number of a resolved kind, and a record that has it.
    double number(const char* record) const;
    /// As `decimalText`, or hex.
    QString textOf(const char* record) const;
    QString kindName() const;
};

/// The values of one type of record.
struct RecordLayout {
    int type = 0;
    QString name;  ///< "type 42" where nobody names it
    QList<RecordField> fields;
    bool isDescribed = false;
    /// Bytes of the record that no field covers, or fields that only their width explains: the
    /// bytes themselves are worth showing.
    bool wantsHex = false;

    /// "gauge.value"
    QString qualified(const RecordField& field) const { return name + '.' + field.name; }
};

/// The shortest decimal that gives the same number again, where it is one that a record can hold.
QString decimalText(double value);

/// What a header (whole, as the file has it) and the device's known records tell of a type whose
/// records are `recordBytes` long, type byte included.
RecordLayout layoutOf(const QByteArray& header, int type, int recordBytes);

/// Whether 4 bytes look like a real that a device recorded: zero, not-a-number as processors make
/// it, or of a size that values in the field have. Whole numbers below 800 million do not.
bool looksReal(const char* bytes);

}  // namespace storagectl

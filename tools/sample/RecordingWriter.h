#pragma once

#include <QByteArray>
#include <QList>

#include <initializer_list>

/// A recording (.gdf) as a recorder writes it, in memory. It shares nothing with the daemon's own
/// code for the format, on purpose: each of the two proves the other. The header comes first,
/// then records, each after a time step where the time has changed.
namespace sample {

/// How a value is stored; also its type code in the header.
enum class ValueKind : quint8 { Integer = 0, Real = 1 };

struct Field {
    QByteArray name;  ///< at most 15 characters
    ValueKind kind;
    int width;  ///< bytes: 4 for a Real, 1 to 4 for an Integer
};

struct RecordKind {
    quint8 type;
    QByteArray name;  ///< at most 30 characters
    QList<Field> fields;
};

class RecordingWriter {
public:
    /// `described` are the kinds that the header tells of; none leaves readers with the lengths
    /// that they know. `created` is in seconds since 1970. REQUIRES: source at most 63 bytes.
    RecordingWriter(const QByteArray& source, quint32 created, const QList<RecordKind>& described);

    /// The time of the records that follow: absolute the first time, then in the shortest step
    /// that holds the difference, and nothing where there is none.
    void setTime(quint32 time);

    /// REQUIRES: as many values as the kind has fields.
    void addRecord(const RecordKind& kind, std::initializer_list<double> values);

    /// Header and records so far.
    const QByteArray& bytes() const { return _bytes; }
    int headerSize() const { return _headerSize; }

private:
    void appendInteger(qint64 value, int width);

    QByteArray _bytes;
    int _headerSize;
    quint32 _time = 0;
    bool _hasTime = false;
};

}  // namespace sample

#pragma once

#include <QByteArray>
#include <QList>

/// The bytes of data files, put together by hand and apart from the code that writes them.
namespace DataFileBytes {

/// A described record type: its code and its record's length, the type byte included.
struct Described {
    quint8 code;
    quint8 length;
};

/// A header of version 2, made at 1,700,000,000, of the source "source".
QByteArray header(const QList<Described>& types = {});
QByteArray littleEndian(quint32 value);
/// Replaces one of the header's 32-bit fields: version 0, created 4, its own size 8, count 76.
void setField(QByteArray& file, int offset, quint32 value);

/// Codes that the device knows without a description, by their payload.
struct BuiltInRow {
    int payloadBytes;
    QList<int> codes;
};
/// Of a file whose version is not 0.
const QList<BuiltInRow>& builtInRows();
/// -1 where there is no row.
int builtInPayload(quint32 version, int code);

}  // namespace DataFileBytes

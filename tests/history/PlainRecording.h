#pragma once

#include <QByteArray>
#include <QList>

/// A data file taken to pieces, slowly and plainly, apart from the code that it is measured with.
namespace PlainRecording {

/// The 32-bit number at `offset`.
quint32 fieldAt(const QByteArray& bytes, int offset);
/// The same bits.
float floatAt(const QByteArray& bytes, int offset);
int byteAt(const QByteArray& bytes, int offset);

/// Whether a file with these bytes opens.
bool isReadable(const QByteArray& file);

/// Every record, 256 bytes long, with the time that it has.
struct Record {
    quint32 time;
    QByteArray bytes;
    int type() const { return byteAt(bytes, 0); }
};
/// Of a file that opens; times count from `start`. What is no time record only.
QList<Record> records(const QByteArray& file, quint32 start);

}  // namespace PlainRecording

#pragma once

#include <QByteArray>
#include <QList>

/// The record reader that the real one is measured against: slow and plain, one read for the type
/// byte and one for the payload, lengths looked up from the header's bytes for each record.
class PlainRecordReader {
public:
    /// Of a whole file whose header is sound.
    explicit PlainRecordReader(const QByteArray& file);

    /// The next record, its type byte first, as far as the file has it; empty at the end.
    QByteArray next();
    qint64 offset() const { return _offset; }
    void seek(qint64 offset) { _offset = offset; }
    /// The types without any length that were met, in order.
    const QList<int>& unknownTypes() const { return _unknown; }

    QList<QByteArray> rest();

private:
    QByteArray read(qint64 length);
    quint32 field(int offset) const;
    quint8 byteAt(qint64 offset) const { return static_cast<quint8>(_file.at(offset)); }
    int recordLength(int type) const;
    int payloadLength(int type);

    QByteArray _file;
    qint64 _offset;
    QList<int> _unknown;
};

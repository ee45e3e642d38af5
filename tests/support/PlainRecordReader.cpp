#include "tests/support/PlainRecordReader.h"

#include "tests/support/DataFileBytes.h"

#include <algorithm>

PlainRecordReader::PlainRecordReader(const QByteArray& file) : _file(file), _offset(field(8)) {}

QByteArray PlainRecordReader::next() {
    const QByteArray type = read(1);
    if (type.isEmpty()) {
        return {};
    }
    const int length = payloadLength(static_cast<quint8>(type.at(0)));
    if (length < 1) {
        return type;
    }
    const QByteArray payload = read(length);
    return payload.isEmpty() ? payload : type + payload;
}

QList<QByteArray> PlainRecordReader::rest() {
    QList<QByteArray> records;
    for (QByteArray record = next(); !record.isEmpty(); record = next()) {
        records += record;
    }
    return records;
}

QByteArray PlainRecordReader::read(qint64 length) {
    if (_offset >= _file.size()) {
        return {};
    }
    const QByteArray bytes = _file.mid(_offset, length);
    _offset += bytes.size();
    return bytes;
}

quint32 PlainRecordReader::field(int offset) const {
    quint32 value = 0;
    for (int i = 3; i >= 0; --i) {
        value = value * 256 + byteAt(offset + i);
    }
    return value;
}

int PlainRecordReader::recordLength(int type) const {
    if (type <= 3) {
        return type == 1 ? 5 : std::max(type, 1);
    }
    const qint64 described = std::min<qint64>(field(76), (field(8) - 80) / 1024);
    for (qint64 i = 0; i < described; ++i) {
        if (byteAt(80 + 1024 * i + 31) == type) {
            return byteAt(80 + 1024 * i + 32);
        }
    }
    return -1;
}

int PlainRecordReader::payloadLength(int type) {
    const int length = recordLength(type) - 1;
    if (length >= 0 && type != 100) {
        return length;
    }
    const int builtIn = DataFileBytes::builtInPayload(field(0), type);
    if (builtIn < 0) {
        _unknown += type;
    }
    return std::max(builtIn, 0);
}

#include "tests/history/PlainRecording.h"

#include "tests/support/PlainRecordReader.h"

#include <cstring>

namespace PlainRecording {

int byteAt(const QByteArray& bytes, int offset) {
    return static_cast<quint8>(bytes.at(offset));
}

quint32 fieldAt(const QByteArray& bytes, int offset) {
    quint32 value = 0;
    for (int i = 3; i >= 0; --i) {
        value = value * 256 + static_cast<quint32>(byteAt(bytes, offset + i));
    }
    return value;
}

float floatAt(const QByteArray& bytes, int offset) {
    const quint32 bits = fieldAt(bytes, offset);
    float value = 0;
    std::memcpy(&value, &bits, sizeof value);
    return value;
}

bool isReadable(const QByteArray& file) {
    if (file.size() < 80) {
        return false;
    }
    const quint32 headerSize = fieldAt(file, 8);
    return headerSize >= 80 && headerSize <= 8192 && headerSize <= file.size();
}

QList<Record> records(const QByteArray& file, quint32 start) {
    QList<Record> result;
    PlainRecordReader reader(file);
    quint32 time = start;
    for (const QByteArray& read : reader.rest()) {
        const QByteArray record = read.leftJustified(256, '\0');
        switch (byteAt(record, 0)) {
            case 1:
                time = fieldAt(record, 1);
                break;
            case 2:
                time += static_cast<quint32>(byteAt(record, 1));
                break;
            case 3: {
                const int step = byteAt(record, 1) + 256 * byteAt(record, 2);
                time += static_cast<quint32>(step < 32768 ? step : step - 65536);
                break;
            }
            default:
                result.append({time, record});
        }
    }
    return result;
}

}  // namespace PlainRecording

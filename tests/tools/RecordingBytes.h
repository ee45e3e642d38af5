#pragma once

#include <QByteArray>
#include <QList>
#include <QtEndian>

/// Recordings for tests, put together by hand.
namespace RecordingBytes {

inline QByteArray number(quint32 value) {
    QByteArray bytes(4, '\0');
    qToLittleEndian(value, bytes.data());
    return bytes;
}

struct Value {
    QByteArray name;
    int width;
};

/// One record type in 1024 bytes.
inline QByteArray descriptor(const QByteArray& name, int type, const QList<Value>& values) {
    QByteArray bytes(1024, '\0');
    bytes.replace(0, name.size(), name);
    int length = 1;
    for (qsizetype i = 0; i < values.size(); ++i) {
        bytes.replace(34 + 16 * i, values[i].name.size(), values[i].name);
        bytes[969 + i] = static_cast<char>(values[i].width);
        length += values[i].width;
    }
    bytes[31] = static_cast<char>(type);
    bytes[32] = static_cast<char>(length);
    bytes[33] = static_cast<char>(values.size());
    return bytes;
}

/// A header of version 2 with these record types.
inline QByteArray header(const QByteArray& source, quint32 created,
                         const QList<QByteArray>& descriptors = {}) {
    const auto types = static_cast<quint32>(descriptors.size());
    QByteArray bytes = number(2) + number(created) + number(80 + 1024 * types) +
                       source.leftJustified(64, '\0') + number(types);
    for (const QByteArray& one : descriptors) {
        bytes += one;
    }
    return bytes;
}

inline QByteArray at(quint32 time) {
    return '\1' + number(time);
}

/// A gauge's record: value, 20.5 degrees, status 3.
inline QByteArray gauge(float value) {
    quint32 bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    return '\5' + number(bits) +
           QByteArray::fromHex(
               "0000A441"
               "03");
}

/// 2024-05-01T00:00:00 UTC.
inline constexpr quint32 kMayDay = 1'714'521'600;

}  // namespace RecordingBytes

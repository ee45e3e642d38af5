#include "history/DataEvent.h"

#include <QByteArray>
#include <QLatin1String>
#include <QtEndian>

#include <algorithm>
#include <array>
#include <limits>

namespace {

constexpr int kHeadBytes = 16;
constexpr qint64 kPieceBytes = 64 * 1024;

using Head = std::array<char, kHeadBytes>;

struct TypeName {
    int type;
    const char* name;
};

constexpr TypeName kTypeNames[] = {
    {0, "Message"},        {1, "SyncFound"},
    {2, "FrameStart"},     {3, "BitWindow"},
    {16, "Bit0"},          {17, "Bit1"},
    {200, "ErrorFrame"},   {201, "ErrorCRC"},
    {202, "ErrorQuality"}, {203, "ErrorCalibration"},
};

void shiftPosition(int& position, int delta) {
    if (position >= 0) {
        position = static_cast<int>(
            std::min<qint64>(qint64{position} + delta, std::numeric_limits<int>::max()));
    }
}

/// In pieces: what is allocated follows what the device has, not the length that it claims.
QString readText(QIODevice& device, qint64 length) {
    QString text;
    while (text.size() < length) {
        const QByteArray piece = device.read(std::min(length - text.size(), kPieceBytes));
        if (piece.isEmpty()) {
            break;
        }
        text += QLatin1String(piece);
    }
    return text;
}

}  // namespace

void DataEvent::construct(int type, int start, int end, const QString& text) {
    _type = type;
    _start = start;
    _end = end;
    _text = text;
}

void DataEvent::shift(int delta) {
    shiftPosition(_start, delta);
    shiftPosition(_end, delta);
}

bool DataEvent::serialize(QIODevice* device) const {
    const QByteArray text = _text.toLatin1();
    const auto textBytes = static_cast<qint32>(text.size());
    if (!device || textBytes != text.size()) {
        return false;
    }
    Head head;
    qToLittleEndian<qint32>(_type, head.data());
    qToLittleEndian<qint32>(_start, head.data() + 4);
    qToLittleEndian<qint32>(_end, head.data() + 8);
    qToLittleEndian<qint32>(textBytes, head.data() + 12);
    if (device->write(head.data(), kHeadBytes) != kHeadBytes) {
        return false;
    }
    return text.isEmpty() || device->write(text) == textBytes;
}

bool DataEvent::unSerialize(QIODevice* device) {
    Head head;
    if (!device || device->read(head.data(), kHeadBytes) != kHeadBytes) {
        return false;
    }
    const auto textBytes = qFromLittleEndian<qint32>(head.data() + 12);
    if (textBytes < 0) {
        return false;
    }
    _type = qFromLittleEndian<qint32>(head.data());
    _start = qFromLittleEndian<qint32>(head.data() + 4);
    _end = qFromLittleEndian<qint32>(head.data() + 8);
    _text = readText(*device, textBytes);
    return true;
}

QString DataEvent::typeString(int type) {
    const auto* known = std::find_if(std::begin(kTypeNames), std::end(kTypeNames),
                                     [type](const TypeName& entry) { return entry.type == type; });
    return known == std::end(kTypeNames) ? QString("?(%1)").arg(type) : QString(known->name);
}

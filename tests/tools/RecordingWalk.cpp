#include "tests/tools/RecordingWalk.h"

#include <QtEndian>

namespace {

/// Bytes after the type byte, of the types that the unit's recorders write.
const std::map<int, int> kPayloads = {{5, 9},   {90, 12},  {100, 11}, {20, 8},
                                      {103, 4}, {252, 15}, {254, 12}, {255, 17}};

const std::map<int, int> kTimeBytes = {{1, 4}, {2, 1}, {3, 2}};

bool isZero(const QByteArray& bytes, qsizetype from, qsizetype until) {
    return bytes.mid(from, until - from).count('\0') == until - from;
}

/// NUL-terminated, with nothing behind.
QString checkText(const QByteArray& field) {
    const qsizetype end = field.indexOf('\0');
    return end > 0 && isZero(field, end, field.size()) ? QString() : QStringLiteral("bad text");
}

QString checkDescriptor(const QByteArray& descriptor) {
    const int type = static_cast<quint8>(descriptor[31]);
    const int fields = descriptor[33];
    int length = 1;
    QString fault = checkText(descriptor.first(31));
    for (int i = 0; i < 55; ++i) {
        const QByteArray name = descriptor.mid(34 + 16 * i, 16);
        const int width = descriptor[969 + i];
        if (i >= fields) {
            const bool isUnused = isZero(name, 0, 16) && width == 0 && descriptor[914 + i] == 0;
            fault += isUnused ? QString() : QStringLiteral("an unused slot is not zero");
            continue;
        }
        fault += checkText(name);
        fault += width >= 1 && width <= 4 ? QString() : QStringLiteral("bad width");
        length += width;
    }
    if (length != descriptor[32] || !kPayloads.contains(type) || length != kPayloads.at(type) + 1) {
        fault += QStringLiteral("bad length or type");
    }
    return fault;
}

QString checkHeader(const QByteArray& bytes, RecordingWalk& walk) {
    if (bytes.size() < 80 || numberAt(bytes, 0) != 2) {
        return QStringLiteral("no header");
    }
    walk.created = numberAt(bytes, 4);
    walk.described = static_cast<int>(numberAt(bytes, 76));
    const quint32 size = numberAt(bytes, 8);
    if (walk.described > 7 || size != 80u + 1024u * numberAt(bytes, 76) || size > bytes.size()) {
        return QStringLiteral("bad header size");
    }
    QString fault = checkText(bytes.mid(12, 64));
    for (int i = 0; i < walk.described; ++i) {
        fault += checkDescriptor(bytes.mid(80 + 1024 * i, 1024));
    }
    return fault;
}

/// `most` and `least` are what shorter forms hold.
QString takeStep(RecordingWalk& walk, qint64& time, qint64 step, qint64 least, qint64 most) {
    time += step;
    walk.stepsBack += step < 0;
    const bool isShortest = step != 0 && (step < least || step > most);
    return isShortest ? QString() : QStringLiteral("a step that is not the shortest");
}

/// `time` is negative as long as none is known.
QString takeTime(RecordingWalk& walk, qint64& time, int type, const QByteArray& payload) {
    const bool isFirst = time < 0;
    if (type == 1) {
        const qint64 step = qint64{numberAt(payload, 0)} - time;
        ++walk.absoluteTimes;
        if (isFirst) {
            time = numberAt(payload, 0);
            return {};
        }
        return takeStep(walk, time, step, -32768, 32767);
    }
    if (isFirst) {
        return QStringLiteral("a step before any time");
    }
    if (type == 2) {
        return takeStep(walk, time, static_cast<qint8>(payload[0]), 0, 0);
    }
    return takeStep(walk, time, qFromLittleEndian<qint16>(payload.constData()), -128, 127);
}

/// One record, from its type byte on.
QString takeRecord(RecordingWalk& walk, qint64& time, const QByteArray& bytes, qsizetype& at) {
    const int type = static_cast<quint8>(bytes[at++]);
    const bool isTime = kTimeBytes.contains(type);
    if (!isTime && !kPayloads.contains(type)) {
        return QStringLiteral("unknown type %1").arg(type);
    }
    const int length = isTime ? kTimeBytes.at(type) : kPayloads.at(type);
    const QByteArray payload = bytes.mid(at, length);
    at += length;
    if (payload.size() < length) {
        return QStringLiteral("a record is cut off");
    }
    if (isTime) {
        return takeTime(walk, time, type, payload);
    }
    walk.times.push_back(time);
    ++walk.counts[type];
    return time < 0 ? QStringLiteral("a record before any time") : QString();
}

}  // namespace

quint32 numberAt(const QByteArray& bytes, qsizetype at) {
    return qFromLittleEndian<quint32>(bytes.constData() + at);
}

float realAt(const QByteArray& bytes, qsizetype at) {
    return qFromLittleEndian<float>(bytes.constData() + at);
}

RecordingWalk walkRecording(const QByteArray& bytes) {
    RecordingWalk walk;
    walk.fault = checkHeader(bytes, walk);
    qint64 time = -1;
    qsizetype at = walk.fault.isEmpty() ? numberAt(bytes, 8) : bytes.size();
    while (walk.fault.isEmpty() && at < bytes.size()) {
        walk.fault = takeRecord(walk, time, bytes, at);
    }
    return walk;
}

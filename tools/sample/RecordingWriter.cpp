#include "tools/sample/RecordingWriter.h"

#include <QtEndian>

#include <limits>

namespace sample {

namespace {

constexpr quint32 kVersion = 2;
constexpr int kFixedHeaderBytes = 80;
constexpr int kSourceOffset = 12;
constexpr int kRecordTypeCountOffset = 76;

constexpr int kDescriptorBytes = 1024;
constexpr int kTypeOffset = 31;
constexpr int kLengthOffset = 32;
constexpr int kFieldCountOffset = 33;
constexpr int kFieldNamesOffset = 34;
constexpr int kFieldNameBytes = 16;
constexpr int kFieldKindsOffset = 914;
constexpr int kFieldWidthsOffset = 969;

constexpr char kAbsoluteTime = 1;
constexpr char kShortStep = 2;
constexpr char kMediumStep = 3;

void place(QByteArray& bytes, qsizetype offset, const QByteArray& piece) {
    bytes.replace(offset, piece.size(), piece);
}

void placeNumber(QByteArray& bytes, qsizetype offset, quint32 number) {
    qToLittleEndian(number, bytes.data() + offset);
}

QByteArray descriptorOf(const RecordKind& kind) {
    QByteArray descriptor(kDescriptorBytes, '\0');
    place(descriptor, 0, kind.name);
    int length = 1;
    for (int i = 0; i < kind.fields.size(); ++i) {
        const Field& field = kind.fields[i];
        place(descriptor, kFieldNamesOffset + i * kFieldNameBytes, field.name);
        descriptor[kFieldKindsOffset + i] = static_cast<char>(field.kind);
        descriptor[kFieldWidthsOffset + i] = static_cast<char>(field.width);
        length += field.width;
    }
    descriptor[kTypeOffset] = static_cast<char>(kind.type);
    descriptor[kLengthOffset] = static_cast<char>(length);
    descriptor[kFieldCountOffset] = static_cast<char>(kind.fields.size());
    return descriptor;
}

template <typename Integer>
bool holds(qint64 value) {
    return value >= std::numeric_limits<Integer>::min() &&
           value <= std::numeric_limits<Integer>::max();
}

}  // namespace

RecordingWriter::RecordingWriter(const QByteArray& source, quint32 created,
                                 const QList<RecordKind>& described)
    : _bytes(kFixedHeaderBytes, '\0') {
    place(_bytes, kSourceOffset, source);
    for (const RecordKind& kind : described) {
        _bytes += descriptorOf(kind);
    }
    _headerSize = static_cast<int>(_bytes.size());
    placeNumber(_bytes, 0, kVersion);
    placeNumber(_bytes, 4, created);
    placeNumber(_bytes, 8, static_cast<quint32>(_headerSize));
    placeNumber(_bytes, kRecordTypeCountOffset, static_cast<quint32>(described.size()));
}

void RecordingWriter::setTime(quint32 time) {
    const qint64 step = qint64{time} - qint64{_time};
    if (!_hasTime || !holds<qint16>(step)) {
        _bytes += kAbsoluteTime;
        appendInteger(time, 4);
    } else if (!holds<qint8>(step)) {
        _bytes += kMediumStep;
        appendInteger(step, 2);
    } else if (step != 0) {
        // KEPT: a short step back has a sign here, and readers take its byte for a step ahead.
        _bytes += kShortStep;
        appendInteger(step, 1);
    }
    _time = time;
    _hasTime = true;
}

void RecordingWriter::addRecord(const RecordKind& kind, std::initializer_list<double> values) {
    _bytes += static_cast<char>(kind.type);
    const double* value = values.begin();
    for (const Field& field : kind.fields) {
        if (field.kind == ValueKind::Real) {
            char real[sizeof(float)];
            qToLittleEndian(static_cast<float>(*value), real);
            _bytes.append(real, sizeof real);
        } else {
            appendInteger(static_cast<qint64>(*value), field.width);
        }
        ++value;
    }
}

void RecordingWriter::appendInteger(qint64 value, int width) {
    char bytes[sizeof value];
    qToLittleEndian(value, bytes);
    _bytes.append(bytes, width);
}

}  // namespace sample

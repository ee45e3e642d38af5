#include "tests/support/RecordedSource.h"

#include "tests/support/DataFileBytes.h"

using namespace DataFileBytes;

RecordedSource::RecordedSource() : bytes(header()) {}

RecordedSource& RecordedSource::describe(int type, int length) {
    const auto count = static_cast<quint32>((bytes.size() - 80) / 1024 + 1);
    bytes += header({{static_cast<quint8>(type), static_cast<quint8>(length)}}).mid(80);
    setField(bytes, 8, 80 + 1024 * count);
    setField(bytes, 76, count);
    return *this;
}

RecordedSource& RecordedSource::at(quint32 time) {
    return record(1, littleEndian(time));
}

RecordedSource& RecordedSource::shortStep(int seconds) {
    return record(2, QByteArray(1, static_cast<char>(seconds)));
}

RecordedSource& RecordedSource::step(int seconds) {
    return record(3, littleEndian(static_cast<quint32>(seconds)).left(2));
}

RecordedSource& RecordedSource::record(int type, const QByteArray& payload) {
    bytes += static_cast<char>(type);
    bytes += payload;
    return *this;
}

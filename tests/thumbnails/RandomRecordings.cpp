#include "tests/thumbnails/RandomRecordings.h"

#include "tests/support/DataFileBytes.h"
#include "tests/support/RecordedSource.h"

#include <algorithm>

using namespace DataFileBytes;

int RandomRecordings::number(int least, int most) {
    return std::uniform_int_distribution<int>(least, most)(_random);
}

QByteArray RandomRecordings::day(quint32 dayStart, int fallbackType) {
    RecordedSource source;
    describe(source, fallbackType);
    setField(source.bytes, 0, static_cast<quint32>(number(0, 3)));
    setField(source.bytes, 4, dayStart + static_cast<quint32>(number(-100, 3000)));
    if (!oneIn(4)) {
        source.at(dayStart + static_cast<quint32>(number(0, 1000)));
    }
    const int count = number(0, 400);
    for (int i = 0; i < count; ++i) {
        oneIn(3) ? addTime(source, dayStart) : addData(source, fallbackType);
    }
    if (oneIn(5)) {
        source.bytes.chop(std::min<qsizetype>(number(1, 40), source.bytes.size() - 1));
    }
    return source.bytes;
}

QByteArray RandomRecordings::noise() {
    RecordedSource source;
    describe(source, 5);
    return source.bytes + bytes(number(0, 4000));
}

void RandomRecordings::describe(RecordedSource& source, int fallbackType) {
    static constexpr int kTypes[] = {4, 5, 9, 20, 40, 41, 90, 100, 100, 103, 200, 255};
    static constexpr int kLengths[] = {0, 1, 2, 10, 12, 19, 20, 60, 118, 119, 120, 255};
    _types.clear();
    _lengths.clear();
    const int count = oneIn(4) ? 0 : number(1, 7);
    for (int i = 0; i < count; ++i) {
        const int type = oneIn(20) ? number(0, 255) : kTypes[number(0, 11)];
        const int length = oneIn(3) ? kLengths[number(0, 11)] : number(2, 30);
        source.describe(type, length);
        _types += static_cast<char>(type);
        _lengths += static_cast<char>(length);
    }
    if (oneIn(8)) {
        setField(source.bytes, 76, static_cast<quint32>(number(0, 9)));
    }
    if (oneIn(30)) {
        setField(source.bytes, 8, static_cast<quint32>(number(0, 9000)));
    }
    if (_types.isEmpty()) {
        _types += static_cast<char>(fallbackType);
        _lengths += static_cast<char>(1 + std::max(builtInPayload(1, fallbackType), 0));
    }
}

void RandomRecordings::addTime(RecordedSource& source, quint32 dayStart) {
    switch (number(0, 9)) {
        case 0:
            source.step(number(-1000, 4000));
            return;
        case 1:
            source.step(oneIn(2) ? 899 : 900);
            return;
        case 2:
            source.at(dayStart + static_cast<quint32>(number(-2000, 88'000)));
            return;
        case 3:
            source.at(dayStart - static_cast<quint32>(number(5'183'000, 5'285'000)));
            return;
        case 4:
            source.at(static_cast<quint32>(number(0, 2)) * 0x7FFFFFFF);
            return;
        default:
            source.shortStep(number(0, 255));
    }
}

void RandomRecordings::addData(RecordedSource& source, int fallbackType) {
    if (oneIn(40)) {
        const int type = number(0, 255);
        source.record(type, bytes(number(0, 30)));
        return;
    }
    if (oneIn(20)) {
        source.record(fallbackType, bytes(std::max(builtInPayload(1, fallbackType), 0)));
        return;
    }
    const int which = number(0, static_cast<int>(_types.size()) - 1);
    const int type = static_cast<quint8>(_types.at(which));
    const int length = static_cast<quint8>(_lengths.at(which));
    const bool isBuiltIn = type == 100 || length == 0;
    source.record(type, bytes(isBuiltIn ? std::max(builtInPayload(1, type), 0) : length - 1));
}

QByteArray RandomRecordings::bytes(int count) {
    QByteArray result;
    for (int i = 0; i < count; ++i) {
        result += static_cast<char>(number(0, 255));
    }
    return result;
}

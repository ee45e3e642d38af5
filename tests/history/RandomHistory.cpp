#include "tests/history/RandomHistory.h"

#include "tests/support/DataFileBytes.h"
#include "tests/support/RecordedSource.h"

#include <algorithm>

using namespace DataFileBytes;

int RandomHistory::number(int least, int most) {
    return std::uniform_int_distribution<int>(least, most)(_random);
}

QByteArray RandomHistory::recording(quint32 start, const QList<int>& types) {
    static constexpr int kPaces[] = {1, 7, 20, 70, 255};
    if (oneIn(30)) {
        return bytes(number(0, 200));
    }
    RecordedSource source;
    describe(source, types);
    setField(source.bytes, 4, start + static_cast<quint32>(number(-2000, 500)));
    _pace = kPaces[number(0, 4)];
    if (!oneIn(6)) {
        source.at(start + static_cast<quint32>(number(-900, 300)));
    }
    if (oneIn(25)) {
        return source.bytes + bytes(number(0, 3000));
    }
    for (int i = number(0, 400); i > 0; --i) {
        oneIn(2) ? addTime(source, start) : addData(source, types);
    }
    if (oneIn(6)) {
        source.bytes.chop(std::min<qsizetype>(number(1, 40), source.bytes.size() - 1));
    }
    return source.bytes;
}

void RandomHistory::describe(RecordedSource& source, const QList<int>& types) {
    _lengths.clear();
    const int count = oneIn(2) ? 0 : number(1, 7);
    for (int i = 0; i < count; ++i) {
        const int type = oneIn(8) ? number(0, 255) : types[number(0, int(types.size()) - 1)];
        const int length = oneIn(3) ? number(0, 255) : number(1, 20);
        source.describe(type, length);
        if (!_lengths.contains(type)) {
            _lengths[type] = length;
        }
    }
    if (oneIn(8)) {
        setField(source.bytes, 76, static_cast<quint32>(number(0, 9)));
    }
    if (oneIn(8)) {
        setField(source.bytes, 0, static_cast<quint32>(number(0, 3)));
    }
    if (oneIn(40)) {
        setField(source.bytes, 8, static_cast<quint32>(number(0, 9000)));
    }
}

void RandomHistory::addTime(RecordedSource& source, quint32 start) {
    switch (number(0, 40)) {
        case 0:
            source.step(number(-1000, 4000));
            return;
        case 1:
            source.at(start + static_cast<quint32>(number(-4000, 4000)));
            return;
        case 2:
            source.at(start + static_cast<quint32>(oneIn(2) ? 1800 : 88'000));
            return;
        case 3:
            source.at(static_cast<quint32>(number(0, 2)) * 0x7FFFFFFF);
            return;
        case 4:
            source.step(number(-32768, 32767));
            return;
        default:
            source.shortStep(number(0, _pace));
    }
}

void RandomHistory::addData(RecordedSource& source, const QList<int>& types) {
    if (oneIn(60)) {
        source.record(number(0, 255), bytes(number(0, 30)));
        return;
    }
    const int type = types[number(0, int(types.size()) - 1)];
    const int described = _lengths.value(type, 0);
    const int builtIn = std::max(builtInPayload(2, type), 0);
    source.record(type, payload(described > 0 && type != 100 ? described - 1 : builtIn));
}

QByteArray RandomHistory::payload(int length) {
    if (oneIn(10)) {
        return bytes(length);
    }
    // Small numbers as floats: 0x3f.. and 0x40..
    QByteArray result;
    while (result.size() < length) {
        result += bytes(2) + '\x20' + static_cast<char>(number(0x3f, 0x41));
    }
    return result.left(length);
}

QByteArray RandomHistory::bytes(int count) {
    QByteArray result;
    for (int i = 0; i < count; ++i) {
        result += static_cast<char>(number(0, 255));
    }
    return result;
}

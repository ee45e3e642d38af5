#pragma once

#include <QByteArray>

#include <random>

/// Data files of a source as no unit writes them all: rich, strange and damaged ones, the same
/// for the same seed.
class RandomRecordings {
public:
    explicit RandomRecordings(unsigned seed) : _random(seed) {}

    /// From `least` to `most`.
    int number(int least, int most);
    bool oneIn(int count) { return number(1, count) == 1; }

    /// A source's file of a day: types, steps and gaps, steps back, midnight on the way. Some
    /// headers describe nothing, too much, or lie.
    QByteArray day(quint32 dayStart, int fallbackType);
    /// Bytes of no meaning after a header that is sound.
    QByteArray noise();

private:
    void describe(class RecordedSource& source, int fallbackType);
    void addTime(class RecordedSource& source, quint32 dayStart);
    void addData(class RecordedSource& source, int fallbackType);
    QByteArray bytes(int count);

    std::mt19937 _random;
    QByteArray _types;
    QByteArray _lengths;
};

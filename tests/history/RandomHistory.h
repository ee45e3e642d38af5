#pragma once

#include <QByteArray>
#include <QList>
#include <QMap>

#include <random>

/// Recordings as units write them and as none does: paces and gaps, jumps both ways, midnight on
/// the way, headers that describe nothing, too much, or lie, files cut short, and noise. The same
/// for the same seed.
class RandomHistory {
public:
    explicit RandomHistory(unsigned seed) : _random(seed) {}

    /// From `least` to `most`.
    int number(int least, int most);
    bool oneIn(int count) { return number(1, count) == 1; }

    /// A data file whose times begin around `start`, with records of these types above all.
    QByteArray recording(quint32 start, const QList<int>& types);

private:
    void describe(class RecordedSource& source, const QList<int>& types);
    void addTime(class RecordedSource& source, quint32 start);
    void addData(class RecordedSource& source, const QList<int>& types);
    QByteArray payload(int length);
    QByteArray bytes(int count);

    std::mt19937 _random;
    int _pace = 0;
    QMap<int, int> _lengths;
};

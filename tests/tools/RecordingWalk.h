#pragma once

#include <QByteArray>
#include <QString>

#include <map>
#include <vector>

/// A strict reader of recordings, written from the layout alone: it shares nothing with the sample
/// unit's writer or the daemon's reader. It refuses what a real one tolerates: unused bytes that
/// are not zero, records cut off or of unknown types, steps of time that a shorter form would hold.

/// What stands in a recording.
struct RecordingWalk {
    QString fault;  ///< empty: all is as it should be
    qint64 created = 0;
    int described = 0;
    std::map<int, int> counts;  ///< of data records, by type
    std::vector<qint64> times;  ///< of the data records, as their writer meant them
    int stepsBack = 0;
    int absoluteTimes = 0;
};

RecordingWalk walkRecording(const QByteArray& bytes);

/// Fields of a recording, little-endian.
quint32 numberAt(const QByteArray& bytes, qsizetype at);
float realAt(const QByteArray& bytes, qsizetype at);

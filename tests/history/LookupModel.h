#pragma once

#include "tests/history/Tree.h"

/// The lookup that the real one is measured against: slow and plain, over files in memory, every
/// step written out.
struct LookupModel {
    Tree tree;
    QString archiveFolder;
    int valueSelector;
    /// Midnight of the day, and the time of day in seconds.
    quint32 midnight;
    quint32 timeOfDay;

    /// The values of the gauge, as the bytes of its answer.
    QByteArray answer(int gaugeIndex, const QString& gauge);
    /// What is to be logged on the way, but for unknown record types.
    QList<QByteArray> log;

private:
    struct Row {
        quint64 current;
        QList<float> minutes;
        bool isFull() const { return minutes.size() > 29; }
        bool isDue(quint64 time) const { return time - current > 59; }
        void add(quint64 time, float value);
    };

    const QByteArray* fileOf(quint32 day, const QString& gauge) const;
    void read(const QByteArray& file, int gaugeIndex, Row& row);
};

/// "yyyy-MM-dd" of a time.
QString dateOf(quint32 time);

#pragma once

#include "tests/history/PlainRecording.h"
#include "tests/history/Tree.h"

#include <QMap>

/// The replay that the real one is measured against: slow and plain, over files in memory, every
/// step written out.
struct ReplayModel {
    Tree tree;
    QString firstDay;
    QMap<QString, int> channels;

    /// The bytes of every block, in order.
    QList<QByteArray> blocks() const;

private:
    struct Source {
        int channel;
        QList<PlainRecording::Record> records;
    };

    QStringList namesIn(const QString& folder) const;
    void prepare(const QString& path, int channel, QList<Source>& sources) const;
    QList<Source> sourcesOf(const QString& day) const;
};

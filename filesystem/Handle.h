#pragma once

#include <QFile>
#include <QFileInfo>
#include <QString>
#include <QVector>
#include <QtGlobal>

/// What a remote client holds open under a number: a file, or the snapshot of a directory. Owned
/// by the handle table of Filesystem, which deletes either kind through this base.
struct Handle {
    virtual ~Handle() = default;

    /// The path as the client gave it.
    QString filename;
    /// The number, which is the key in the table.
    int handle = 0;
    /// Wall-clock second from which on the handle is closed by expiry.
    qint64 expires = 0;
};

struct FileHandle : Handle {
    QFile file;
};

struct DirHandle : Handle {
    /// Complete when the directory is opened: later changes on disk do not show.
    QVector<QFileInfo> entries;
};

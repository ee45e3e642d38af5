#pragma once

#include "tools/storagectl/Outcome.h"
#include "tools/storagectl/PieceDigests.h"

#include <QByteArray>

#include <ctime>

namespace storagectl {

/// A local regular file to be sent, read by offset. Its size is what it was when it was opened.
class LocalSource {
public:
    LocalSource() = default;
    ~LocalSource();
    LocalSource(const LocalSource&) = delete;
    LocalSource& operator=(const LocalSource&) = delete;

    /// LocalFile where it cannot be read or is no regular file, Unsafe where it is too large.
    Outcome open(const QByteArray& path);
    qint64 size() const { return _size; }
    const QByteArray& path() const { return _path; }

    /// Exactly `length` bytes, or LocalFile.
    Outcome read(qint64 offset, qint64 length, QByteArray& bytes);
    /// The digests of the first `length` bytes.
    Outcome digest(qint64 length, PieceDigests& digests);
    /// Whether size or modification time changed since it was opened.
    bool hasChanged() const;

private:
    QByteArray _path;
    int _descriptor = -1;
    qint64 _size = 0;
    timespec _modified = {};
};

/// Opens a regular file for reading only; the descriptor is the caller's. LocalFile if it fails.
Outcome openLocalFile(const QByteArray& path, int& descriptor);

/// "<path>: <what>: <the system's reason>", as a LocalFile failure.
Outcome localFailure(const QByteArray& path, const QString& what);

}  // namespace storagectl

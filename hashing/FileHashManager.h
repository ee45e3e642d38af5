#pragma once

#include "bus/DebugText.h"

#include <QByteArray>
#include <QFile>
#include <QObject>
#include <QString>

/// The one place where digests of files and of memory are computed. All digests are MD5. The
/// operations are static and need no instance; none of them logs.
class FileHashManager : public QObject {
    Q_OBJECT

public:
    explicit FileHashManager(QObject* parent);

    /// True if the cleaned path lies under an allowed root.
    static bool validateFilename(const QString& filename);

    /// Base64 text (24 characters) of the digest of `length` bytes from `offset` on; a negative
    /// length means the file's size. A null string where the file cannot be read, the offset is
    /// negative, or the range does not lie in the file.
    static QString calculateFileHash(const QString& filename, int offset, int length);

    /// The raw 16 bytes for a range of an open file, whose position is then after the last byte
    /// read. Empty on failure. A length of 0 or less hashes no data.
    static QByteArray calculateFileHash(QFile& file, int offset, int length);

    /// The first four bytes of the digest of a memory block, little-endian.
    static int calculate32BitMemoryHash(const char* data, int length);

private:
    DebugTextTarget _debug;
};

#pragma once

#include "bus/DebugText.h"

#include <QByteArray>
#include <QFile>
#include <QObject>
#include <QString>

/// The one place where digests of files and of memory are computed, and where listings of directory
/// trees are made. All digests are MD5. The operations are static and need no instance; none of
/// those on digests logs.
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

    /// Makes a listing of `root` for the client's folder in a child, which answers `connection`
    /// (ListingReply.h) and ends; no answer where the child cannot be forked. Notifies the unit's
    /// users, unless the root starts with "/root".
    static void forkGenerateFileListing(int connection, const QString& folder, const QString& root);

    /// Makes the listing and returns its path, also where storage is full and the last listing
    /// stays. A null string where there is no such root or the folder cannot be written. Waits
    /// while another process makes the same listing. Logs every end.
    static QString generateFileListing(const QString& folder, const QString& root, int notifierPid,
                                       int notificationId);

    /// Writes the lines of a directory tree to `out`, which is open. Sends updates of the
    /// notification, unless its number is negative.
    static void generateFileListingHelper(QFile& out, const QString& directory, int notifierPid,
                                          int notificationId);

    /// Removes every listing in `directory` other than ".files..mmc.<folder>".
    static void removeUserFileListings(const QString& folder, const QString& directory);

private:
    DebugTextTarget _debug;
};

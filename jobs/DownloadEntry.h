#pragma once

#include <QString>

/// One line of a download request: "path", or "path|hash|offset" from a client that holds the
/// file's first `offset` bytes and proves it by their hash.
struct DownloadEntry {
    QString path;
    /// Base64 of an MD5 digest; empty where nothing is to be resumed.
    QString prefixHash;
    int offset = 0;

    /// A part that is missing or bad counts as an empty hash and offset 0, and so does one part
    /// too many.
    static DownloadEntry parsed(const QString& line);

    /// True for a prefix that a file of this size can have.
    bool claimsPrefixOf(int fileSize) const {
        return !prefixHash.isEmpty() && offset > 0 && offset <= fileSize;
    }
};

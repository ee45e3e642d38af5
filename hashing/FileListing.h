#pragma once

#include "hashing/DirectoryEntries.h"

#include <QByteArray>
#include <QIODevice>

#include <functional>
#include <string>
#include <vector>

/// Writes the lines of a directory tree, "size,modified,path" in Latin-1, one a regular file,
/// depth first: a directory's files, then its directories with all that is below them. A directory
/// that the walk is already in is not entered again. One directory's entries a level are in memory
/// at a time.
class FileListing {
public:
    /// Called with 0 when a directory's entries are known, then before each with its number.
    using Progress = std::function<void(int total, int done)>;

    /// `out` is open for writing and stays the caller's. Its error() tells whether all was written.
    explicit FileListing(QIODevice& out) : _out(out) {}

    /// `directory` is absolute, in UTF-8, and ends with "/". Only its own entries are reported.
    void addTree(const std::string& directory, const Progress& progress = {});
    /// Writes what is still in memory; to be called once at the end.
    void flush();

private:
    bool isOnTheWayDown(const DirectoryEntries::Identity& directory) const;
    void addLine(const DirectoryEntries::Entry& file, const QByteArray& directory,
                 const char* name);

    QIODevice& _out;
    QByteArray _lines;
    bool _hasFailed = false;
    std::vector<DirectoryEntries::Identity> _wayDown;
};

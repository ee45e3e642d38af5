#pragma once

#include <QtGlobal>

#include <dirent.h>

#include <memory>
#include <string>
#include <vector>

/// What a listing counts of one directory, in its order: the files, then the directories, each by
/// name as the UTF-16 units of the text compare, upper before lower case. A link counts as what it
/// leads to. Left out are hidden names, links to nothing, names that are no UTF-8 (no client could
/// name them), and what cannot be looked at. Of FIFOs, devices and sockets only a link to one
/// counts, as an entry that is neither file nor directory.
class DirectoryEntries {
public:
    struct Entry {
        std::size_t nameOffset = 0;
        qint64 size = 0;      ///< of a file, in bytes
        qint64 modified = 0;  ///< of a file, seconds since 1970
        bool isFile = false;
        bool isDirectory = false;
    };

    struct Identity {
        dev_t device = 0;
        ino_t inode = 0;
        bool operator==(const Identity&) const = default;
    };

    /// Opens the directory; one that cannot be opened has no entries.
    explicit DirectoryEntries(const char* path);

    /// The same for every path that leads to the directory.
    Identity identity() const;

    /// Reads and sorts the entries, and closes the directory.
    void read();
    const std::vector<Entry>& entries() const { return _entries; }
    /// UTF-8, owned by this object.
    const char* name(const Entry& entry) const { return _names.data() + entry.nameOffset; }

private:
    struct Closer {
        void operator()(DIR* directory) const { closedir(directory); }
    };

    void add(const dirent& found);
    bool look(const dirent& found, Entry& entry) const;

    std::unique_ptr<DIR, Closer> _directory;
    std::vector<Entry> _entries;
    /// All names, each with its NUL: a directory may have millions.
    std::string _names;
};

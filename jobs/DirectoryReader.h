#pragma once

#include <QString>

#include <dirent.h>

#include <memory>

/// The entries of one directory in the file system's order: directories and regular files, hidden
/// ones too, a link as what it leads to; without "." and "..", and without what is neither. They
/// are read as they are asked for, so that neither memory nor the time of one step grows with the
/// directory.
class DirectoryReader {
public:
    struct Entry {
        bool isDirectory = false;
        int size = 0;          ///< bytes; 32 bits of it
        quint32 modified = 0;  ///< seconds since 1970
        QString name;
    };

    enum class Step {
        Found,    ///< `entry` is the next one
        Skipped,  ///< a name that does not count; ask again
        AtEnd,
        Failed,
    };

    /// Leaves the directory that was open. False where this one cannot be read.
    bool open(const QString& path);
    void close();
    bool isOpen() const { return _directory != nullptr; }

    /// Looks for the next entry, at one name at the most. One that was found stays the next one
    /// until it is taken. REQUIRES: isOpen().
    Step look();
    const Entry& entry() const { return _entry; }
    void take() { _hasEntry = false; }

private:
    struct Closer {
        void operator()(DIR* directory) const { closedir(directory); }
    };

    bool readEntry(const char* name);

    std::unique_ptr<DIR, Closer> _directory;
    Entry _entry;
    bool _hasEntry = false;
};

#pragma once

#include "tools/storagectl/Outcome.h"

#include <QByteArray>
#include <QMap>

namespace storagectl {

/// What lies below a local directory, without hidden names and with links unfollowed.
class LocalTree {
public:
    struct Entry {
        enum class Kind { File, Directory, Other };
        Kind kind = Kind::Other;
        qint64 size = 0;
        qint64 modified = 0;  ///< seconds since 1970

        bool operator==(const Entry&) const = default;
    };

    /// A directory that is not there has no entries. LocalFile where it is none, or something in
    /// it cannot be read.
    Outcome read(const QByteArray& directory);

    /// By the name below the directory.
    const QMap<QByteArray, Entry>& entries() const { return _entries; }
    /// Null where there is none.
    const Entry* find(const QByteArray& name) const;

    /// Removes a file, and the directories that held nothing else. Unsafe where it is not what it
    /// was when it was read, or something else stands in the place of a directory above it.
    Outcome remove(const QByteArray& name) const;

private:
    Outcome readBelow(const QByteArray& directory, const QByteArray& start);

    QByteArray _directory;
    QMap<QByteArray, Entry> _entries;
};

}  // namespace storagectl

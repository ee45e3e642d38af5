#pragma once

#include "tools/storagectl/Commands.h"

#include <QList>

namespace storagectl {

/// One entry of a tree of the unit.
struct RemoteEntry {
    QByteArray path;  ///< absolute, UTF-8
    bool isDirectory = false;
    qint64 size = 0;
    qint64 modified = -1;  ///< seconds since 1970, -1 where not known
};

/// Lists a tree with the daemon's download job, which lists one level at a time: all directories
/// of a level in one request. Hidden entries count. A directory that could not be listed is
/// told of by `output.error` and added to `failures`, and the walk goes on. Names that the job's
/// Latin-1 cannot carry are asked of the file service.
class RemoteTree {
public:
    explicit RemoteTree(Context& context) : _context(context) {}

    /// The entries below `root`, each directory before its contents; or the root itself alone if
    /// it is a file. An Outcome other than Done where the root cannot be listed or the
    /// conversation broke for good.
    Outcome list(const QByteArray& root, QList<RemoteEntry>& entries);

    /// The entries of one directory, likewise.
    Outcome listDirectory(const QByteArray& directory, QList<RemoteEntry>& entries);

    int failures() const { return _failures; }

private:
    Outcome walk(const QByteArray& root, QList<RemoteEntry>& entries, bool goesDown);

    Context& _context;
    int _failures = 0;
};

}  // namespace storagectl

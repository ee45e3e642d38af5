#include "tools/storagectl/RemoteTree.h"

#include "tools/storagectl/TreeWalk.h"

namespace storagectl {

Outcome RemoteTree::list(const QByteArray& root, QList<RemoteEntry>& entries) {
    return walk(root, entries, true);
}

Outcome RemoteTree::listDirectory(const QByteArray& directory, QList<RemoteEntry>& entries) {
    return walk(directory, entries, false);
}

Outcome RemoteTree::walk(const QByteArray& root, QList<RemoteEntry>& entries, bool goesDown) {
    TreeWalk walk(_context, entries);
    const Outcome outcome = walk.run(root, goesDown);
    _failures += walk.failures();
    return outcome;
}

}  // namespace storagectl

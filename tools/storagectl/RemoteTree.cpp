#include "tools/storagectl/RemoteTree.h"

#include "tools/storagectl/TreeWalk.h"

namespace storagectl {

Outcome RemoteTree::list(const QByteArray& root, QList<RemoteEntry>& entries) {
    TreeWalk walk(_context, entries);
    const Outcome outcome = walk.run(root);
    _failures += walk.failures();
    return outcome;
}

}  // namespace storagectl

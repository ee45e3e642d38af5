#pragma once

#include "tools/storagectl/DownloadJob.h"
#include "tools/storagectl/RemoteTree.h"
#include "tools/storagectl/Retries.h"

#include <memory>
#include <vector>

namespace storagectl {

/// One call of `RemoteTree::list`: level by level, many directories in one request. A link that
/// leads back to a directory above it would have no end. Nothing on the wire tells links, so that a
/// directory that holds exactly what one above it holds is taken for such a link and left out.
class TreeWalk : private StreamEvents {
public:
    TreeWalk(Context& context, QList<RemoteEntry>& entries);

    /// Unless it `goesDown`, it ends with the entries of the root.
    Outcome run(const QByteArray& root, bool goesDown);
    int failures() const { return _failures; }

private:
    struct Directory {
        QByteArray path;
        std::shared_ptr<const Directory> parent;
        QList<RemoteEntry> entries;
        int hiddenNames = 0;  ///< entries whose names Latin-1 does not have
        QByteArray digest;
        Outcome outcome;
    };
    using Level = std::vector<std::shared_ptr<Directory>>;

    void began(Start start) override;
    void fileBytes(const char*, qint64) override {}
    void directoryEntry(const Entry& entry) override;
    void failed(const QByteArray& reason) override;

    Outcome listLevel(const Level& level, Level& next);
    std::size_t batchEnd(const Level& level, std::size_t from) const;
    Outcome stream();
    void keepAnswered(const Outcome& broken);
    Outcome addByFileService(Directory& directory, bool onlyHiddenNames);
    void addEntry(Directory& directory, RemoteEntry entry, const QByteArray& name);
    Outcome commit(const std::shared_ptr<Directory>& directory, Level& next);
    Outcome explainRoot(const Directory& root);
    void fail(const Outcome& outcome);
    static const Directory* loopOf(Directory& directory);

    Context& _context;
    QList<RemoteEntry>& _entries;
    Pacing _pacing;
    int _failures = 0;
    Retries _retries;
    Level _batch;
    std::size_t _answered = 0;  ///< of the batch; the last of them may get more entries
    bool _hasTooMany = false;
};

}  // namespace storagectl

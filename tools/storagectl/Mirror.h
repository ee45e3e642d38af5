#pragma once

#include "tools/storagectl/Fetch.h"
#include "tools/storagectl/TreeComparison.h"
#include "tools/storagectl/UnitAbsence.h"

#include <QHash>
#include <QSet>

namespace storagectl {

/// One run of mirror. Files are fetched whole or not at all (see Fetch), so that a local directory
/// holds old or new ones and partial files, wherever a run is cut. What stands in the way of a
/// file is left alone, and so is what the unit does not have, unless it is told to be removed:
/// then each such name is asked of the unit once more, and nothing is removed after any failure.
class Mirror {
public:
    explicit Mirror(Context& context);

    ExitCode run();

private:
    /// What is to be done, and what it may cost.
    struct Plan {
        QList<FetchItem> items;
        QHash<QByteArray, const TreeComparison::Row*> rows;  ///< by the remote path
        int added = 0;
        int grown = 0;
        int changed = 0;
        int same = 0;
        qint64 mostBytes = 0;   ///< where nothing that is here helps
        qint64 leastBytes = 0;  ///< where what is here is what is there, as far as it goes
    };

    Outcome readTrees();
    void plan(const TreeComparison& comparison);
    Outcome whyNot(const TreeComparison::Row& row, const QSet<QByteArray>& names) const;
    void refuse(const UnitFile& file, const Outcome& outcome);

    void showPlan(const TreeComparison& comparison);
    QString costText() const;
    void fetch();
    void prepareDirectories();
    void fetchEnded(const FetchItem& item, const Outcome& outcome);
    void treatOnlyHere(const QByteArrayList& names);
    bool mayRemove() const;
    Outcome removeLocal(const QByteArray& name);
    void summarize(const TreeComparison& comparison);

    void tell(const QString& sign, const QString& change, const QByteArray& name, qint64 size,
              qint64 sizeHere);
    QByteArray remotePath(const QByteArray& name) const;
    QByteArray localPath(const QByteArray& name) const;

    Context& _context;
    const MirrorOptions& _options;
    UnitTree _unit;
    LocalTree _local;
    UnitAbsence _absence;
    Fetch _fetch;
    Plan _plan;
    Tally _tally;
    Outcome _end;  ///< of what gave the rest up
    int _failed = 0;
    int _removed = 0;
};

}  // namespace storagectl

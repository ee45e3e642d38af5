#pragma once

#include "tools/storagectl/LocalTree.h"
#include "tools/storagectl/UnitTree.h"

#include <QByteArrayList>
#include <QList>

#include <vector>

namespace storagectl {

/// How the files of a directory of the unit and of a local one stand to each other, by size and
/// modification time. Pure: it looks at nothing but the two trees.
class TreeComparison {
public:
    enum class Relation {
        Missing,    ///< here
        Shorter,    ///< here: a file that may only have grown there
        Longer,     ///< here
        OtherTime,  ///< and the same size
        Same,
        Barred  ///< something else stands in the way here
    };

    struct Row {
        UnitFile file;
        Relation relation = Relation::Same;
        LocalTree::Entry here;  ///< unless it is Missing or Barred
        QByteArray barrier;     ///< Barred: the name of what stands in the way
    };

    TreeComparison(const QList<UnitFile>& unit, const LocalTree& local);

    /// One a file of the unit, in the order of the names.
    const std::vector<Row>& rows() const { return _rows; }
    /// Local names, directories left out, that the unit does not have; nor are they what an
    /// unfinished transfer of one of its files left.
    const QByteArrayList& onlyHere() const { return _onlyHere; }

private:
    static Row compare(const UnitFile& file, const LocalTree& local);

    std::vector<Row> _rows;
    QByteArrayList _onlyHere;
};

}  // namespace storagectl

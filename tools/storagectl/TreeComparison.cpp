#include "tools/storagectl/TreeComparison.h"

#include "tools/storagectl/PartialFile.h"

#include <QSet>

namespace storagectl {

namespace {

/// The first directory on the way to a name that is no directory here; empty if there is none.
QByteArray barrierBefore(const QByteArray& name, const LocalTree& local) {
    for (qsizetype slash = name.indexOf('/'); slash >= 0; slash = name.indexOf('/', slash + 1)) {
        const QByteArray directory = name.left(slash);
        const LocalTree::Entry* entry = local.find(directory);
        if (entry != nullptr && entry->kind != LocalTree::Entry::Kind::Directory) {
            return directory;
        }
    }
    return {};
}

TreeComparison::Relation relationOf(const UnitFile& file, const LocalTree::Entry& here) {
    using Relation = TreeComparison::Relation;
    if (here.size != file.size) {
        return here.size < file.size ? Relation::Shorter : Relation::Longer;
    }
    const bool isTimeKnown = file.modified >= 0;
    return isTimeKnown && here.modified == file.modified ? Relation::Same : Relation::OtherTime;
}

}  // namespace

TreeComparison::TreeComparison(const QList<UnitFile>& unit, const LocalTree& local) {
    QSet<QByteArray> names;
    _rows.reserve(static_cast<std::size_t>(unit.size()));
    for (const UnitFile& file : unit) {
        _rows.push_back(compare(file, local));
        names.insert(file.name);
    }
    for (auto entry = local.entries().cbegin(); entry != local.entries().cend(); ++entry) {
        const QByteArray& name = entry.key();
        const bool isPartial = name.endsWith(PartialFile::kEnding) &&
                               names.contains(name.chopped(sizeof PartialFile::kEnding - 1));
        if (entry->kind != LocalTree::Entry::Kind::Directory && !names.contains(name) &&
            !isPartial) {
            _onlyHere.append(name);
        }
    }
}

TreeComparison::Row TreeComparison::compare(const UnitFile& file, const LocalTree& local) {
    const QByteArray before = barrierBefore(file.name, local);
    if (!before.isEmpty()) {
        return {file, Relation::Barred, {}, before};
    }
    const LocalTree::Entry* here = local.find(file.name);
    if (here == nullptr) {
        return {file, Relation::Missing, {}, {}};
    }
    if (here->kind != LocalTree::Entry::Kind::File) {
        return {file, Relation::Barred, {}, file.name};
    }
    return {file, relationOf(file, *here), *here, {}};
}

}  // namespace storagectl

#pragma once

#include "tools/storagectl/ConfigUnit.h"

namespace storagectl {

/// A file of the unit's configuration beside the same of an archive.
struct ConfigDifference {
    enum class State { Same, OnlyUnit, OnlyArchive, Differs, Unknown };
    State state = State::Same;
    QByteArray name = {};     ///< relative to "/root/config"
    QString why = {};         ///< of Differs and Unknown
    bool isRestored = false;  ///< a restore makes it as in the archive
    qint64 archiveBytes = -1;
    QByteArray archiveDigest = {};
};

/// Compares what an archive holds with what the unit has now: the folder, and the "*.xml" files
/// beside it but "system.xml", in the order of their names. Files are compared by size, then by
/// MD5. The unit shows what a link leads to: one to a file of the archive counts as that file, any
/// other cannot be compared. Special files and folders are left out.
class ConfigComparison {
public:
    ConfigComparison(Context& context, const ConfigContents& contents, const QByteArray& folder)
        : _unit(context), _contents(contents), _folder(folder) {}

    Outcome run();
    const QList<ConfigDifference>& differences() const { return _differences; }
    int count(ConfigDifference::State state, bool isRestored) const;
    int count(ConfigDifference::State state) const {
        return count(state, true) + count(state, false);
    }
    bool isFolderThere() const;

private:
    void compareArchived();
    void addWhatOnlyTheUnitHas();
    bool isInFolder(const QByteArray& name) const;
    bool isCompared(const QByteArray& name) const;
    bool isBelowLink(const QByteArray& name) const;
    ConfigDifference compare(const TarMember& member, const RemoteEntry* entry) const;
    Outcome compareContents();

    ConfigUnit _unit;
    const ConfigContents& _contents;
    QByteArray _folder;
    QList<RemoteEntry> _entries;
    QList<ConfigDifference> _differences;
};

}  // namespace storagectl

#pragma once

#include "tools/storagectl/ConfigTar.h"

#include <QByteArray>
#include <QByteArrayList>
#include <QMap>
#include <QStringList>

namespace storagectl {

/// What a configuration archive holds, by name relative to "/root/config", and what a restore
/// makes of it: the one folder that it names, "modbus*xml" and "job.xml". What could do harm, or
/// is not what any backup makes, is a hazard; such an archive is shown but not restored.
class ConfigContents {
public:
    static constexpr int kMostMembers = 200'000;

    /// False where it holds too much to be a configuration.
    bool add(const TarMember& member);
    /// After the last member: looks for hazards that show in the whole only.
    void finish();

    /// Files, links, folders and special files; no hard links, which became files.
    const QMap<QByteArray, TarMember>& members() const { return _members; }
    /// A sentence each, of the first few.
    const QStringList& hazards() const { return _hazards; }

    /// Of the folders right below "/root/config", those without a member of their own too.
    QByteArrayList folders() const;
    bool hasFolder(const QByteArray& folder) const;
    /// Symbolic links in the folder that lead, or may lead, out of it.
    QByteArrayList linksLeadingOut(const QByteArray& folder) const;
    /// The file that a member is, or leads to if it is a link; null where it is none, or none of
    /// the archive's.
    const TarMember* fileOf(const TarMember& member) const;
    int fileCount() const;
    qint64 fileBytes() const;

    /// Whether a restore puts a file of this name, right below "/root/config", back beside the
    /// folder.
    static bool isRestoredFile(const QByteArray& name);
    /// Whether a restore of `folder` brings it back.
    static bool comesBack(const TarMember& member, const QByteArray& folder);
    static bool isIn(const QByteArray& name, const QByteArray& folder);

private:
    void addHazard(const QByteArray& name, const char* what);
    bool placeHardLink(TarMember& member);
    bool isBelowNoFolder(const QByteArray& name) const;

    QMap<QByteArray, TarMember> _members;
    QStringList _hazards;
};

}  // namespace storagectl

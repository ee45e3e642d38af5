#include "tools/storagectl/ConfigContents.h"

#include <QDir>

#include <algorithm>
#include <set>

namespace storagectl {

namespace {

constexpr char kPrefix[] = "root/config/configBackup";
constexpr qsizetype kMostHazards = 10;
constexpr qsizetype kLongestName = 255;
constexpr qsizetype kLongestPath = 4095;
constexpr int kMostLinksInARow = 8;
/// The daemon's limit; below it a restore would take the archive for damaged.
constexpr qsizetype kDeepestFolder = 99;

/// A member's place below "/root/config"; false where it has none.
bool placeOf(const QByteArray& name, QByteArray& place) {
    if (name == kPrefix) {
        place.clear();
        return true;
    }
    const QByteArray prefix = QByteArray(kPrefix) + '/';
    place = name.mid(prefix.size());
    return name.startsWith(prefix);
}

bool isPlain(const QByteArray& place) {
    const QByteArrayList components = place.split('/');
    return std::all_of(components.begin(), components.end(), [](const QByteArray& component) {
        return !component.isEmpty() && component != "." && component != ".." &&
               component.size() <= kLongestName;
    });
}

/// A ".." behind a name may start from where a further link leads, which the text cannot tell.
bool leadsOut(const QByteArray& place, const QByteArray& target) {
    qsizetype levelsUp = place.count('/') - 1;
    bool hasName = false;
    for (const QByteArray& component : target.split('/')) {
        if (component == "..") {
            --levelsUp;
        }
        hasName = hasName || (component != ".." && component != "." && !component.isEmpty());
        if (levelsUp < 0 || (component == ".." && hasName)) {
            return true;
        }
    }
    return target.startsWith('/');
}

}  // namespace

bool ConfigContents::add(const TarMember& found) {
    if (_members.size() >= kMostMembers) {
        return false;
    }
    TarMember member = found;
    if (found.name.size() > kLongestPath || found.target.size() > kLongestPath) {
        addHazard(found.name.left(kLongestName), "and so on is longer than any path");
        return true;
    }
    if (!placeOf(found.name, member.name)) {
        addHazard(found.name, "lies outside of what a backup packs");
        return true;
    }
    if (member.name.isEmpty()) {
        if (member.kind != TarMember::Kind::Folder) {
            addHazard(found.name, "is no folder");
        }
        return true;
    }
    if (!isPlain(member.name)) {
        addHazard(member.name, "is no plain name");
        return true;
    }
    if (_members.contains(member.name)) {
        addHazard(member.name, "is there twice");
        return true;
    }
    if (member.kind != TarMember::Kind::HardLink || placeHardLink(member)) {
        _members.insert(member.name, member);
    }
    return true;
}

bool ConfigContents::placeHardLink(TarMember& member) {
    QByteArray place;
    const auto source =
        placeOf(member.target, place) ? _members.constFind(place) : _members.constEnd();
    if (source == _members.constEnd() || source->kind != TarMember::Kind::File) {
        addHazard(member.name, "is another name of a file that is not in front of it");
        return false;
    }
    const QByteArray name = member.name;
    member = *source;
    member.name = name;
    return true;
}

void ConfigContents::finish() {
    for (const TarMember& member : std::as_const(_members)) {
        const bool isFolder = member.kind == TarMember::Kind::Folder;
        if (member.name.count('/') + (isFolder ? 1 : 0) > kDeepestFolder) {
            addHazard(member.name, "lies deeper than the unit restores");
        } else if (isBelowNoFolder(member.name)) {
            addHazard(member.name, "lies in something that is no folder");
        }
    }
}

/// Folders on the way need no members of their own.
bool ConfigContents::isBelowNoFolder(const QByteArray& name) const {
    for (qsizetype slash = name.indexOf('/'); slash > 0; slash = name.indexOf('/', slash + 1)) {
        const auto above = _members.constFind(name.left(slash));
        if (above != _members.constEnd() && above->kind != TarMember::Kind::Folder) {
            return true;
        }
    }
    return false;
}

QByteArrayList ConfigContents::folders() const {
    std::set<QByteArray> found;
    for (const TarMember& member : _members) {
        const qsizetype slash = member.name.indexOf('/');
        if (slash > 0 || member.kind == TarMember::Kind::Folder) {
            found.insert(slash > 0 ? member.name.left(slash) : member.name);
        }
    }
    return {found.begin(), found.end()};
}

bool ConfigContents::hasFolder(const QByteArray& folder) const {
    return folders().contains(folder);
}

QByteArrayList ConfigContents::linksLeadingOut(const QByteArray& folder) const {
    QByteArrayList result;
    for (const TarMember& member : _members) {
        if (member.kind == TarMember::Kind::Link && isIn(member.name, folder) &&
            leadsOut(member.name, member.target)) {
            result.append(member.name);
        }
    }
    return result;
}

const TarMember* ConfigContents::fileOf(const TarMember& member) const {
    const TarMember* found = &member;
    for (int i = 0; i < kMostLinksInARow && found->kind == TarMember::Kind::Link; ++i) {
        const QString folder = QString::fromUtf8("/" + found->name).section('/', 0, -2);
        const QString path = QDir::cleanPath(folder + '/' + QString::fromUtf8(found->target));
        const auto next = _members.constFind(path.mid(1).toUtf8());
        if (next == _members.constEnd() || found->target.startsWith('/')) {
            return nullptr;
        }
        found = &*next;
    }
    return found->kind == TarMember::Kind::File ? found : nullptr;
}

int ConfigContents::fileCount() const {
    return static_cast<int>(std::count_if(_members.begin(), _members.end(), [](const auto& member) {
        return member.kind == TarMember::Kind::File;
    }));
}

qint64 ConfigContents::fileBytes() const {
    qint64 bytes = 0;
    for (const TarMember& member : _members) {
        bytes += member.kind == TarMember::Kind::File ? member.size : 0;
    }
    return bytes;
}

bool ConfigContents::isRestoredFile(const QByteArray& name) {
    return name == "job.xml" ||
           (name.startsWith("modbus") && name.endsWith("xml") && !name.contains('/'));
}

bool ConfigContents::comesBack(const TarMember& member, const QByteArray& folder) {
    if (member.name == folder || isIn(member.name, folder)) {
        return member.kind != TarMember::Kind::Special;
    }
    return member.kind == TarMember::Kind::File && isRestoredFile(member.name);
}

bool ConfigContents::isIn(const QByteArray& name, const QByteArray& folder) {
    return name.startsWith(folder + '/');
}

void ConfigContents::addHazard(const QByteArray& name, const char* what) {
    if (_hazards.size() < kMostHazards) {
        _hazards.append(QString("%1 %2").arg(QString::fromUtf8(name), QLatin1String(what)));
    }
}

}  // namespace storagectl

#include "tools/storagectl/ConfigComparison.h"

#include <algorithm>

namespace storagectl {

namespace {

using State = ConfigDifference::State;

bool isSetting(const QByteArray& name) {
    const bool isSaved = name.endsWith(".xml") && !name.contains('/') && !name.startsWith('.') &&
                         name != "system.xml";
    return isSaved || ConfigContents::isRestoredFile(name);
}

}  // namespace

Outcome ConfigComparison::run() {
    const Outcome outcome = _unit.list(_folder, _entries);
    if (!outcome.isDone()) {
        return outcome;
    }
    compareArchived();
    addWhatOnlyTheUnitHas();
    std::sort(_differences.begin(), _differences.end(),
              [](const auto& left, const auto& right) { return left.name < right.name; });
    return compareContents();
}

void ConfigComparison::compareArchived() {
    QMap<QByteArray, const RemoteEntry*> present;
    for (const RemoteEntry& entry : std::as_const(_entries)) {
        present.insert(entry.path, &entry);
    }
    for (const TarMember& member : _contents.members()) {
        const bool isFileOrLink =
            member.kind == TarMember::Kind::File || member.kind == TarMember::Kind::Link;
        if (isFileOrLink && isCompared(member.name)) {
            _differences.append(compare(member, present.value(member.name)));
        }
    }
}

void ConfigComparison::addWhatOnlyTheUnitHas() {
    for (const RemoteEntry& entry : std::as_const(_entries)) {
        const auto member = _contents.members().constFind(entry.path);
        const bool isArchived =
            member != _contents.members().constEnd() && member->kind != TarMember::Kind::Folder;
        if (!entry.isDirectory && !isArchived && isCompared(entry.path) &&
            !isBelowLink(entry.path)) {
            _differences.append({.state = State::OnlyUnit,
                                 .name = entry.path,
                                 .isRestored = isInFolder(entry.path)});
        }
    }
}

int ConfigComparison::count(State state, bool isRestored) const {
    return static_cast<int>(
        std::count_if(_differences.begin(), _differences.end(), [&](const auto& difference) {
            return difference.state == state && difference.isRestored == isRestored;
        }));
}

bool ConfigComparison::isFolderThere() const {
    return std::any_of(_entries.begin(), _entries.end(), [this](const RemoteEntry& entry) {
        return entry.path == _folder && entry.isDirectory;
    });
}

/// A file in the folder's place counts too.
bool ConfigComparison::isInFolder(const QByteArray& name) const {
    return !_folder.isEmpty() && (name == _folder || ConfigContents::isIn(name, _folder));
}

bool ConfigComparison::isCompared(const QByteArray& name) const {
    return isSetting(name) || isInFolder(name);
}

/// What the unit shows there is somewhere else.
bool ConfigComparison::isBelowLink(const QByteArray& name) const {
    for (qsizetype end = name.indexOf('/'); end > 0; end = name.indexOf('/', end + 1)) {
        const auto above = _contents.members().constFind(name.left(end));
        if (above != _contents.members().constEnd() && above->kind == TarMember::Kind::Link) {
            return true;
        }
    }
    return false;
}

ConfigDifference ConfigComparison::compare(const TarMember& member,
                                           const RemoteEntry* entry) const {
    ConfigDifference result{.name = member.name,
                            .isRestored = ConfigContents::comesBack(member, _folder)};
    const TarMember* const file = _contents.fileOf(member);
    if (file == nullptr) {
        result.state = State::Unknown;
        result.why = "a link in the archive, to " + text(member.target);
        return result;
    }
    result.archiveBytes = file->size;
    result.archiveDigest = file->digest;
    if (entry == nullptr) {
        result.state = State::OnlyArchive;
    } else if (entry->isDirectory) {
        result.state = State::Differs;
        result.why = "a folder on the unit";
    } else if (entry->size != file->size) {
        result.state = State::Differs;
        result.why = QString("size: %1 there, %2 in the archive").arg(entry->size).arg(file->size);
    }
    return result;
}

Outcome ConfigComparison::compareContents() {
    QList<qsizetype> asked;
    QList<ConfigUnit::File> files;
    for (qsizetype i = 0; i < _differences.size(); ++i) {
        if (_differences[i].state == State::Same) {
            asked.append(i);
            files.append({ConfigUnit::pathOf(_differences[i].name), _differences[i].archiveBytes});
        }
    }
    const Outcome outcome = _unit.digest(files);
    for (qsizetype i = 0; i < files.size() && outcome.isDone(); ++i) {
        ConfigDifference& difference = _differences[asked[i]];
        if (files[i].digest.isEmpty()) {
            difference.state = State::Unknown;
            difference.why = "the daemon could not read it";
        } else if (files[i].digest != difference.archiveDigest) {
            difference.state = State::Differs;
            difference.why = "contents";
        }
    }
    return outcome;
}

}  // namespace storagectl

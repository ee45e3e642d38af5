#include "bus/PubSubInterface.h"
#include "core/shared/PutInPlace.h"
#include "core/shared/RegularFile.h"
#include "core/shared/StoragePaths.h"
#include "core/shared/Tokens.h"
#include "filesystem/ConfigArchive.h"
#include "filesystem/ConfigRescue.h"
#include "filesystem/Filesystem.h"
#include "filesystem/FolderTree.h"

#include <QFile>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>

namespace {

/// An archive being written; left by a sudden end, the next one replaces it.
constexpr char kPartialArchive[] = ".configBackup.part";
/// Travels in the archive, like that of any other folder.
constexpr mode_t kScratchMode = 0777;
/// Names in the scratch folder, beside "root" of the archive.
constexpr char kOldFolder[] = "old";

/// A name from outside that may be used in "/root/config": it leads nowhere else, and not to the
/// scratch folder.
bool isUsable(const QByteArray& name) {
    return !name.isEmpty() && !name.contains('/') && name != "." && name != ".." &&
           name != ConfigArchive::kScratchName;
}

QByteArray configPath(const QByteArray& name) {
    return QByteArray(StoragePaths::kConfigRoot) + '/' + name;
}

/// The configuration folder, and in it the scratch folder while this lives.
class Scratch {
public:
    Scratch() : _config(FolderTree::openFolder(AT_FDCWD, StoragePaths::kConfigRoot)) {
        if (FolderTree::remove(config(), ConfigArchive::kScratchName) &&
            ::mkdirat(config(), ConfigArchive::kScratchName, kScratchMode) == 0) {
            _scratch = FolderTree::openFolder(config(), ConfigArchive::kScratchName);
        }
    }
    ~Scratch() { FolderTree::remove(config(), ConfigArchive::kScratchName); }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;

    bool isOpen() const { return _scratch.isOpen(); }
    int config() const { return _config.number(); }
    int folder() const { return _scratch.number(); }

private:
    Descriptor _config;
    Descriptor _scratch;
};

bool isArchivedFile(const QByteArray& name) {
    return name.endsWith(".xml") && !name.startsWith('.') && name != "system.xml";
}

/// KEPT: much less comes back than is archived. The unit's other settings stay as they are now.
bool isRestoredFile(const QByteArray& name) {
    return (name.startsWith("modbus") && name.endsWith("xml")) || name == "job.xml";
}

bool isRegularFile(int parent, const QByteArray& name, int flags) {
    struct stat status;
    return ::fstatat(parent, name.constData(), &status, flags) == 0 && S_ISREG(status.st_mode);
}

/// The names to pack from where they are. A file whose name is a link to it is copied into the
/// scratch folder instead; false where that, or the look around, failed.
bool gather(const Scratch& scratch, const QByteArray& folder, QList<QByteArray>& found) {
    QList<QByteArray> names;
    if (!scratch.isOpen() || !FolderTree::listEntries(scratch.config(), names)) {
        return false;
    }
    for (const QByteArray& name : names) {
        const bool isFolder = isUsable(folder) && name == folder;
        const bool isSetting = !isFolder && isArchivedFile(name);
        if (isFolder || (isSetting && isRegularFile(scratch.config(), name, AT_SYMLINK_NOFOLLOW))) {
            found.append(name);
        } else if (isSetting && isRegularFile(scratch.config(), name, 0) &&
                   !FolderTree::copyFile(scratch.config(), name.constData(), scratch.folder(),
                                         name.constData(), true)) {
            return false;
        }
    }
    return true;
}

void writeArchive(int config, const QList<QByteArray>& names, const QByteArray& archive) {
    FolderTree::remove(config, kPartialArchive);
    const Descriptor output(
        ::openat(config, kPartialArchive, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    if (!output.isOpen()) {
        return;
    }
    if (!ConfigArchive::pack(names, output.number())) {
        ::unlinkat(config, kPartialArchive, 0);
        return;
    }
    putInPlace(output.number(), configPath(kPartialArchive), configPath(archive));
}

/// One restore, from an archive that is unpacked.
class Restore {
public:
    Restore(const Scratch& scratch, const QByteArray& folder)
        : _scratch(scratch), _folder(folder) {}

    void putBack() {
        const Descriptor unpacked = ConfigArchive::unpackedFolder(_scratch.folder());
        ::syncfs(unpacked.number());
        const bool hasNewFolder = swapFolder(unpacked.number());
        if (!hasNewFolder) {
            removeFolder();
        }
        putBackFiles(unpacked.number());
        ::fsync(_scratch.config());
        if (hasNewFolder) {
            ConfigRescue::clear();
        }
    }

    /// The folder goes, and is kept elsewhere, before it could be gone for good.
    void removeFolder() {
        if (isUsable(_folder)) {
            ConfigRescue::keep(_scratch.config(), _folder.constData(), _scratch.folder(),
                               kOldFolder);
        }
    }

private:
    /// False where the archive has none that can be used.
    bool swapFolder(int unpacked) {
        struct stat status;
        return isUsable(_folder) && FolderTree::findEntry(unpacked, _folder.constData(), status) &&
               (S_ISREG(status.st_mode) || !isRestoredFile(_folder)) &&
               swapIn(unpacked, _folder.constData());
    }

    /// In one step where the system can: the folder is there at every moment, old or new. The old
    /// one ends in the scratch folder.
    bool swapIn(int unpacked, const char* name) {
        const int config = _scratch.config();
        const int scratch = _scratch.folder();
        if (::renameat2(unpacked, name, config, name, RENAME_EXCHANGE) == 0) {
            return ::renameat(unpacked, name, scratch, kOldFolder) == 0;
        }
        if (errno == EINVAL || errno == ENOSYS) {
            ::renameat(config, name, scratch, kOldFolder);
        }
        if (::renameat(unpacked, name, config, name) == 0) {
            return true;
        }
        ::renameat(scratch, kOldFolder, config, name);
        return false;
    }

    void putBackFiles(int unpacked) {
        QList<QByteArray> names;
        FolderTree::listEntries(unpacked, names);
        for (const QByteArray& name : names) {
            if (isRestoredFile(name) && isRegularFile(unpacked, name, AT_SYMLINK_NOFOLLOW)) {
                ::renameat(unpacked, name.constData(), _scratch.config(), name.constData());
            }
        }
    }

    const Scratch& _scratch;
    QByteArray _folder;
};

/// An archive that is there is used up, unless nothing could be learnt about it.
void restore(const QByteArray& folder, const QByteArray& archive) {
    const Scratch scratch;
    if (!scratch.isOpen()) {
        return;
    }
    QFile input;
    RegularFile::open(input, QFile::decodeName(configPath(archive)), QIODevice::ReadOnly);
    Restore restored(scratch, folder);
    switch (ConfigArchive::unpack(input.handle(), scratch.folder())) {
        case ConfigArchive::Result::NotUnpacked:
            return;
        case ConfigArchive::Result::Damaged:
            restored.removeFolder();
            break;
        case ConfigArchive::Result::Whole:
            restored.putBack();
            break;
    }
    ::unlinkat(scratch.config(), archive.constData(), 0);
}

bool hasArchiveEnding(const QString& archive) {
    return archive.endsWith(QLatin1String(".configBackup"), Qt::CaseInsensitive);
}

}  // namespace

bool Filesystem::createConfigBackupFile(const QString& folder, const QString& archive) {
    if (!hasArchiveEnding(archive)) {
        return false;
    }
    const QByteArray name = QFile::encodeName(archive);
    const Scratch scratch;
    QList<QByteArray> names;
    if (isUsable(name) && gather(scratch, QFile::encodeName(folder), names)) {
        writeArchive(scratch.config(), names, name);
    }
    return true;
}

bool Filesystem::loadConfigBackupFile(const QString& folder, const QString& archive) {
    const QByteArray name = QFile::encodeName(archive);
    if (!hasArchiveEnding(archive) || !isUsable(name) ||
        !QFile::exists(QFile::decodeName(configPath(name)))) {
        return false;
    }
    restore(QFile::encodeName(folder), name);
    if (g_pubSubInterface != nullptr) {
        g_pubSubInterface->sendToken(Tokens::kRestartApplication, nullptr, 0);
    }
    return true;
}

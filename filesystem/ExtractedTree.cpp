#include "filesystem/ExtractedTree.h"

#include "filesystem/FileCopy.h"
#include "filesystem/FolderTree.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr mode_t kKeptModeBits = 01777;

bool dropSetIds(int parent, const char* name, const struct stat& status) {
    const bool hasSetIds = (status.st_mode & (S_ISUID | S_ISGID)) != 0;
    return !hasSetIds || ::fchmodat(parent, name, status.st_mode & kKeptModeBits, 0) == 0;
}

/// A new file under the old name: the other names may be where the archive must not reach.
bool makeOnlyName(int parent, const char* name) {
    const Descriptor source(::openat(parent, name, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!source.isOpen() || ::unlinkat(parent, name, 0) != 0) {
        return false;
    }
    const Descriptor target(
        ::openat(parent, name, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (!target.isOpen() || !copyContents(source.number(), target.number())) {
        return false;
    }
    copyAttributes(source.number(), target.number());
    return true;
}

class Check {
public:
    explicit Check(qint64 bytes) : _bytesLeft(bytes) {}

    bool folder(int folder, int levelsLeft) {
        QList<QByteArray> names;
        if (levelsLeft == 0 || !FolderTree::listEntries(folder, names)) {
            return false;
        }
        for (const QByteArray& name : names) {
            if (!entry(folder, name.constData(), levelsLeft)) {
                return false;
            }
        }
        return true;
    }

private:
    bool entry(int parent, const char* name, int levelsLeft) {
        struct stat status;
        if (!FolderTree::findEntry(parent, name, status)) {
            return false;
        }
        if (S_ISREG(status.st_mode)) {
            return file(parent, name, status);
        }
        if (S_ISDIR(status.st_mode)) {
            const Descriptor inner = FolderTree::openFolder(parent, name);
            return inner.isOpen() && folder(inner.number(), levelsLeft - 1) &&
                   dropSetIds(parent, name, status);
        }
        return S_ISLNK(status.st_mode) || FolderTree::remove(parent, name);
    }

    bool file(int parent, const char* name, const struct stat& status) {
        _bytesLeft -= status.st_size;
        return _bytesLeft >= 0 && (status.st_nlink == 1 || makeOnlyName(parent, name)) &&
               dropSetIds(parent, name, status);
    }

    qint64 _bytesLeft;
};

}  // namespace

namespace ExtractedTree {

bool makeHarmless(int folder, qint64 maximumBytes) {
    return Check(maximumBytes).folder(folder, FolderTree::kDeepestLevel);
}

}  // namespace ExtractedTree

#include "filesystem/FolderTree.h"

#include "filesystem/FileCopy.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

namespace {

bool isFolder(int parent, const char* name) {
    struct stat status;
    return FolderTree::findEntry(parent, name, status) && S_ISDIR(status.st_mode);
}

/// A file, or a folder that is empty.
bool removeSingle(int parent, const char* name) {
    return ::unlinkat(parent, name, 0) == 0 || ::unlinkat(parent, name, AT_REMOVEDIR) == 0 ||
           errno == ENOENT;
}

/// Its owner may have taken every right from himself.
void letOwnerIn(int parent, const char* name) {
    if (isFolder(parent, name)) {
        ::fchmodat(parent, name, S_IRWXU, 0);
    }
}

/// Gives the folder `name` a number as its name in `target`; counts the number on.
bool moveToNumber(int parent, const char* name, int target, unsigned& number) {
    for (;;) {
        std::array<char, 16> numberText;
        std::snprintf(numberText.data(), numberText.size(), "%u", number++);
        if (::renameat(parent, name, target, numberText.data()) == 0) {
            return true;
        }
        if (errno != ENOTEMPTY && errno != EEXIST && errno != ENOTDIR) {
            return false;
        }
    }
}

/// Removes what is in the folder `name` of `top`; what cannot be, because there is more in it,
/// moves up into `top`. True if that left less of it.
bool emptyIntoTop(int top, const char* name, unsigned& number) {
    letOwnerIn(top, name);
    const Descriptor folder = FolderTree::openFolder(top, name);
    QList<QByteArray> entries;
    if (!folder.isOpen() || !FolderTree::listEntries(folder.number(), entries)) {
        return false;
    }
    bool isLess = false;
    for (const QByteArray& entry : entries) {
        if (removeSingle(folder.number(), entry.constData())) {
            isLess = true;
            continue;
        }
        letOwnerIn(folder.number(), entry.constData());
        isLess |= isFolder(folder.number(), entry.constData()) &&
                  moveToNumber(folder.number(), entry.constData(), top, number);
    }
    return isLess;
}

bool copyLink(int fromParent, const char* from, int toParent, const char* to) {
    std::array<char, PATH_MAX> target;
    const ssize_t length = ::readlinkat(fromParent, from, target.data(), target.size() - 1);
    if (length < 0) {
        return false;
    }
    target[static_cast<std::size_t>(length)] = '\0';
    return ::symlinkat(target.data(), toParent, to) == 0;
}

bool copyEntry(int fromParent, const char* from, int toParent, const char* to, int levelsLeft);

bool copyFolder(int fromParent, const char* from, int toParent, const char* to, int levelsLeft) {
    const Descriptor source = FolderTree::openFolder(fromParent, from);
    if (!source.isOpen() || levelsLeft == 0 || ::mkdirat(toParent, to, S_IRWXU) != 0) {
        return false;
    }
    const Descriptor target = FolderTree::openFolder(toParent, to);
    QList<QByteArray> names;
    if (!target.isOpen() || !FolderTree::listEntries(source.number(), names)) {
        return false;
    }
    for (const QByteArray& name : names) {
        if (!copyEntry(source.number(), name.constData(), target.number(), name.constData(),
                       levelsLeft - 1)) {
            return false;
        }
    }
    copyAttributes(source.number(), target.number());
    return true;
}

bool copyEntry(int fromParent, const char* from, int toParent, const char* to, int levelsLeft) {
    struct stat status;
    if (!FolderTree::findEntry(fromParent, from, status)) {
        return errno == ENOENT;
    }
    if (S_ISREG(status.st_mode)) {
        return FolderTree::copyFile(fromParent, from, toParent, to, false);
    }
    if (S_ISDIR(status.st_mode)) {
        return copyFolder(fromParent, from, toParent, to, levelsLeft);
    }
    const bool isMade = S_ISLNK(status.st_mode)
                            ? copyLink(fromParent, from, toParent, to)
                            : ::mknodat(toParent, to, status.st_mode, status.st_rdev) == 0;
    const std::array<timespec, 2> times = {status.st_atim, status.st_mtim};
    [[maybe_unused]] const int isOwned =
        ::fchownat(toParent, to, status.st_uid, status.st_gid, AT_SYMLINK_NOFOLLOW);
    ::utimensat(toParent, to, times.data(), AT_SYMLINK_NOFOLLOW);
    return isMade;
}

}  // namespace

namespace FolderTree {

Descriptor openFolder(int parent, const char* name) {
    return Descriptor(::openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

bool findEntry(int parent, const char* name, struct stat& status) {
    return ::fstatat(parent, name, &status, AT_SYMLINK_NOFOLLOW) == 0;
}

bool listEntries(int folder, QList<QByteArray>& names) {
    // A descriptor of its own, which the stream closes and whose position is the start.
    const int descriptor = ::openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* const stream = descriptor < 0 ? nullptr : ::fdopendir(descriptor);
    if (stream == nullptr) {
        return false;
    }
    errno = 0;
    while (const dirent* const entry = ::readdir(stream)) {
        if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0) {
            names.append(entry->d_name);
        }
    }
    const bool isWhole = errno == 0;
    ::closedir(stream);
    return isWhole;
}

bool remove(int parent, const char* name) {
    if (removeSingle(parent, name)) {
        return true;
    }
    letOwnerIn(parent, name);
    const Descriptor top = openFolder(parent, name);
    unsigned number = 0;
    for (bool isLess = top.isOpen(); isLess;) {
        QList<QByteArray> names;
        isLess = false;
        listEntries(top.number(), names);
        for (const QByteArray& entry : names) {
            isLess |= removeSingle(top.number(), entry.constData()) ||
                      emptyIntoTop(top.number(), entry.constData(), number);
        }
    }
    return removeSingle(parent, name);
}

bool copy(int fromParent, const char* from, int toParent, const char* to) {
    return copyEntry(fromParent, from, toParent, to, kDeepestLevel);
}

bool copyFile(int fromParent, const char* from, int toParent, const char* to, bool isLinkFollowed) {
    const int linkFlag = isLinkFollowed ? 0 : O_NOFOLLOW;
    const Descriptor source(
        ::openat(fromParent, from, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | linkFlag));
    struct stat status;
    if (!source.isOpen() || ::fstat(source.number(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return !source.isOpen() && errno == ENOENT;
    }
    const Descriptor target(
        ::openat(toParent, to, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (!target.isOpen() || !copyContents(source.number(), target.number())) {
        return false;
    }
    copyAttributes(source.number(), target.number());
    return true;
}

}  // namespace FolderTree

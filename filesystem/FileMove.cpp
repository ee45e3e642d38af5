#include "filesystem/FileMove.h"

#include "core/shared/PutInPlace.h"
#include "core/shared/RegularFile.h"
#include "filesystem/FileCopy.h"

#include <QFile>
#include <QFileInfo>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace {

using StatusCall = int (*)(const char*, struct stat*);

bool isSame(StatusCall status, const QByteArray& first, const QByteArray& second) {
    struct stat one;
    struct stat other;
    return status(first.constData(), &one) == 0 && status(second.constData(), &other) == 0 &&
           one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

/// Through links too: one file with two names would be lost by replacing one with the other.
bool isOneFile(const QByteArray& first, const QByteArray& second) {
    return isSame(::lstat, first, second) || isSame(::stat, first, second);
}

/// A card that cannot be read for the moment has not lost the file.
bool saysMissing(int error) {
    return error == ENOENT || error == ENOTDIR || error == ENAMETOOLONG;
}

bool moveByCopy(const QByteArray& from, const QByteArray& to) {
    QFile source;
    if (!RegularFile::open(source, QFile::decodeName(from), QIODevice::ReadOnly)) {
        return false;
    }
    const QByteArray folder = QFile::encodeName(QFileInfo(QFile::decodeName(to)).path());
    QByteArray copy = folder + "/.moveXXXXXX";
    const int target = ::mkostemp(copy.data(), O_CLOEXEC);
    if (target < 0) {
        return false;
    }
    bool isWhole = copyContents(source.handle(), target);
    copyAttributes(source.handle(), target);
    // The folder is synced as well: the removal lands on another file system, and must not reach
    // its disk before the new name has reached this one.
    isWhole = isWhole && putInPlace(target, copy, to);
    ::close(target);
    if (!isWhole) {
        ::unlink(copy.constData());
        return false;
    }
    return ::unlink(from.constData()) == 0;
}

}  // namespace

bool moveInPlaceOf(const QByteArray& from, const QByteArray& to) {
    struct stat source;
    struct stat target;
    if (::lstat(from.constData(), &source) != 0) {
        if (saysMissing(errno)) {
            ::unlink(to.constData());
        }
        return false;
    }
    const bool isOverFolder = ::lstat(to.constData(), &target) == 0 && S_ISDIR(target.st_mode);
    if (isOverFolder || isOneFile(from, to)) {
        return false;
    }
    if (::rename(from.constData(), to.constData()) == 0) {
        return true;
    }
    // A directory cannot be renamed over a file.
    if (errno == ENOTDIR && S_ISDIR(source.st_mode)) {
        return ::unlink(to.constData()) == 0 && ::rename(from.constData(), to.constData()) == 0;
    }
    return errno == EXDEV && moveByCopy(from, to);
}

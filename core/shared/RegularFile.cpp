#include "core/shared/RegularFile.h"

#include <QByteArray>

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>
#include <cerrno>

namespace {

constexpr mode_t kCreationMode = 0666;

/// The access that is meant: Append and NewOnly imply writing, and writing alone truncates.
QIODevice::OpenMode impliedFlags(QIODevice::OpenMode flags) {
    if (flags & (QIODevice::Append | QIODevice::NewOnly)) {
        flags |= QIODevice::WriteOnly;
    }
    const auto keepsContents = QIODevice::ReadOnly | QIODevice::Append | QIODevice::NewOnly;
    if ((flags & QIODevice::WriteOnly) && !(flags & keepsContents)) {
        flags |= QIODevice::Truncate;
    }
    return flags;
}

bool isUsable(QIODevice::OpenMode flags) {
    return (flags & QIODevice::ReadWrite) &&
           !(flags.testFlag(QIODevice::NewOnly) && flags.testFlag(QIODevice::ExistingOnly));
}

int systemFlags(QIODevice::OpenMode flags) {
    int result = O_RDONLY;
    if (flags.testFlag(QIODevice::ReadWrite)) {
        result = O_RDWR;
    } else if (flags.testFlag(QIODevice::WriteOnly)) {
        result = O_WRONLY;
    }
    if (flags.testFlag(QIODevice::WriteOnly) && !flags.testFlag(QIODevice::ExistingOnly)) {
        result |= O_CREAT;
    }
    if (flags.testFlag(QIODevice::Truncate)) {
        result |= O_TRUNC;
    }
    if (flags.testFlag(QIODevice::Append)) {
        result |= O_APPEND;
    }
    if (flags.testFlag(QIODevice::NewOnly)) {
        result |= O_EXCL;
    }
    return result | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
}

/// Opening alone makes some devices act (a watchdog, a tape), so the name is looked at first;
/// it may have changed by the time of the open, so the descriptor is looked at again.
bool leadsToSomethingElse(const QByteArray& name) {
    struct stat status;
    return ::stat(name.constData(), &status) == 0 && !S_ISREG(status.st_mode);
}

bool isStoredFile(int descriptor) {
    struct stat status;
    struct statfs system;
    return ::fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode) &&
           ::fstatfs(descriptor, &system) == 0 && system.f_type != PROC_SUPER_MAGIC &&
           system.f_type != SYSFS_MAGIC;
}

}  // namespace

namespace RegularFile {

bool open(QFile& file, const QString& filename, QIODevice::OpenMode flags) {
    const QIODevice::OpenMode meant = impliedFlags(flags);
    const QByteArray name = QFile::encodeName(filename);
    if (!isUsable(meant) || leadsToSomethingElse(name)) {
        return false;
    }
    int descriptor = -1;
    do {
        descriptor = ::open(name.constData(), systemFlags(meant), kCreationMode);
    } while (descriptor < 0 && errno == EINTR);
    if (descriptor < 0) {
        return false;
    }
    if (!isStoredFile(descriptor) ||
        !file.open(descriptor, flags | QIODevice::Unbuffered, QFileDevice::AutoCloseHandle)) {
        ::close(descriptor);
        return false;
    }
    return true;
}

bool openNamed(QFile& file, QIODevice::OpenMode flags) {
    if (leadsToSomethingElse(QFile::encodeName(file.fileName())) ||
        !file.open(flags | QIODevice::Unbuffered)) {
        return false;
    }
    if (!isStoredFile(file.handle())) {
        file.close();
        return false;
    }
    return true;
}

}  // namespace RegularFile

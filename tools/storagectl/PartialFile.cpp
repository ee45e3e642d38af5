#include "tools/storagectl/PartialFile.h"

#include "tools/storagectl/LocalSource.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>

namespace storagectl {

namespace {

constexpr mode_t kNewFileMode = 0666;

void syncDirectory(const QByteArray& directory) {
    const int descriptor = ::open(directory.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor >= 0) {
        ::fsync(descriptor);
        ::close(descriptor);
    }
}

}  // namespace

PartialFile::PartialFile(const QByteArray& target) : _target(target), _path(target + ".part") {}

PartialFile::~PartialFile() {
    if (_descriptor >= 0) {
        ::close(_descriptor);
    }
}

Outcome PartialFile::open(PieceDigests& present) {
    const Outcome outcome = checkTarget();
    if (!outcome.isDone()) {
        return outcome;
    }
    _descriptor =
        ::open(_path.constData(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC,
               kNewFileMode);
    struct stat status = {};
    const bool isOpen = _descriptor >= 0 && ::fstat(_descriptor, &status) == 0;
    if ((!isOpen && errno == ELOOP) || (isOpen && !S_ISREG(status.st_mode))) {
        return Outcome::failure(ExitCode::Unsafe, text(_path) + ": not a regular file, left alone");
    }
    if (!isOpen) {
        return localFailure(_path, "cannot be created");
    }
    // The name is looked at again: another run may have put the file in place before the lock.
    struct stat named = {};
    if (::flock(_descriptor, LOCK_EX | LOCK_NB) != 0 || ::lstat(_path.constData(), &named) != 0 ||
        named.st_ino != status.st_ino) {
        return Outcome::failure(ExitCode::LocalFile, text(_path) + ": another transfer writes it");
    }
    QByteArray block(1024 * 1024, Qt::Uninitialized);
    present.clear();
    for (;;) {
        const ssize_t got = ::pread(_descriptor, block.data(),
                                    static_cast<std::size_t>(block.size()), present.length());
        if (got <= 0) {
            break;
        }
        present.add(block.constData(), got);
    }
    _length = present.length();
    return Outcome::done();
}

Outcome PartialFile::checkTarget() const {
    struct stat status = {};
    const bool exists = ::lstat(_target.constData(), &status) == 0;
    if (exists && !S_ISREG(status.st_mode)) {
        return Outcome::failure(ExitCode::Unsafe,
                                text(_target) + ": not a regular file, left alone");
    }
    return Outcome::done();
}

Outcome PartialFile::append(const QByteArray& bytes) {
    qsizetype written = 0;
    while (written < bytes.size()) {
        const ssize_t step =
            ::pwrite(_descriptor, bytes.constData() + written,
                     static_cast<std::size_t>(bytes.size() - written), _length + written);
        if (step < 0 && errno != EINTR) {
            return localFailure(_path, "cannot be written");
        }
        written += qMax<ssize_t>(0, step);
    }
    _length += written;
    return Outcome::done();
}

bool PartialFile::startOver() {
    _length = 0;
    return ::ftruncate(_descriptor, 0) == 0;
}

Outcome PartialFile::finish(qint64 modified) {
    if (modified >= 0) {
        const timespec times[2] = {{0, UTIME_OMIT}, {modified, 0}};
        if (::futimens(_descriptor, times) != 0) {
            return localFailure(_path, "its time cannot be set");
        }
    }
    if (::fsync(_descriptor) != 0) {
        return localFailure(_path, "cannot be flushed");
    }
    if (::rename(_path.constData(), _target.constData()) != 0) {
        return localFailure(_target, "cannot be put in place");
    }
    syncDirectory(directoryOf(_target));
    return Outcome::done();
}

void PartialFile::discardIfEmpty() {
    if (_descriptor >= 0 && _length == 0) {
        ::unlink(_path.constData());
    }
}

}  // namespace storagectl

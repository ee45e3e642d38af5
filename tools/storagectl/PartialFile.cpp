#include "tools/storagectl/PartialFile.h"

#include "tools/storagectl/LocalSource.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <utility>

namespace storagectl {

namespace {

constexpr mode_t kNewFileMode = 0666;
constexpr qint64 kReadBytes = 1024 * 1024;

}  // namespace

QString keptText(qint64 bytes, const QByteArray& partialPath) {
    return bytes == 0 ? QString()
                      : QString("; %1 bytes are kept in %2, the same command goes on from there")
                            .arg(bytes)
                            .arg(text(partialPath));
}

void syncDirectory(const QByteArray& directory) {
    const int descriptor = ::open(directory.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor >= 0) {
        ::fsync(descriptor);
        ::close(descriptor);
    }
}

PartialFile::PartialFile(const QByteArray& target) : _target(target), _path(target + kEnding) {}

PartialFile::~PartialFile() {
    close();
}

void PartialFile::close() {
    if (_descriptor >= 0) {
        ::close(std::exchange(_descriptor, -1));
    }
}

Outcome PartialFile::open(PieceDigests& present) {
    present.clear();
    return open([&present](const char* data, qint64 length) { present.add(data, length); });
}

Outcome PartialFile::open(const std::function<void(const char* data, qint64 length)>& present) {
    Outcome outcome = checkTarget();
    if (outcome.isDone()) {
        outcome = openLocked();
    }
    if (outcome.isDone()) {
        outcome = readPresent(present);
    }
    if (!outcome.isDone()) {
        close();
    }
    return outcome;
}

Outcome PartialFile::openLocked() {
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
    return Outcome::done();
}

/// To its end, wherever that is by now: bytes that were missed would stay behind those that come.
Outcome PartialFile::readPresent(
    const std::function<void(const char* data, qint64 length)>& present) {
    struct stat status = {};
    ::fstat(_descriptor, &status);
    QByteArray block(std::clamp<qint64>(status.st_size, 1, kReadBytes), Qt::Uninitialized);
    for (;;) {
        const ssize_t got =
            ::pread(_descriptor, block.data(), static_cast<std::size_t>(block.size()), _length);
        if (got == 0) {
            return Outcome::done();
        }
        if (got < 0 && errno != EINTR) {
            return localFailure(_path, "cannot be read");
        }
        if (got > 0) {
            present(block.constData(), got);
            _length += got;
        }
    }
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
            _isDiskFull = errno == ENOSPC || errno == EDQUOT;
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
    Outcome outcome = stamp(modified);
    if (outcome.isDone()) {
        outcome = flush();
    }
    if (outcome.isDone()) {
        outcome = putInPlace();
    }
    if (outcome.isDone()) {
        syncDirectory(directoryOf(_target));
    }
    return outcome;
}

Outcome PartialFile::stamp(qint64 modified) {
    const timespec times[2] = {{0, UTIME_OMIT}, {modified, 0}};
    return modified < 0 || ::futimens(_descriptor, times) == 0
               ? Outcome::done()
               : localFailure(_path, "its time cannot be set");
}

Outcome PartialFile::flush() {
    return ::fsync(_descriptor) == 0 ? Outcome::done() : localFailure(_path, "cannot be flushed");
}

Outcome PartialFile::putInPlace() {
    if (!isStillItself()) {
        return Outcome::failure(ExitCode::Unsafe,
                                text(_path) + ": somebody else has changed or replaced it");
    }
    return ::rename(_path.constData(), _target.constData()) == 0
               ? Outcome::done()
               : localFailure(_target, "cannot be put in place");
}

/// Another command's file of this name would be renamed.
bool PartialFile::isStillItself() const {
    struct stat mine = {};
    struct stat named = {};
    return ::fstat(_descriptor, &mine) == 0 && ::lstat(_path.constData(), &named) == 0 &&
           mine.st_ino == named.st_ino && mine.st_dev == named.st_dev && mine.st_size == _length;
}

void PartialFile::discardIfEmpty() {
    if (_descriptor >= 0 && _length == 0 && isStillItself()) {
        ::unlink(_path.constData());
    }
}

}  // namespace storagectl

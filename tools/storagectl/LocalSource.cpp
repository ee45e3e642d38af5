#include "tools/storagectl/LocalSource.h"

#include "tools/storagectl/FileService.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>
#include <utility>

namespace storagectl {

namespace {

constexpr qint64 kReadBytes = 1024 * 1024;

}  // namespace

Outcome localFailure(const QByteArray& path, const QString& what) {
    return Outcome::failure(ExitCode::LocalFile,
                            QString("%1: %2: %3").arg(text(path), what, std::strerror(errno)));
}

Outcome openLocalFile(const QByteArray& path, int& descriptor) {
    // A FIFO without a writer would block the open for ever.
    descriptor = ::open(path.constData(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    struct stat status = {};
    if (descriptor >= 0 && ::fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode)) {
        return Outcome::done();
    }
    const Outcome outcome =
        descriptor < 0 ? localFailure(path, "cannot be opened")
                       : Outcome::failure(ExitCode::LocalFile, text(path) + ": not a regular file");
    if (descriptor >= 0) {
        ::close(std::exchange(descriptor, -1));
    }
    return outcome;
}

LocalSource::~LocalSource() {
    if (_descriptor >= 0) {
        ::close(_descriptor);
    }
}

Outcome LocalSource::open(const QByteArray& path) {
    _path = path;
    const Outcome outcome = openLocalFile(path, _descriptor);
    struct stat status = {};
    if (!outcome.isDone()) {
        return outcome;
    }
    if (::fstat(_descriptor, &status) != 0) {
        return localFailure(path, "cannot be opened");
    }
    if (status.st_size > FileService::kLargestFileBytes) {
        return tooLargeFor(path);
    }
    _size = status.st_size;
    _modified = status.st_mtim;
    return Outcome::done();
}

Outcome LocalSource::read(qint64 offset, qint64 length, QByteArray& bytes) {
    bytes.resize(length);
    qint64 got = 0;
    while (got < length) {
        const ssize_t step = ::pread(_descriptor, bytes.data() + got,
                                     static_cast<std::size_t>(length - got), offset + got);
        if (step == 0) {
            return Outcome::failure(ExitCode::LocalFile,
                                    text(_path) + ": became shorter while it was sent");
        }
        if (step < 0 && errno != EINTR) {
            return localFailure(_path, "cannot be read");
        }
        got += qMax<ssize_t>(0, step);
    }
    return Outcome::done();
}

Outcome LocalSource::digest(qint64 length, PieceDigests& digests) {
    digests.clear();
    QByteArray bytes;
    while (digests.length() < length) {
        const qint64 step = qMin(kReadBytes, length - digests.length());
        const Outcome outcome = read(digests.length(), step, bytes);
        if (!outcome.isDone()) {
            return outcome;
        }
        digests.add(bytes.constData(), step);
    }
    return Outcome::done();
}

bool LocalSource::hasChanged() const {
    struct stat status = {};
    return ::fstat(_descriptor, &status) != 0 || status.st_size != _size ||
           status.st_mtim.tv_sec != _modified.tv_sec || status.st_mtim.tv_nsec != _modified.tv_nsec;
}

}  // namespace storagectl

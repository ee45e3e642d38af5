#include "tools/storagectl/FetchFile.h"

#include "tools/storagectl/LocalSource.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <set>

namespace storagectl {

namespace {

/// A file that changes each time it is fetched is given up.
constexpr int kMostChanges = 5;
constexpr qint64 kReadBytes = 1024 * 1024;
/// Up to so many files are flushed one by one: a file system has more to flush than ours.
constexpr std::size_t kFewFiles = 4;

}  // namespace

FetchFile::FetchFile(const FetchItem& item) : _item(item), _partial(item.local) {}

Outcome FetchFile::open() {
    const Outcome outcome = _partial.open([this](const char* data, qint64 length) {
        _digest.addData(QByteArrayView(data, length));
        _length += length;
    });
    if (!outcome.isDone()) {
        return outcome;
    }
    if (_length == 0) {
        takeTarget();
    } else if (_length > FileService::kLargestFileBytes) {
        restart("the partial file is longer than any that can be fetched");
    }
    _item.keptBytes = _length;
    return outcome;
}

/// Only looked at: it is copied once the daemon agrees that it is a prefix, and not at all where it
/// is the file.
void FetchFile::takeTarget() {
    struct stat status = {};
    if (::lstat(_item.local.constData(), &status) != 0 || status.st_size > _item.size) {
        return;
    }
    _isTarget = readTarget(status.st_size,
                           [this](const QByteArray& bytes) {
                               _digest.addData(bytes);
                               _length += bytes.size();
                               return Outcome::done();
                           })
                    .isDone() &&
                _length > 0;
    if (!_isTarget) {
        _digest.reset();
        _length = 0;
    }
}

Outcome FetchFile::readTarget(qint64 length,
                              const std::function<Outcome(const QByteArray&)>& take) const {
    LocalSource target;
    Outcome outcome = target.open(_item.local);
    QByteArray bytes;
    for (qint64 at = 0; outcome.isDone() && at < length; at += bytes.size()) {
        outcome = target.read(at, std::min(kReadBytes, length - at), bytes);
        if (outcome.isDone()) {
            outcome = take(bytes);
        }
    }
    return outcome;
}

QByteArray FetchFile::requestLine() const {
    return _length == 0 ? _item.remote
                        : _item.remote + '|' + _digest.result().toBase64() + '|' +
                              QByteArray::number(_length);
}

void FetchFile::begin(StreamEvents::Start start) {
    using Start = StreamEvents::Start;
    _isArriving = false;
    switch (start) {
        case Start::File:
            if (_isWhole) {
                change(
                    "what arrived differs from the file by its MD5; it may have been changed "
                    "while it was read");
            }
            restart(_isWhole    ? "the file was changed meanwhile"
                    : _isTarget ? ""
                                : "the partial file has other contents");
            _isArriving = _outcome.isDone();
            break;
        case Start::EmptyFile:
            restart("the file is empty by now");
            _isProved = _outcome.isDone();
            break;
        case Start::ResumedFile:
            resume();
            break;
        case Start::NothingLeft:
            _isProved = _length > 0;
            checkClaim();
            break;
        case Start::Directory:
        case Start::EmptyDirectory:
            giveUp(Outcome::failure(ExitCode::Failed, text(_item.remote) + ": is a directory"));
            break;
        case Start::Failure:
            break;
    }
}

/// What is here is a prefix by the daemon's own digest. Where it was the whole file a moment ago,
/// that is the proof, and what follows was written since; unless it is less than was listed.
void FetchFile::resume() {
    checkClaim();
    if (_isWhole && _length >= _item.size) {
        _isProved = true;
        _item.grew = true;
        return;
    }
    _isArriving = _length > 0;
    if (!_isTarget) {
        return;
    }
    const qint64 length = std::exchange(_length, 0);
    _isTarget = false;
    _digest.reset();
    const Outcome copied = readTarget(length, [this](const QByteArray& bytes) {
        append(bytes);
        return _outcome;
    });
    if (_outcome.isDone() && !copied.isDone()) {
        giveUp(copied);
    }
}

void FetchFile::take(const char* data, qint64 length) {
    if (_isArriving && _outcome.isDone()) {
        append(QByteArray::fromRawData(data, length));
    }
}

void FetchFile::append(const QByteArray& bytes) {
    const Outcome outcome = _partial.append(bytes);
    if (!outcome.isDone()) {
        giveUp(outcome);
        return;
    }
    _digest.addData(bytes);
    _length += bytes.size();
}

void FetchFile::fail(const QByteArray& reason) {
    const QString subject = text(_item.remote);
    if (reason == "Missing") {
        giveUp(Outcome::failure(
            ExitCode::NotFound,
            subject + (_isWhole ? ": vanished before it could be compared" : ": not found")));
    } else if (reason == "Read error" && _isArriving) {
        change("became shorter while it was read");
        _isArriving = false;
    } else {
        giveUp(Outcome::failure(
            ExitCode::Failed,
            QString("%1: the daemon could not read it (%2)").arg(subject, text(reason))));
    }
}

void FetchFile::change(const QString& fault) {
    if (++_changes > kMostChanges) {
        giveUp(Outcome::failure(ExitCode::Integrity, text(_item.remote) + ": " + fault));
    }
}

/// Only what was claimed can be agreed to.
void FetchFile::checkClaim() {
    if (_length == 0) {
        change("the daemon's answer does not fit the request");
    }
}

void FetchFile::restart(const QString& reason) {
    _isWhole = false;
    _isTarget = false;
    if (_length == 0) {
        return;
    }
    _reason = reason;
    _digest.reset();
    _length = 0;
    _item.keptBytes = 0;
    if (!_partial.startOver()) {
        giveUp(localFailure(_partial.path(), "cannot be cut"));
    }
}

void FetchFile::endRequest() {
    _isWhole = _isWhole || std::exchange(_isArriving, false);
}

void FetchFile::doubt() {
    _isProved = false;
    _item.grew = false;
    if (!isLost()) {
        _outcome = {};
    }
}

bool FetchFile::isLost() const {
    return !_outcome.isDone() && _outcome.code != ExitCode::NotFound &&
           _outcome.code != ExitCode::Failed;
}

void FetchFile::close() {
    if (_isTarget) {
        _partial.discardIfEmpty();
    }
    _partial.close();
}

Outcome FetchFile::stamp() {
    if (!_isTarget) {
        return _partial.stamp(_item.modified);
    }
    const timespec times[2] = {{0, UTIME_OMIT}, {_item.modified, 0}};
    return _item.modified < 0 ||
                   ::utimensat(AT_FDCWD, _item.local.constData(), times, AT_SYMLINK_NOFOLLOW) == 0
               ? Outcome::done()
               : localFailure(_item.local, "its time cannot be set");
}

Outcome flushAll(const std::vector<FetchFile*>& files) {
    if (files.size() <= kFewFiles) {
        for (FetchFile* file : files) {
            const Outcome outcome = file->partial().flush();
            if (!outcome.isDone()) {
                return outcome;
            }
        }
        return Outcome::done();
    }
    std::set<dev_t> flushed;
    for (FetchFile* file : files) {
        const int descriptor = file->partial().descriptor();
        struct stat status = {};
        const bool isKnown = ::fstat(descriptor, &status) == 0;
        if (isKnown && flushed.insert(status.st_dev).second && ::syncfs(descriptor) != 0) {
            return localFailure(file->partial().path(), "cannot be flushed");
        }
    }
    return Outcome::done();
}

}  // namespace storagectl

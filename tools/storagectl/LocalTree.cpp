#include "tools/storagectl/LocalTree.h"

#include "tools/storagectl/FileService.h"
#include "tools/storagectl/LocalSource.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <memory>

namespace storagectl {

namespace {

struct Closer {
    void operator()(DIR* directory) const { ::closedir(directory); }
};

LocalTree::Entry entryOf(const struct stat& status) {
    using Kind = LocalTree::Entry::Kind;
    const Kind kind = S_ISREG(status.st_mode)   ? Kind::File
                      : S_ISDIR(status.st_mode) ? Kind::Directory
                                                : Kind::Other;
    return {kind, status.st_size, status.st_mtim.tv_sec};
}

/// A directory to remove names from.
class Place {
public:
    /// Follows links to `root` alone. Not open where there is no such directory.
    Place(const QByteArray& root, const QByteArray& below)
        : _descriptor(::open(root.constData(), kFlags)) {
        for (const QByteArray& name : below.isEmpty() ? QByteArrayList() : below.split('/')) {
            const int inner = ::openat(_descriptor, name.constData(), kFlags | O_NOFOLLOW);
            ::close(std::exchange(_descriptor, inner));
        }
    }
    ~Place() { ::close(_descriptor); }
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;

    int descriptor() const { return _descriptor; }

private:
    static constexpr int kFlags = O_PATH | O_DIRECTORY | O_CLOEXEC;
    int _descriptor;
};

QByteArray directoryIn(const QByteArray& name) {
    return name.left(qMax<qsizetype>(0, name.lastIndexOf('/')));
}

}  // namespace

Outcome LocalTree::read(const QByteArray& directory) {
    _directory = directory;
    struct stat status = {};
    if (::stat(directory.constData(), &status) != 0 && errno == ENOENT) {
        return Outcome::done();
    }
    return readBelow(directory, {});
}

const LocalTree::Entry* LocalTree::find(const QByteArray& name) const {
    const auto found = _entries.constFind(name);
    return found == _entries.constEnd() ? nullptr : &*found;
}

Outcome LocalTree::remove(const QByteArray& name) const {
    const QByteArray path = _directory + '/' + name;
    QByteArray directory = directoryIn(name);
    const Place place(_directory, directory);
    const QByteArray last = baseNameOf(name);
    struct stat status = {};
    if (::fstatat(place.descriptor(), last.constData(), &status, AT_SYMLINK_NOFOLLOW) != 0 ||
        !(entryOf(status) == _entries.value(name))) {
        return Outcome::failure(ExitCode::Unsafe,
                                text(path) + ": not removed, it was changed meanwhile");
    }
    if (::unlinkat(place.descriptor(), last.constData(), 0) != 0) {
        return localFailure(path, "cannot be removed");
    }
    // rmdir leaves those that hold something else.
    bool isRemoved = true;
    while (isRemoved && !directory.isEmpty()) {
        const Place above(_directory, directoryIn(directory));
        const QByteArray inner = baseNameOf(directory);
        isRemoved = ::unlinkat(above.descriptor(), inner.constData(), AT_REMOVEDIR) == 0;
        directory = directoryIn(directory);
    }
    return Outcome::done();
}

/// `start` comes before each name: the way from the tree's directory, with its "/".
Outcome LocalTree::readBelow(const QByteArray& directory, const QByteArray& start) {
    std::unique_ptr<DIR, Closer> open(::opendir(directory.constData()));
    if (!open) {
        return localFailure(directory, "cannot be read");
    }
    QByteArrayList below;
    errno = 0;
    for (; const dirent* found = ::readdir(open.get()); errno = 0) {
        const QByteArray name = found->d_name;
        if (name.startsWith('.')) {
            continue;
        }
        struct stat status = {};
        if (::fstatat(::dirfd(open.get()), found->d_name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
            if (errno == ENOENT) {
                continue;
            }
            return localFailure(directory + '/' + name, "cannot be read");
        }
        _entries.insert(start + name, entryOf(status));
        if (S_ISDIR(status.st_mode)) {
            below.append(name);
        }
    }
    if (errno != 0) {
        return localFailure(directory, "cannot be read");
    }
    open.reset();
    for (const QByteArray& name : std::as_const(below)) {
        const Outcome outcome = readBelow(directory + '/' + name, start + name + '/');
        if (!outcome.isDone()) {
            return outcome;
        }
    }
    return Outcome::done();
}

}  // namespace storagectl

#include "tools/storagectl/LocalTree.h"

#include "tools/storagectl/LocalSource.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
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

}  // namespace

Outcome LocalTree::read(const QByteArray& directory) {
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

/// `start` comes before each name: the way from the tree's directory, with its "/".
Outcome LocalTree::readBelow(const QByteArray& directory, const QByteArray& start) {
    const std::unique_ptr<DIR, Closer> open(::opendir(directory.constData()));
    if (!open) {
        return localFailure(directory, "cannot be read");
    }
    QByteArrayList below;
    while (const dirent* found = ::readdir(open.get())) {
        const QByteArray name = found->d_name;
        struct stat status = {};
        const bool isThere =
            ::fstatat(::dirfd(open.get()), found->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0;
        if (name.startsWith('.') || !isThere) {
            continue;
        }
        _entries.insert(start + name, entryOf(status));
        if (S_ISDIR(status.st_mode)) {
            below.append(name);
        }
    }
    for (const QByteArray& name : std::as_const(below)) {
        const Outcome outcome = readBelow(directory + '/' + name, start + name + '/');
        if (!outcome.isDone()) {
            return outcome;
        }
    }
    return Outcome::done();
}

}  // namespace storagectl

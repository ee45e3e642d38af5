#include "tools/storagectl/UnitAbsence.h"

#include "tools/storagectl/RemoteTree.h"

namespace storagectl {

namespace {

Outcome isThere(const QByteArray& path) {
    return Outcome::failure(ExitCode::Unsafe, text(path) + ": is there");
}

}  // namespace

Outcome UnitAbsence::prove(const QByteArray& remote) {
    Outcome outcome = checkWireName(remote);
    if (outcome.isDone()) {
        outcome = lookDown(remote);
    }
    FileService::Entry entry;
    if (outcome.isDone()) {
        outcome = outcomeOf(_context.files.lookUp(remote, entry), text(remote));
    }
    return outcome.isDone() && entry.kind != FileService::Entry::Kind::Missing ? isThere(remote)
                                                                               : outcome;
}

/// Where a directory is missing, that one is to be absent.
Outcome UnitAbsence::lookDown(const QByteArray& remote) {
    const QByteArray& root = _context.options.mirror.root;
    QByteArray missing = remote;
    while (missing != root) {
        const QByteArray parent = directoryOf(missing);
        const Directory& directory = list(parent);
        if (directory.outcome.isDone() && parent == root && directory.paths.isEmpty()) {
            return Outcome::failure(ExitCode::Unsafe, text(root) + ": is empty by now");
        }
        if (directory.outcome.isDone()) {
            return directory.paths.contains(missing) ? isThere(missing) : Outcome::done();
        }
        if (directory.outcome.code != ExitCode::NotFound) {
            return directory.outcome;
        }
        missing = parent;
    }
    return Outcome::failure(ExitCode::Unsafe, text(root) + ": is gone by now");
}

const UnitAbsence::Directory& UnitAbsence::list(const QByteArray& path) {
    const auto known = _directories.constFind(path);
    if (known != _directories.constEnd()) {
        return *known;
    }
    RemoteTree tree(_context);
    QList<RemoteEntry> entries;
    Directory directory{tree.listDirectory(path, entries), {}};
    if (directory.outcome.isDone() && tree.failures() > 0) {
        directory.outcome =
            Outcome::failure(ExitCode::Failed, text(path) + ": not all of it could be listed");
    }
    for (const RemoteEntry& entry : std::as_const(entries)) {
        directory.paths.insert(entry.path);
    }
    return *_directories.insert(path, directory);
}

}  // namespace storagectl

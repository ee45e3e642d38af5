#include "tools/storagectl/TreeWalk.h"

#include <QCryptographicHash>

#include <algorithm>

namespace storagectl {

namespace {

// Of one request.
constexpr std::size_t kMostDirectories = 512;
constexpr qsizetype kMostNameBytes = 64 * 1024;
/// Of a tree: a link that leads upwards unseen would fill the memory.
constexpr qsizetype kMostEntries = 4'000'000;
constexpr char kNotKnown = '?';
constexpr char kNoRoom[] =
    "the daemon takes no more downloads at once, 64 in all; one that was left counts for ten "
    "minutes";
constexpr QChar kNotDecoded = QChar::ReplacementCharacter;

bool isSayable(const QByteArray& path) {
    return !path.contains('\n') && !path.contains('|');
}

bool isPlainName(const QByteArray& name) {
    return !name.isEmpty() && name != "." && name != ".." && !name.contains('/') &&
           !name.contains('\0');
}

QByteArray below(const QByteArray& directory, const QByteArray& name) {
    return directory + (directory.endsWith('/') ? "" : "/") + name;
}

QByteArray digestOf(const QList<RemoteEntry>& entries, qsizetype pathLength) {
    QByteArrayList lines;
    for (const RemoteEntry& entry : entries) {
        lines.append(entry.path.mid(pathLength) + '\0' + QByteArray::number(entry.isDirectory) +
                     ' ' + QByteArray::number(entry.size) + ' ' +
                     QByteArray::number(entry.modified));
    }
    std::sort(lines.begin(), lines.end());
    return QCryptographicHash::hash(lines.join('\n'), QCryptographicHash::Md5);
}

}  // namespace

TreeWalk::TreeWalk(Context& context, QList<RemoteEntry>& entries)
    : _context(context),
      _entries(entries),
      _pacing(context.options.bytesASecond),
      _retries(context.files.connection(), context.output, context.options.retries) {}

Outcome TreeWalk::run(const QByteArray& root, bool goesDown) {
    const auto first = std::make_shared<Directory>();
    first->path = root;
    while (first->path.size() > 1 && first->path.endsWith('/')) {
        first->path.chop(1);
    }
    Level level{first};
    Outcome outcome = checkWireName(first->path);
    while (outcome.isDone() && !level.empty()) {
        Level next;
        outcome = listLevel(level, next);
        if (outcome.isDone() && level.front() == first && !first->outcome.isDone()) {
            return explainRoot(*first);
        }
        level = goesDown ? std::move(next) : Level();
    }
    return outcome;
}

/// A root that is not a directory may be a file.
Outcome TreeWalk::explainRoot(const Directory& root) {
    if (root.outcome.code != ExitCode::NotFound) {
        return root.outcome;
    }
    FileService::Entry entry;
    const Answer answer = _context.files.lookUp(root.path, entry);
    if (answer != Answer::Success) {
        return outcomeOf(answer, text(root.path));
    }
    if (entry.kind != FileService::Entry::Kind::File) {
        return root.outcome;
    }
    const qint64 size = entry.tooLarge ? FileService::kLargestFileBytes + 1 : entry.size;
    _entries.append({root.path, false, size, entry.modified});
    return Outcome::done();
}

Outcome TreeWalk::listLevel(const Level& level, Level& next) {
    for (std::size_t from = 0; from < level.size();) {
        const std::size_t end = std::max(from + 1, batchEnd(level, from));
        _batch.assign(level.begin() + static_cast<std::ptrdiff_t>(from),
                      level.begin() + static_cast<std::ptrdiff_t>(end));
        const bool isSaid = isSayable(_batch.front()->path);
        Outcome outcome = isSaid ? stream() : addByFileService(*_batch.front(), false);
        _answered = isSaid ? _answered : 1;
        for (std::size_t i = 0; i < _answered && outcome.isDone(); ++i) {
            outcome = commit(_batch[i], next);
        }
        if (!outcome.isDone()) {
            return outcome;
        }
        from += _answered;
    }
    return Outcome::done();
}

/// Behind the directories that go into one request.
std::size_t TreeWalk::batchEnd(const Level& level, std::size_t from) const {
    qsizetype nameBytes = 0;
    std::size_t end = from;
    while (end < level.size() && end - from < kMostDirectories && nameBytes < kMostNameBytes &&
           isSayable(level[end]->path)) {
        nameBytes += level[end++]->path.size();
    }
    return end;
}

/// Asks for the batch. Some of it is answered, or the conversation is over for good.
Outcome TreeWalk::stream() {
    QByteArray lines;
    for (const auto& directory : _batch) {
        // What is a file by now would be sent whole.
        lines += (lines.isEmpty() ? "" : "\n") + below(directory->path, ".");
    }
    for (;;) {
        _answered = 0;
        _hasTooMany = false;
        DownloadJob job({_context.files.connection(), _pacing, *this, text(_batch[0]->path)});
        Outcome outcome = job.run(lines, [this] { return !_hasTooMany; });
        if (job.hasEnded() && _answered == _batch.size()) {
            return outcome;
        }
        if (outcome.isDone() && !job.isRefused()) {
            outcome = job.broken("it does not answer what was asked");
        }
        keepAnswered(outcome);
        outcome = job.isRefused()
                      ? _retries.nextAfterRefusal(job.broken(kNoRoom), text(_batch[0]->path))
                      : _retries.next(outcome, _answered > 0, text(_batch[0]->path));
        if (!outcome.isDone() || _answered > 0) {
            return outcome;
        }
    }
}

/// Of a stream that broke: what came over a connection that was then lost, without the last, which
/// may not be whole. Any other break may have lost a piece before.
void TreeWalk::keepAnswered(const Outcome& broken) {
    const bool isCut = broken.code == ExitCode::NoBroker && _answered > 0;
    _answered = isCut ? _answered - 1 : 0;
    _batch[_answered]->entries.clear();
    _batch[_answered]->outcome = {};
}

void TreeWalk::began(Start start) {
    if (_answered == _batch.size()) {
        _hasTooMany = true;
        return;
    }
    Directory& directory = *_batch[_answered++];
    directory.entries.clear();
    directory.outcome = {};
    directory.hiddenNames = 0;
    const bool isListed =
        start == Start::Directory || start == Start::EmptyDirectory || start == Start::Failure;
    if (!isListed) {
        directory.outcome =
            Outcome::failure(ExitCode::Failed, text(directory.path) + ": not a directory");
    }
}

void TreeWalk::directoryEntry(const Entry& entry) {
    if (_hasTooMany) {
        return;
    }
    Directory& directory = *_batch[_answered - 1];
    if (entry.name.contains(kNotKnown)) {
        ++directory.hiddenNames;
        return;
    }
    const qint64 size = entry.isDirectory ? 0 : entry.size;
    addEntry(directory, {{}, entry.isDirectory, size, entry.modified},
             QString::fromLatin1(entry.name).toUtf8());
}

void TreeWalk::failed(const QByteArray& reason) {
    if (_hasTooMany) {
        return;
    }
    Directory& directory = *_batch[_answered - 1];
    const bool isMissing = reason == "Missing";
    const QString path = text(directory.path);
    directory.outcome =
        isMissing
            ? Outcome::failure(ExitCode::NotFound, path + ": not found")
            : Outcome::failure(ExitCode::Failed, QString("%1: the daemon could not list it (%2)")
                                                     .arg(path, QString::fromLatin1(reason)));
}

void TreeWalk::addEntry(Directory& directory, RemoteEntry entry, const QByteArray& name) {
    if (!isPlainName(name)) {
        fail(Outcome::failure(ExitCode::Unsafe,
                              QString("%1: an entry is named \"%2\", which is no name; left out")
                                  .arg(text(directory.path), text(name))));
        return;
    }
    entry.path = below(directory.path, name);
    directory.entries.append(std::move(entry));
}

/// The file service tells names as they are, but no hidden ones.
Outcome TreeWalk::addByFileService(Directory& directory, bool onlyHiddenNames) {
    int told = 0;
    const auto add = [&](const FileService::Entry& listed) {
        const QString name = QString::fromUtf8(listed.name);
        if (onlyHiddenNames && !name.toLatin1().contains(kNotKnown)) {
            return true;
        }
        ++told;
        if (name.contains(kNotDecoded)) {
            fail(Outcome::failure(ExitCode::Unsafe, text(below(directory.path, listed.name)) +
                                                        ": a name that is not valid UTF-8 cannot "
                                                        "be put on the wire"));
            return true;
        }
        const qint64 size = listed.tooLarge ? FileService::kLargestFileBytes + 1 : listed.size;
        const bool isDirectory = listed.kind == FileService::Entry::Kind::Directory;
        addEntry(directory, {{}, isDirectory, size, listed.modified}, listed.name);
        return true;
    };
    const Answer answer = _context.files.list(directory.path, "*", add);
    if (answer != Answer::Success && answer != Answer::Refused) {
        return outcomeOf(answer, text(directory.path));
    }
    if (onlyHiddenNames && told < directory.hiddenNames) {
        fail(Outcome::failure(ExitCode::Failed,
                              QString("%1: %2 entries have names that cannot be told")
                                  .arg(text(directory.path))
                                  .arg(directory.hiddenNames - told)));
    } else if (!onlyHiddenNames) {
        _context.output.talk(text(directory.path) +
                             ": hidden entries are not seen: a download's "
                             "request cannot say this name");
    }
    return Outcome::done();
}

Outcome TreeWalk::commit(const std::shared_ptr<Directory>& directory, Level& next) {
    const bool isRoot = directory->parent == nullptr;
    if (directory->hiddenNames > 0) {
        const Outcome outcome = addByFileService(*directory, true);
        if (!outcome.isDone()) {
            return outcome;
        }
    }
    const Directory* loop = loopOf(*directory);
    if (loop != nullptr) {
        _context.output.talk(QString("%1: holds what %2 holds, taken for a link to it and left out")
                                 .arg(text(directory->path), text(loop->path)));
        return Outcome::done();
    }
    if (!directory->outcome.isDone() && !isRoot) {
        fail(directory->outcome);
    }
    if (_entries.size() + directory->entries.size() > kMostEntries) {
        return Outcome::failure(ExitCode::Unsafe,
                                text(directory->path) + ": more entries than this command takes");
    }
    for (RemoteEntry& entry : directory->entries) {
        if (entry.isDirectory) {
            const auto child = std::make_shared<Directory>();
            child->path = entry.path;
            child->parent = directory;
            next.push_back(child);
        }
    }
    _entries.append(std::exchange(directory->entries, {}));
    return Outcome::done();
}

const TreeWalk::Directory* TreeWalk::loopOf(Directory& directory) {
    if (directory.entries.isEmpty()) {
        return nullptr;
    }
    directory.digest = digestOf(directory.entries, directory.path.size());
    const Directory* above = directory.parent.get();
    while (above != nullptr && above->digest != directory.digest) {
        above = above->parent.get();
    }
    return above;
}

void TreeWalk::fail(const Outcome& outcome) {
    ++_failures;
    _context.output.error(outcome);
}

}  // namespace storagectl

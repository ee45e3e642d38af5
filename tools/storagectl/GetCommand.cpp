#include "tools/storagectl/Commands.h"

#include "tools/storagectl/Fetch.h"
#include "tools/storagectl/LocalSource.h"
#include "tools/storagectl/Progress.h"
#include "tools/storagectl/RemoteTree.h"

#include <QElapsedTimer>
#include <QSet>

#include <fcntl.h>
#include <sys/stat.h>
#include <cerrno>

namespace storagectl {

namespace {

constexpr mode_t kNewDirectoryMode = 0777;

bool isLocalDirectory(const QByteArray& path) {
    struct stat status = {};
    return ::stat(path.constData(), &status) == 0 && S_ISDIR(status.st_mode);
}

/// "file" or "directory" or "" becomes the file's own local name. Empty where it has none. A tree
/// has its own name in any case: the same command must lead to the same place once it is there.
QByteArray localTargetFor(const Options& options, const QByteArray& path) {
    const QByteArray name = baseNameOf(path);
    const QByteArray& target = options.localTarget;
    if (target.isEmpty()) {
        return name;
    }
    if (!options.recursive && !target.endsWith('/') && !isLocalDirectory(target)) {
        return target;
    }
    return name.isEmpty() ? name : target + (target.endsWith('/') ? "" : "/") + name;
}

/// What stands at the path, as something to be fetched.
Outcome lookUpFile(Context& context, const QByteArray& path, FileService::Entry& entry) {
    const Answer answer = context.files.lookUp(path, entry);
    if (answer != Answer::Success) {
        return outcomeOf(answer, text(path));
    }
    if (entry.kind != FileService::Entry::Kind::File) {
        return context.files.explain(path, "read");
    }
    return entry.tooLarge ? tooLargeFor(path) : Outcome::done();
}

/// One run of get: gathers what there is to fetch, so that the total is known before the first
/// byte, makes the directories, and fetches all files together.
class GetRun {
public:
    explicit GetRun(Context& context) : _context(context), _fetch(context) {}

    ExitCode run() {
        _timer.start();
        for (const QByteArray& path : _context.options.paths) {
            Outcome outcome = checkWireName(path);
            if (outcome.isDone()) {
                outcome = gather(path);
            }
            if (!outcome.isDone()) {
                failed(outcome, path);
            }
            if (outcome.isHopeless()) {
                return _tally.code();
            }
        }
        const Outcome outcome = _fetch.run(
            _items, [this](const FetchItem& item, const Outcome& end) { ended(item, end); });
        if (_givenUp > 0) {
            _context.output.error(outcome);
            _context.output.talk(
                QString("%1 files are left; the same command goes on from there").arg(_givenUp));
        }
        stampDirectories();
        reportAll();
        return _tally.code();
    }

private:
    Outcome gather(const QByteArray& path) {
        const QByteArray target = localTargetFor(_context.options, path);
        if (target.isEmpty()) {
            return Outcome::failure(ExitCode::Unsafe,
                                    text(path) + ": has no name to be stored under");
        }
        if (_taken.contains(target)) {
            return Outcome::failure(ExitCode::Unsafe,
                                    QString("%1: would replace %2, which this command fetches "
                                            "too; use a directory for each")
                                        .arg(text(path), text(target)));
        }
        _taken.insert(target);
        if (!_context.options.recursive) {
            return gatherFile(path, target);
        }
        const QByteArray& above = _context.options.localTarget;
        if (!above.isEmpty() && !isLocalDirectory(above) &&
            ::mkdir(above.constData(), kNewDirectoryMode) != 0) {
            return localFailure(above, "cannot be made");
        }
        return gatherTree(path, target);
    }

    Outcome gatherFile(const QByteArray& path, const QByteArray& target) {
        FileService::Entry entry;
        const Outcome outcome = lookUpFile(_context, path, entry);
        if (outcome.isDone()) {
            _items.append({path, target, entry.size, entry.modified});
        }
        return outcome;
    }

    Outcome gatherTree(const QByteArray& path, const QByteArray& target) {
        RemoteTree tree(_context);
        QList<RemoteEntry> entries;
        Outcome outcome = tree.list(path, entries);
        if (!outcome.isDone()) {
            return outcome;
        }
        if (tree.failures() > 0) {
            _tally.add(Outcome::failure(ExitCode::Failed, {}));
        }
        const bool isFile =
            entries.size() == 1 && !entries[0].isDirectory && entries[0].path.size() <= path.size();
        if (isFile) {
            _items.append({path, target, entries[0].size, entries[0].modified});
            return outcome;
        }
        outcome = makeDirectory(target, -1);
        if (!outcome.isDone()) {
            return outcome;
        }
        _isTree = true;
        const qsizetype rootLength = path.endsWith('/') ? path.size() - 1 : path.size();
        for (const RemoteEntry& entry : std::as_const(entries)) {
            add(entry, target + entry.path.mid(rootLength));
        }
        return outcome;
    }

    /// What is below a directory that cannot be made is left out.
    void add(const RemoteEntry& entry, const QByteArray& local) {
        if (_blocked.contains(directoryOf(local))) {
            _tally.add(Outcome::failure(ExitCode::Unsafe, {}));
            _blocked.insert(local);
            return;
        }
        if (!entry.isDirectory) {
            _items.append({entry.path, local, entry.size, entry.modified});
            return;
        }
        const Outcome outcome = makeDirectory(local, entry.modified);
        if (!outcome.isDone()) {
            _blocked.insert(local);
            failed(outcome, local);
        }
    }

    Outcome makeDirectory(const QByteArray& path, qint64 modified) {
        struct stat status = {};
        if (::mkdir(path.constData(), kNewDirectoryMode) != 0 && errno != EEXIST) {
            return localFailure(path, "cannot be made");
        }
        // A link may lead out of the tree.
        if (::lstat(path.constData(), &status) != 0 || !S_ISDIR(status.st_mode)) {
            return Outcome::failure(ExitCode::Unsafe, text(path) + ": not a directory, left alone");
        }
        if (modified >= 0) {
            _directories.append({path, modified});
        }
        return Outcome::done();
    }

    void failed(const Outcome& outcome, const QByteArray& path) {
        _tally.add(outcome);
        ++_failures;
        _context.output.error(outcome, text(path));
    }

    void ended(const FetchItem& item, const Outcome& outcome) {
        if (!outcome.isDone() && _items.size() > 1 && outcome.isHopeless()) {
            _tally.add(outcome);
            ++_givenUp;
        } else if (!outcome.isDone()) {
            failed(outcome, item.remote);
        } else {
            _tally.add(outcome);
            report(item);
        }
    }

    void report(const FetchItem& item) {
        const bool isAlone = _items.size() == 1;
        const bool grew = item.grew || (isAlone && hasGrown(item));
        QJsonObject object{
            {"command", "get"},  {"file", text(item.remote)},     {"target", text(item.local)},
            {"size", item.size}, {"resumedFrom", item.keptBytes}, {"grew", grew}};
        object.insert("modified",
                      item.modified < 0 ? QJsonValue() : QJsonValue(isoTime(item.modified)));
        if (isAlone) {
            object.insert("milliseconds", _timer.elapsed());
            object.insert("wireBytes", _fetch.totals().bytesOnWire);
        }
        _context.output.object(object);
        if (item.grew) {
            _context.output.talk(
                text(item.remote) +
                QString(": grew meanwhile; fetched as it was, %1 bytes").arg(item.size));
        }
        const QString line = text(item.remote) + " -> " + text(item.local);
        if (isAlone) {
            _context.output.talk(
                summaryText(line, item.size, item.keptBytes, _timer.elapsed()) +
                QString(", %1 bytes on the wire").arg(_fetch.totals().bytesOnWire));
        } else {
            _context.output.detail(line + QString(", %1 bytes").arg(item.size));
        }
        if (item.modified < 0) {
            _context.output.talk(
                text(item.remote) +
                ": its modification time cannot be asked, the daemon does not list it");
        }
    }

    /// Asks once more what stands there, and says by how much it grew.
    bool hasGrown(const FetchItem& item) {
        FileService::Entry now;
        const bool isKnown = _context.files.lookUp(item.remote, now) == Answer::Success &&
                             now.kind == FileService::Entry::Kind::File;
        const bool grew = isKnown && (now.tooLarge || now.size > item.size);
        if (grew) {
            const QString size =
                now.tooLarge ? QString("more than 2147483647") : QString::number(now.size);
            _context.output.talk(
                text(item.remote) +
                QString(": grew to %1 bytes meanwhile; fetched as it was, %2 bytes")
                    .arg(size)
                    .arg(item.size));
        }
        return grew;
    }

    /// Those below first: each file that is put in place changes its directory's time.
    void stampDirectories() {
        for (auto made = _directories.crbegin(); made != _directories.crend(); ++made) {
            const timespec times[2] = {{0, UTIME_OMIT}, {made->second, 0}};
            ::utimensat(AT_FDCWD, made->first.constData(), times, AT_SYMLINK_NOFOLLOW);
        }
    }

    void reportAll() {
        if (_items.size() <= 1 && !_isTree) {
            return;
        }
        const FetchTotals& totals = _fetch.totals();
        const qint64 failures = _failures + _givenUp;
        _context.output.object({{"command", "get"},
                                {"files", totals.files},
                                {"failed", failures},
                                {"size", totals.fileBytes},
                                {"resumedFrom", totals.keptBytes},
                                {"wireBytes", totals.bytesOnWire},
                                {"milliseconds", _timer.elapsed()}});
        QString line = summaryText(QString("%1 files").arg(totals.files), totals.fileBytes,
                                   totals.keptBytes, _timer.elapsed());
        line += QString(", %1 bytes on the wire").arg(totals.bytesOnWire);
        _context.output.talk(failures == 0 ? line : line + QString("; %1 failed").arg(failures));
    }

    Context& _context;
    Fetch _fetch;
    QElapsedTimer _timer;
    QSet<QByteArray> _taken;  ///< local targets: files of many folders have one name
    QSet<QByteArray> _blocked;
    QList<FetchItem> _items;
    QList<std::pair<QByteArray, qint64>> _directories;
    Tally _tally;
    qint64 _failures = 0;
    qint64 _givenUp = 0;
    bool _isTree = false;
};

}  // namespace

ExitCode get(Context& context) {
    const QByteArray& target = context.options.localTarget;
    const bool isOneName = !target.isEmpty() && !isLocalDirectory(target);
    if (context.options.paths.size() > 1 && isOneName && !context.options.recursive) {
        const Outcome outcome = Outcome::failure(
            ExitCode::Usage, text(target) + ": several files need a directory to go to");
        context.output.error(outcome);
        return outcome.code;
    }
    return GetRun(context).run();
}

}  // namespace storagectl

#include "tools/storagectl/Mirror.h"

#include "jobs/DownloadStream.h"
#include "tools/storagectl/Interrupt.h"
#include "tools/storagectl/LocalSource.h"
#include "tools/storagectl/PartialFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <cerrno>

namespace storagectl {

namespace {

using Relation = TreeComparison::Relation;

constexpr mode_t kNewDirectoryMode = 0777;

QString changeOf(Relation relation) {
    switch (relation) {
        case Relation::Missing:
            return "new";
        case Relation::Shorter:
            return "grown";
        default:
            return "changed";
    }
}

/// What so many bytes of a file take as data messages, if none can be compressed: their blocks, the
/// proof, and the ends of two requests where it has them for itself.
qint64 wireBytesOf(qint64 size) {
    using namespace DownloadStream;
    const qint64 blocks = (size + kBlockBytes - 1) / kBlockBytes;
    return size + (blocks + 3) * kRecordHeaderBytes;
}

QString durationText(qint64 seconds) {
    if (seconds < 120) {
        return QString("%1 s").arg(seconds);
    }
    return seconds < 7200 ? QString("%1 min").arg(seconds / 60)
                          : QString("%1 h").arg(seconds / 3600);
}

/// What was a directory may be a link by now. `errno` says what it is not.
bool isDirectory(const QByteArray& path, bool followsLink) {
    struct stat status = {};
    const int flags = followsLink ? 0 : AT_SYMLINK_NOFOLLOW;
    const bool isThere = ::fstatat(AT_FDCWD, path.constData(), &status, flags) == 0;
    errno = ENOTDIR;
    return isThere && S_ISDIR(status.st_mode);
}

}  // namespace

Mirror::Mirror(Context& context)
    : _context(context),
      _options(context.options.mirror),
      _unit(context),
      _absence(context),
      _fetch(context) {}

ExitCode Mirror::run() {
    const Outcome read = readTrees();
    if (!read.isDone()) {
        _context.output.error(read);
        return read.code;
    }
    if (!_unit.isComplete()) {
        _tally.add(Outcome::failure(ExitCode::Failed, "not all of it could be listed"));
    }
    const TreeComparison comparison(_unit.files(), _local);
    plan(comparison);
    if (_options.dryRun) {
        showPlan(comparison);
        return _tally.code();
    }
    fetch();
    treatOnlyHere(comparison.onlyHere());
    summarize(comparison);
    if (!_end.isDone()) {
        _context.output.error(_end);
    }
    return _tally.code();
}

Outcome Mirror::readTrees() {
    const Outcome outcome = _local.read(_options.local);
    return outcome.isDone() ? _unit.read() : outcome;
}

void Mirror::plan(const TreeComparison& comparison) {
    QSet<QByteArray> names;
    for (const TreeComparison::Row& row : comparison.rows()) {
        names.insert(row.file.name);
    }
    for (const TreeComparison::Row& row : comparison.rows()) {
        if (row.relation == Relation::Same) {
            ++_plan.same;
            _tally.add(Outcome::done());
            continue;
        }
        const Outcome refusal = whyNot(row, names);
        if (!refusal.isDone()) {
            refuse(row.file, refusal);
            continue;
        }
        int& count = row.relation == Relation::Missing   ? _plan.added
                     : row.relation == Relation::Shorter ? _plan.grown
                                                         : _plan.changed;
        ++count;
        const bool mayHelp =
            row.relation == Relation::Shorter || row.relation == Relation::OtherTime;
        _plan.mostBytes += wireBytesOf(row.file.size);
        _plan.leastBytes += wireBytesOf(row.file.size - (mayHelp ? row.here.size : 0));
        _plan.items.append({remotePath(row.file.name), localPath(row.file.name), row.file.size,
                            row.file.modified});
        _plan.rows.insert(_plan.items.last().remote, &row);
    }
}

/// Why a file cannot be fetched. `names` are those of all files of the unit.
Outcome Mirror::whyNot(const TreeComparison::Row& row, const QSet<QByteArray>& names) const {
    const QByteArray remote = remotePath(row.file.name);
    if (row.file.size > FileService::kLargestFileBytes) {
        return tooLargeFor(remote);
    }
    if (row.relation == Relation::Barred) {
        return Outcome::failure(ExitCode::Unsafe,
                                QString("%1: %2 stands in the way, and is left alone")
                                    .arg(text(remote), text(localPath(row.barrier))));
    }
    if (names.contains(row.file.name + PartialFile::kEnding)) {
        return Outcome::failure(
            ExitCode::Unsafe,
            QString("%1: would be fetched into %2.part, and the unit has a file of that name too; "
                    "get it to another directory")
                .arg(text(remote), text(localPath(row.file.name))));
    }
    return checkWireName(remote);
}

void Mirror::refuse(const UnitFile& file, const Outcome& outcome) {
    _tally.add(outcome);
    ++_failed;
    _context.output.error(outcome, text(remotePath(file.name)));
}

void Mirror::showPlan(const TreeComparison& comparison) {
    for (const FetchItem& item : std::as_const(_plan.items)) {
        const TreeComparison::Row& row = *_plan.rows.value(item.remote);
        const bool isNew = row.relation == Relation::Missing;
        _tally.add(Outcome::done());
        tell(isNew ? "+" : "*", changeOf(row.relation), row.file.name, row.file.size,
             isNew ? -1 : row.here.size);
    }
    for (const QByteArray& name : comparison.onlyHere()) {
        tell("-", "gone", name, -1, _local.find(name)->size);
    }
    _context.output.object({{"command", "mirror"},
                            {"dryRun", true},
                            {"new", _plan.added},
                            {"grown", _plan.grown},
                            {"changed", _plan.changed},
                            {"same", _plan.same},
                            {"onlyHere", comparison.onlyHere().size()},
                            {"failed", _failed},
                            {"mostBytes", _plan.mostBytes},
                            {"leastBytes", _plan.leastBytes}});
    _context.output.talk(QString("%1 new, %2 grown, %3 changed, %4 the same, %5 only here")
                             .arg(_plan.added)
                             .arg(_plan.grown)
                             .arg(_plan.changed)
                             .arg(_plan.same)
                             .arg(comparison.onlyHere().size()));
    _context.output.talk(costText());
}

QString Mirror::costText() const {
    if (_plan.items.isEmpty()) {
        return "nothing to be sent";
    }
    QString cost =
        QString("to be sent, without compression: %1 bytes at most").arg(_plan.mostBytes);
    if (_plan.leastBytes < _plan.mostBytes) {
        cost +=
            QString(", %1 if what is here is the beginning of what is there").arg(_plan.leastBytes);
    }
    const qint64 limit = _context.options.bytesASecond;
    const qint64 measured = _unit.measuredRate();
    const bool isLimited = limit > 0 && (measured == 0 || limit < measured);
    const qint64 rate = isLimited ? limit : measured;
    if (rate == 0) {
        return cost + "; how fast is not known";
    }
    return cost + QString("; %1 at %2/s, %3")
                      .arg(durationText((_plan.mostBytes + rate - 1) / rate), humanSize(rate),
                           isLimited ? "the limit" : "as the listing came");
}

void Mirror::fetch() {
    prepareDirectories();
    if (_plan.items.isEmpty()) {
        return;
    }
    _end = _fetch.run(_plan.items, [this](const FetchItem& item, const Outcome& outcome) {
        fetchEnded(item, outcome);
    });
}

/// Makes those that are missing. Files whose directory cannot be made are given up, with one word
/// for all of them.
void Mirror::prepareDirectories() {
    const auto make = [this](const QByteArray& directory) {
        const bool isMade = ::mkdir(directory.constData(), kNewDirectoryMode) == 0;
        if (isMade || (errno == EEXIST && isDirectory(directory, directory == _options.local))) {
            return Outcome::done();
        }
        const Outcome outcome = localFailure(directory, "cannot be made");
        _context.output.error(outcome, text(directory));
        return outcome;
    };
    QHash<QByteArray, Outcome> known;
    const auto prepare = [&](const QByteArray& directory) {
        if (!known.contains(directory)) {
            known.insert(directory, make(directory));
        }
        return known.value(directory);
    };
    _plan.items.removeIf([&](const FetchItem& item) {
        const UnitFile& file = _plan.rows.value(item.remote)->file;
        Outcome outcome = prepare(_options.local);
        qsizetype slash = file.name.indexOf('/');
        while (outcome.isDone() && slash >= 0) {
            outcome = prepare(localPath(file.name.left(slash)));
            slash = file.name.indexOf('/', slash + 1);
        }
        if (!outcome.isDone()) {
            _tally.add(outcome);
            ++_failed;
        }
        return !outcome.isDone();
    });
}

void Mirror::fetchEnded(const FetchItem& item, const Outcome& outcome) {
    const TreeComparison::Row& row = *_plan.rows.value(item.remote);
    _tally.add(outcome);
    if (outcome.isDone()) {
        const bool isNew = row.relation == Relation::Missing;
        tell(isNew ? "+" : "*", changeOf(row.relation), row.file.name, item.size,
             isNew ? -1 : row.here.size);
        return;
    }
    ++_failed;
    // What all remaining files share is said once, at the end.
    if (!outcome.isHopeless()) {
        _context.output.error(outcome, text(item.remote));
    }
}

void Mirror::treatOnlyHere(const QByteArrayList& names) {
    const bool removes = _options.removesGone && mayRemove();
    if (_options.removesGone && !removes && !names.isEmpty()) {
        _context.output.talk(
            "nothing is removed: not every file of the unit could be listed or fetched");
    }
    for (const QByteArray& name : names) {
        if (Interrupt::requested()) {
            const Outcome interrupted = outcomeOf(Answer::Interrupted, text(_options.root));
            _end = _end.isDone() ? interrupted : _end;
            _tally.add(_end);
            return;
        }
        const LocalTree::Entry entry = *_local.find(name);
        if (removes && entry.kind == LocalTree::Entry::Kind::File) {
            const Outcome outcome = removeLocal(name);
            _tally.add(outcome);
            _failed += outcome.isDone() ? 0 : 1;
            if (outcome.isHopeless()) {
                _end = outcome;
                return;
            }
            if (!outcome.isDone()) {
                _context.output.error(outcome, text(localPath(name)));
            }
        }
        tell("-", "gone", name, -1, entry.size);
    }
}

bool Mirror::mayRemove() const {
    return _unit.isComplete() && !_unit.files().isEmpty() && _failed == 0 && _end.isDone();
}

/// A listing may be old, or lack what the daemon could not read: the unit is asked for this name.
Outcome Mirror::removeLocal(const QByteArray& name) {
    const Outcome absence = _absence.prove(remotePath(name));
    if (!absence.isDone()) {
        return absence.isHopeless()
                   ? absence
                   : Outcome::failure(ExitCode::Unsafe,
                                      QString("%1: not removed, the daemon cannot say that it is "
                                              "gone there (%2)")
                                          .arg(text(localPath(name)), absence.message));
    }
    const Outcome outcome = _local.remove(name);
    _removed += outcome.isDone() ? 1 : 0;
    return outcome;
}

void Mirror::summarize(const TreeComparison& comparison) {
    const FetchTotals& totals = _fetch.totals();
    const qsizetype left = comparison.onlyHere().size() - _removed;
    _context.output.object({{"command", "mirror"},
                            {"dryRun", false},
                            {"fetched", totals.files},
                            {"fileBytes", totals.fileBytes},
                            {"keptBytes", totals.keptBytes},
                            {"wireBytes", totals.bytesOnWire},
                            {"same", _plan.same},
                            {"onlyHere", left},
                            {"removed", _removed},
                            {"failed", _failed}});
    _context.output.talk(
        QString("%1 fetched (%2 bytes, of which %3 were here; %4 on the wire), %5 the same, %6 "
                "failed")
            .arg(totals.files)
            .arg(totals.fileBytes)
            .arg(totals.keptBytes)
            .arg(totals.bytesOnWire)
            .arg(_plan.same)
            .arg(_failed));
    if (_removed > 0) {
        _context.output.talk(QString("%1 removed, which the unit does not have").arg(_removed));
    }
    if (left > 0) {
        _context.output.talk(QString("%1 only here, left alone%2")
                                 .arg(left)
                                 .arg(_options.removesGone ? "" : " (--delete removes files)"));
    }
}

/// A size is -1 where there is no file.
void Mirror::tell(const QString& sign, const QString& change, const QByteArray& name, qint64 size,
                  qint64 sizeHere) {
    QJsonObject object{{"command", "mirror"},
                       {"file", text(remotePath(name))},
                       {"target", text(localPath(name))},
                       {"change", change},
                       {"dryRun", _options.dryRun}};
    if (size >= 0) {
        object.insert("size", size);
    }
    if (sizeHere >= 0) {
        object.insert("sizeHere", sizeHere);
    }
    _context.output.object(object);
    QString line = sign + QString(" %1  %2").arg(size >= 0 ? size : sizeHere, 11).arg(text(name));
    if (size >= 0 && sizeHere >= 0) {
        line += size == sizeHere ? QString(" (time)") : QString(" (was %1)").arg(sizeHere);
    }
    _context.output.line(line);
}

QByteArray Mirror::remotePath(const QByteArray& name) const {
    return (_options.root.endsWith('/') ? _options.root : _options.root + '/') + name;
}

QByteArray Mirror::localPath(const QByteArray& name) const {
    return (_options.local.endsWith('/') ? _options.local : _options.local + '/') + name;
}

ExitCode mirror(Context& context) {
    return Mirror(context).run();
}

}  // namespace storagectl

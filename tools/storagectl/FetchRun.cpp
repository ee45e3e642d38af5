#include "tools/storagectl/FetchRun.h"

#include "tools/storagectl/Download.h"

#include <algorithm>
#include <set>
#include <utility>

namespace storagectl {

namespace {

// Of one request. Each file holds a descriptor; the bytes bound what a lost proof costs.
constexpr std::size_t kMostFiles = 256;
constexpr qint64 kMostNameBytes = 64 * 1024;
constexpr qint64 kMostBytes = 64 * 1024 * 1024;
/// Up to here the file service's requests take less time than a download's two; above, as much.
constexpr qint64 kSmallBytes = 64 * 1024;

/// Whether a request, which has an entry a line, can say it.
bool isSayable(const QByteArray& path) {
    return !path.contains('\n') && !path.contains('|');
}

QString subjectOf(const QList<FetchItem>& items) {
    return items.size() == 1 ? text(items.first().remote) : QString("the download");
}

QString progressName(const QList<FetchItem>& items) {
    return items.size() == 1 ? text(items.first().remote) : QString("%1 files").arg(items.size());
}

Outcome diskFull() {
    return {ExitCode::LocalFile, "the local disk is full", false, true};
}

}  // namespace

FetchRun::FetchRun(Context& context, FetchTotals& totals, const QList<FetchItem>& items,
                   const Fetch::Ended& ended)
    : _context(context),
      _totals(totals),
      _items(items),
      _ended(ended),
      _pacing(context.options.bytesASecond),
      _progress(context.output, progressName(items)),
      _retries(context.files.connection(), context.output, context.options.retries) {
    for (const FetchItem& item : items) {
        _targets.insert(item.local);
    }
    for (const FetchItem& item : items) {
        _total += whyNot(item).isDone() ? item.size : 0;
    }
}

Outcome FetchRun::run() {
    _progress.begin("fetched", 0, _total);
    while (fillRound()) {
        Outcome outcome = runRound();
        if (outcome.mayRetry) {
            outcome = _retries.next(outcome, _present > _mostPresent, subjectOf(_items));
        }
        _mostPresent = std::max(_mostPresent, _present);
        if (!outcome.isDone()) {
            return giveUp(outcome);
        }
    }
    return _hopeless.isDone() ? Outcome::done() : giveUp(_hopeless);
}

/// Why a file cannot be fetched, whatever the daemon says of it.
Outcome FetchRun::whyNot(const FetchItem& item) const {
    if (item.size > FileService::kLargestFileBytes) {
        return tooLargeFor(item.remote);
    }
    const QByteArray partial = item.local + PartialFile::kEnding;
    if (_targets.contains(partial)) {
        return Outcome::failure(
            ExitCode::Unsafe,
            QString("%1: would be fetched into %2, which is the name of another file that this "
                    "command fetches; get it to another directory")
                .arg(text(item.remote), text(partial)));
    }
    return checkWireName(item.remote);
}

/// Adds files to those that wait for their proof; after a break none, so that what a stream has to
/// bring before it is relied on grows less. False where there is nothing left to do.
bool FetchRun::fillRound() {
    const bool takesMore = !_isBroken || _round.empty();
    qint64 nameBytes = 0;
    qint64 bytes = 0;
    for (const auto& file : _round) {
        nameBytes += file->requestLine().size();
    }
    while (takesMore && _next < _items.size() && _hopeless.isDone() && _round.size() < kMostFiles &&
           nameBytes < kMostNameBytes && bytes < kMostBytes) {
        const FetchItem& item = _items[_next++];
        addToRound(item);
        nameBytes += item.remote.size();
        bytes += item.size;
    }
    return _hopeless.isDone() && !(_round.empty() && _next == _items.size());
}

void FetchRun::addToRound(const FetchItem& item) {
    Outcome outcome = whyNot(item);
    const bool isSmallAlone =
        _items.size() == 1 && item.size <= kSmallBytes && _context.options.bytesASecond == 0;
    if (!outcome.isDone()) {
        end(item, outcome);
    } else if (isSmallAlone || !isSayable(item.remote)) {
        read(item);
    } else {
        auto file = std::make_unique<FetchFile>(item);
        outcome = file->open();
        _present += file->length();
        _mostPresent += file->length();
        _progress.skip(file->length());
        if (outcome.isDone()) {
            _round.push_back(std::move(file));
        } else {
            end(*file, outcome);
        }
    }
}

Outcome FetchRun::runRound() {
    if (_round.empty()) {
        return Outcome::done();
    }
    bool isRefused = false;
    const Outcome outcome = stream(isRefused);
    _isBroken = !outcome.isDone();
    if (_isBroken || !_hopeless.isDone()) {
        for (const auto& file : _round) {
            file->doubt();
        }
    }
    settle();
    if (isRefused && _hopeless.isDone()) {
        readRound();
    }
    return _hopeless.isDone() ? outcome : Outcome::done();
}

Outcome FetchRun::stream(bool& isRefused) {
    QByteArray entries;
    for (const auto& file : _round) {
        entries += (entries.isEmpty() ? "" : "\n") + file->requestLine();
    }
    _current = -1;
    _hasTooMany = false;
    _wireBefore = _totals.bytesOnWire;
    Connection& connection = _context.files.connection();
    DownloadJob job({connection, _pacing, *this, subjectOf(_items)});
    const Outcome outcome = job.run(entries, [this, &job] {
        _totals.bytesOnWire = _wireBefore + job.bytesOnWire();
        showProgress();
        return goesOn();
    });
    _totals.bytesOnWire = _wireBefore + job.bytesOnWire();
    isRefused = job.isRefused();
    if (job.hasEnded()) {
        endCurrent();
        const bool isShort = _current + 1 < static_cast<qsizetype>(_round.size());
        return isShort ? job.broken("it ended before everything was answered") : outcome;
    }
    if (outcome.isDone() && !isRefused) {
        // The job is left, and must not hear the reports to the next one.
        connection.abandon();
    }
    return _hasTooMany ? job.broken("it says more than was asked for") : outcome;
}

bool FetchRun::goesOn() const {
    const auto isLost = [](const auto& file) { return file->isLost(); };
    return _hopeless.isDone() && !_hasTooMany &&
           !std::all_of(_round.cbegin(), _round.cend(), isLost);
}

void FetchRun::endCurrent() {
    if (_current >= 0) {
        _round[static_cast<std::size_t>(_current)]->endRequest();
    }
}

void FetchRun::began(Start start) {
    endCurrent();
    if (_current + 1 >= static_cast<qsizetype>(_round.size())) {
        _hasTooMany = true;
        _current = -1;
        return;
    }
    ++_current;
    tell([start](FetchFile& file) { file.begin(start); });
}

void FetchRun::fileBytes(const char* data, qint64 length) {
    tell([data, length](FetchFile& file) { file.take(data, length); });
}

void FetchRun::failed(const QByteArray& reason) {
    tell([&reason](FetchFile& file) { file.fail(reason); });
}

bool FetchRun::expectsMore() const {
    return _current < 0 || _round[static_cast<std::size_t>(_current)]->expectsMore();
}

template <typename Event>
void FetchRun::tell(const Event& event) {
    if (_current < 0 || _hasTooMany || !_hopeless.isDone()) {
        return;
    }
    FetchFile& file = *_round[static_cast<std::size_t>(_current)];
    const qint64 lengthBefore = file.length();
    event(file);
    _present += file.length() - lengthBefore;
    const QString reason = file.takeReason();
    if (!reason.isEmpty()) {
        _context.output.talk(text(file.item().remote) + ": starting over, " + reason);
    }
    if (file.isDiskFull()) {
        _hopeless = diskFull();
    }
    showProgress();
}

void FetchRun::showProgress() {
    if (!_progress.isDue()) {
        return;
    }
    QString note = QString(", %1 on the wire").arg(humanSize(_totals.bytesOnWire));
    if (_items.size() > 1) {
        note += QString(", %1 of %2 files").arg(_totals.files).arg(_items.size());
    }
    _progress.update(_present, note);
}

/// Takes out of the round what has ended.
void FetchRun::settle() {
    std::vector<FetchFile*> proved;
    for (const auto& file : _round) {
        if (file->outcome().isDone() && file->isProved()) {
            proved.push_back(file.get());
        }
    }
    putInPlace(proved);
    for (const auto& file : _round) {
        if (!file->outcome().isDone()) {
            end(*file, file->outcome());
        } else if (file->isProved()) {
            end(*file, Outcome::done());
        }
    }
    std::erase_if(_round,
                  [](const auto& file) { return !file->outcome().isDone() || file->isProved(); });
}

void FetchRun::putInPlace(const std::vector<FetchFile*>& proved) {
    std::vector<FetchFile*> arrived;
    for (FetchFile* file : proved) {
        file->giveUp(file->stamp());
        if (file->outcome().isDone() && !file->isInPlace()) {
            arrived.push_back(file);
        }
    }
    const Outcome flushed = flushAll(arrived);
    std::set<QByteArray> directories;
    for (FetchFile* file : arrived) {
        file->giveUp(flushed.isDone() ? file->partial().putInPlace() : flushed);
        directories.insert(directoryOf(file->partial().target()));
    }
    for (const QByteArray& directory : directories) {
        syncDirectory(directory);
    }
}

Outcome FetchRun::giveUp(const Outcome& outcome) {
    for (const auto& file : _round) {
        end(*file, outcome);
    }
    _round.clear();
    while (_next < _items.size()) {
        end(_items[_next++], outcome);
    }
    return outcome;
}

/// As the file service reads files, where the daemon has no room for a download.
void FetchRun::readRound() {
    if (!_hasToldOfRefusal) {
        _context.output.talk(
            "the daemon takes no more downloads at once; files are read piece by piece instead");
    }
    _hasToldOfRefusal = true;
    const auto round = std::exchange(_round, {});
    for (const auto& file : round) {
        const FetchItem item = file->item();
        if (_hopeless.isDone()) {
            _present -= file->length();
            file->close();
            read(item);
        } else {
            end(*file, _hopeless);
        }
    }
}

void FetchRun::read(FetchItem item) {
    PartialFile partial(item.local);
    PieceDigests digests;
    Outcome outcome = partial.open(digests);
    Progress progress(_context.output, text(item.remote));
    Download download({_context.files, _context.output, progress, _context.options.retries,
                       _context.options.bytesASecond},
                      item.remote, partial, digests);
    if (outcome.isDone()) {
        outcome = download.run();
        outcome = outcome.isDone() ? partial.finish(item.modified) : outcome;
        if (!outcome.isDone()) {
            outcome.message += keptText(download.bytesPresent(), partial.path());
        }
    }
    item.keptBytes = std::max<qint64>(0, download.resumedFrom());
    _totals.bytesOnWire += download.bytesPresent() - item.keptBytes;
    _present += download.bytesPresent();
    if (outcome.isDone()) {
        item.size = download.size();
    } else {
        _progress.forget(item.size - download.bytesPresent());
        partial.discardIfEmpty();
    }
    if (partial.isDiskFull() || outcome.isHopeless()) {
        _hopeless = partial.isDiskFull() ? diskFull() : outcome;
    }
    end(item, outcome);
}

void FetchRun::end(FetchFile& file, Outcome outcome) {
    FetchItem item = file.item();
    if (outcome.isDone()) {
        item.size = file.length();
    } else {
        _progress.forget(item.size - file.length());
        outcome.message += keptText(file.keptLength(), file.partial().path());
        file.partial().discardIfEmpty();
    }
    file.close();
    end(item, outcome);
}

void FetchRun::end(const FetchItem& item, const Outcome& outcome) {
    if (outcome.isDone()) {
        ++_totals.files;
        _totals.fileBytes += item.size;
        _totals.keptBytes += item.keptBytes;
    }
    _ended(item, outcome);
}

}  // namespace storagectl

#include "tools/storagectl/FetchRun.h"

#include "tools/storagectl/Download.h"
#include "tools/storagectl/LocalSource.h"

#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <set>
#include <utility>

namespace storagectl {

namespace {

// Of one request. Each file holds a descriptor; the bytes bound what a lost proof costs.
constexpr std::size_t kMostFiles = 256;
constexpr qint64 kMostNameBytes = 64 * 1024;
constexpr qint64 kMostBytes = 64 * 1024 * 1024;
/// Up to so many files are flushed one by one: a file system has more to flush than ours.
constexpr std::size_t kFewFiles = 4;
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

Outcome flush(const std::vector<FetchFile*>& files) {
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

}  // namespace

FetchRun::FetchRun(Context& context, FetchTotals& totals, const QList<FetchItem>& items,
                   const Fetch::Ended& ended)
    : _context(context),
      _totals(totals),
      _items(items),
      _ended(ended),
      _pacing(context.options.bytesASecond),
      _progress(context.output, progressName(items)),
      _retriesLeft(context.options.retries) {
    for (const FetchItem& item : items) {
        _total += std::max<qint64>(0, item.size);
    }
}

Outcome FetchRun::run() {
    _progress.begin("fetched", 0, _total);
    while (fillRound()) {
        const qsizetype leftBefore = left();
        Outcome outcome = runRound();
        if (outcome.mayRetry) {
            const bool hadProgress = _present > _mostPresent || left() < leftBefore;
            outcome = retry(outcome, hadProgress);
        }
        _mostPresent = std::max(_mostPresent, _present);
        if (!outcome.isDone()) {
            return giveUp(outcome);
        }
    }
    return _hopeless.isDone() ? Outcome::done() : giveUp(_hopeless);
}

/// Files that have not ended.
qsizetype FetchRun::left() const {
    return static_cast<qsizetype>(_round.size()) + _items.size() - _next;
}

/// Adds files to those that wait for their proof. False where there is nothing left to do.
bool FetchRun::fillRound() {
    qint64 nameBytes = 0;
    qint64 bytes = 0;
    for (const auto& file : _round) {
        nameBytes += file->requestLine().size();
    }
    while (_next < _items.size() && _hopeless.isDone() && _round.size() < kMostFiles &&
           nameBytes < kMostNameBytes && bytes < kMostBytes) {
        const FetchItem& item = _items[_next++];
        addToRound(item);
        nameBytes += item.remote.size();
        bytes += item.size;
    }
    return _hopeless.isDone() && !(_round.empty() && _next == _items.size());
}

void FetchRun::addToRound(const FetchItem& item) {
    Outcome outcome = checkWireName(item.remote);
    if (outcome.isDone() && item.size > FileService::kLargestFileBytes) {
        outcome = tooLargeFor(item.remote);
    }
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
    const auto hasFailed = [](const auto& file) { return !file->outcome().isDone(); };
    return _hopeless.isDone() && !_hasTooMany &&
           !std::all_of(_round.cbegin(), _round.cend(), hasFailed);
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

template <typename Event>
void FetchRun::tell(const Event& event) {
    if (_current < 0 || _hasTooMany) {
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
        _hopeless = Outcome::failure(ExitCode::LocalFile, "the local disk is full");
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
    const Outcome flushed = flush(arrived);
    std::set<QByteArray> directories;
    for (FetchFile* file : arrived) {
        file->giveUp(flushed.isDone() ? file->partial().putInPlace() : flushed);
        directories.insert(directoryOf(file->partial().target()));
    }
    for (const QByteArray& directory : directories) {
        syncDirectory(directory);
    }
}

Outcome FetchRun::retry(const Outcome& broken, bool hadProgress) {
    Connection& connection = _context.files.connection();
    _retriesLeft = hadProgress ? _context.options.retries : _retriesLeft;
    if (!connection.hasAnswered() || _retriesLeft == 0) {
        return broken;
    }
    --_retriesLeft;
    _context.output.talk(broken.message + "; trying again");
    const Answer answer = connection.startAfresh();
    // A broker that stays away is found out by the next attempt.
    return answer == Answer::Interrupted ? outcomeOf(answer, subjectOf(_items)) : Outcome::done();
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
    Download download({_context.files, _context.output, progress, _context.options.retries},
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
        partial.discardIfEmpty();
    }
    const bool isHopeless = outcome.code == ExitCode::NoBroker ||
                            outcome.code == ExitCode::NoDaemon ||
                            outcome.code == ExitCode::Interrupted || partial.isDiskFull();
    if (isHopeless) {
        _hopeless = outcome;
    }
    end(item, outcome);
}

void FetchRun::end(FetchFile& file, Outcome outcome) {
    FetchItem item = file.item();
    if (outcome.isDone()) {
        item.size = file.length();
    } else {
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

#include "tools/storagectl/UnitTree.h"

#include "tools/storagectl/ListingRequest.h"
#include "tools/storagectl/RemoteTree.h"

#include <algorithm>

namespace storagectl {

namespace {

/// Less than this says nothing about a rate.
constexpr qint64 kRatedMilliseconds = 50;
constexpr qint64 kRatedBytes = 64 * 1024;

bool endsTheCommand(const Outcome& outcome) {
    return outcome.isHopeless() || outcome.code == ExitCode::LocalFile;
}

}  // namespace

Outcome UnitTree::read() {
    QString whyNot = "no --folder is named for a listing";
    if (!_context.options.mirror.folder.isEmpty()) {
        whyNot.clear();
        const Outcome outcome = readListing(whyNot);
        if (endsTheCommand(outcome)) {
            return outcome;
        }
        whyNot = outcome.isDone() ? whyNot : outcome.message;
    }
    if (whyNot.isEmpty()) {
        return Outcome::done();
    }
    _context.output.talk(whyNot + "; the tree is read directory by directory");
    return walk();
}

/// Done and a reason where there is a listing that cannot be used.
Outcome UnitTree::readListing(QString& whyNot) {
    Listing listing;
    const Outcome outcome = fetchNewListing(listing);
    if (!outcome.isDone()) {
        return outcome;
    }
    if (listing.unfitLines() > 0) {
        whyNot = QString("%1 lines of the listing are no files below the root")
                     .arg(listing.unfitLines());
    } else if (listing.hasDoubtfulNames()) {
        whyNot = "a listing cannot carry all of the names that are there";
    } else {
        takeOver(listing);
    }
    return outcome;
}

/// The daemon answers the same where its storage is full, and an old listing stayed: so that one
/// goes first.
Outcome UnitTree::fetchNewListing(Listing& listing) {
    const MirrorOptions& options = _context.options.mirror;
    QByteArray path = listingPath(options.folder, options.root);
    const Answer removed = _context.files.remove(path);
    Outcome outcome = outcomeOf(removed == Answer::Refused ? Answer::Success : removed, text(path));
    if (outcome.isDone()) {
        outcome = ListingRequest(_context, options.folder, options.root).make(path);
    }
    if (!outcome.isDone()) {
        return outcome;
    }
    qint64 milliseconds = 0;
    outcome = fetchListing(_context, path, options.root, listing, milliseconds);
    if (outcome.code == ExitCode::NotFound) {
        outcome.message = text(path) + ": the daemon made none; its storage may be full";
    }
    if (listing.text().size() >= kRatedBytes && milliseconds >= kRatedMilliseconds) {
        _measuredRate = listing.text().size() * 1000 / milliseconds;
    }
    return outcome;
}

void UnitTree::takeOver(const Listing& listing) {
    _files.reserve(static_cast<qsizetype>(listing.entries().size()));
    for (const Listing::Entry& entry : listing.entries()) {
        add({listing.nameOf(entry), entry.size, entry.modified});
    }
    sort();
}

Outcome UnitTree::walk() {
    const QByteArray& root = _context.options.mirror.root;
    RemoteTree tree(_context);
    QList<RemoteEntry> entries;
    const Outcome outcome = tree.list(root, entries);
    if (!outcome.isDone()) {
        return outcome;
    }
    const QByteArray start = root.endsWith('/') ? root : root + '/';
    for (const RemoteEntry& entry : std::as_const(entries)) {
        if (entry.path == root && !entry.isDirectory) {
            return Outcome::failure(ExitCode::Failed, text(root) + ": is a file, not a directory");
        }
        const bool isBelow = entry.path.startsWith(start);
        const UnitFile file{entry.path.mid(start.size()), entry.size, entry.modified};
        if (!entry.isDirectory && !(isBelow && add(file))) {
            _isComplete = false;
        }
    }
    _isComplete = _isComplete && tree.failures() == 0;
    sort();
    return outcome;
}

/// False for a name that leads elsewhere.
bool UnitTree::add(const UnitFile& file) {
    if (!isPlainRelativePath(file.name)) {
        return false;
    }
    if (!isHiddenName(file.name)) {
        _files.append(file);
    }
    return true;
}

void UnitTree::sort() {
    const auto isBefore = [](const UnitFile& first, const UnitFile& second) {
        return first.name < second.name;
    };
    const auto isSame = [](const UnitFile& first, const UnitFile& second) {
        return first.name == second.name;
    };
    std::stable_sort(_files.begin(), _files.end(), isBefore);
    const auto once = std::unique(_files.begin(), _files.end(), isSame);
    _isComplete = _isComplete && once == _files.end();
    _files.erase(once, _files.end());
}

bool isHiddenName(const QByteArray& name) {
    return name.startsWith('.') || name.contains("/.");
}

}  // namespace storagectl

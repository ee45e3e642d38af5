#include "tools/storagectl/Commands.h"

#include "bus/Clock.h"
#include "tools/storagectl/ListingRequest.h"

namespace storagectl {

namespace {

constexpr qsizetype kShownBytes = 64 * 1024;

QString counted(const Listing& listing) {
    return QString("%1 files, %2 bytes").arg(listing.entries().size()).arg(listing.bytes());
}

void showEntry(Context& context, const Listing::Entry& entry) {
    Output& output = context.output;
    const QString path = text(Listing::pathOf(entry));
    output.object({{"command", "listing show"},
                   {"file", path},
                   {"size", entry.size},
                   {"modified", isoTime(entry.modified)}});
    const QString size =
        context.options.humanSizes ? humanSize(entry.size) : QString::number(entry.size);
    output.line(context.options.longListing
                    ? QString("- %1 %2  ").arg(size, 11).arg(isoTime(entry.modified), -25) + path
                    : path);
}

/// As it is, so that `listing diff` can read it again.
void showText(Output& output, const Listing& listing) {
    const QByteArray& bytes = listing.text();
    for (qsizetype done = 0; done < bytes.size() && !output.isClosed(); done += kShownBytes) {
        output.data(bytes.mid(done, kShownBytes));
    }
}

class ListingDifferences {
public:
    explicit ListingDifferences(Output& output) : _output(output) {}

    /// Both are sorted.
    void show(const Listing& before, const Listing& now) {
        auto old = before.entries().begin();
        auto fresh = now.entries().begin();
        while (old != before.entries().end() || fresh != now.entries().end()) {
            if (_output.isClosed()) {
                return;
            }
            const bool noOld = old == before.entries().end();
            const bool noFresh = fresh == now.entries().end();
            if (noOld || (!noFresh && fresh->path < old->path)) {
                tell("+", "new", *fresh, -1, fresh->size);
                ++fresh;
            } else if (noFresh || old->path < fresh->path) {
                tell("-", "gone", *old, old->size, -1);
                ++old;
            } else {
                compare(*old++, *fresh++);
            }
        }
    }
    bool areThere() const { return _new + _gone + _changed > 0; }
    QString summary() const {
        return QString("%1 new, %2 gone, %3 changed, %4 as before")
            .arg(_new)
            .arg(_gone)
            .arg(_changed)
            .arg(_same);
    }

private:
    void compare(const Listing::Entry& old, const Listing::Entry& fresh) {
        if (old.size == fresh.size && old.modified == fresh.modified) {
            ++_same;
        } else {
            tell("*", "changed", fresh, old.size, fresh.size);
        }
    }

    /// A size is -1 where there is no file.
    void tell(const QString& sign, const QString& change, const Listing::Entry& entry,
              qint64 before, qint64 now) {
        const QString path = text(Listing::pathOf(entry));
        QJsonObject object{{"command", "listing diff"}, {"file", path}, {"change", change}};
        QString line = sign + QString(" %1  %2").arg(qMax(before, now), 11).arg(path);
        if (before >= 0 && now >= 0) {
            line = sign + QString(" %1  %2").arg(now, 11).arg(path) +
                   (before == now ? QString(" (time)") : QString(" (was %1)").arg(before));
        }
        if (before >= 0) {
            object.insert("sizeBefore", before);
        }
        if (now >= 0) {
            object.insert("size", now);
        }
        _output.object(object);
        _output.line(line);
        int& count = before < 0 ? _new : now < 0 ? _gone : _changed;
        ++count;
    }

    Output& _output;
    int _new = 0;
    int _gone = 0;
    int _changed = 0;
    int _same = 0;
};

Outcome create(Context& context) {
    const MirrorOptions& options = context.options.mirror;
    const quint32 start = Clock::ticks();
    QByteArray path;
    Outcome outcome = ListingRequest(context, options.folder, options.root).make(path);
    if (!outcome.isDone()) {
        return outcome;
    }
    const int made = Clock::ticksSince(start);
    Listing listing;
    qint64 fetched = 0;
    outcome = fetchListing(context, path, options.root, listing, fetched);
    if (!outcome.isDone()) {
        return outcome;
    }
    context.output.object({{"command", "listing create"},
                           {"folder", text(options.folder)},
                           {"root", text(options.root)},
                           {"listing", text(path)},
                           {"files", static_cast<qint64>(listing.entries().size())},
                           {"bytes", listing.bytes()},
                           {"unfitLines", listing.unfitLines()},
                           {"milliseconds", made}});
    context.output.line(text(path));
    context.output.talk(QString("listing of %1: %2, made in %3 s")
                            .arg(text(options.root), counted(listing))
                            .arg(made / 1000.0, 0, 'f', 2));
    tellUnfitLines(context.output, listing, path);
    return outcome;
}

/// The listing that is on the unit, without making one.
Outcome fetchPresent(Context& context, Listing& listing, QByteArray& path) {
    const MirrorOptions& options = context.options.mirror;
    path = listingPath(options.folder, options.root);
    qint64 unused = 0;
    Outcome outcome = fetchListing(context, path, options.root, listing, unused);
    if (outcome.code == ExitCode::NotFound) {
        outcome.message += "; listing create makes one";
    }
    return outcome;
}

Outcome show(Context& context) {
    Listing listing;
    QByteArray path;
    const Outcome outcome = fetchPresent(context, listing, path);
    if (!outcome.isDone()) {
        return outcome;
    }
    Output& output = context.output;
    const bool isPlain = !context.options.longListing && !output.style().json;
    if (isPlain && !output.dataGoesToTerminal()) {
        showText(output, listing);
        return outcome;
    }
    for (const Listing::Entry& entry : listing.entries()) {
        if (output.isClosed()) {
            break;
        }
        showEntry(context, entry);
    }
    output.talk(counted(listing));
    tellUnfitLines(output, listing, path);
    return outcome;
}

Outcome diff(Context& context, bool& differs) {
    const MirrorOptions& options = context.options.mirror;
    Listing before;
    QByteArray beforePath = options.local;
    Outcome outcome = beforePath.isEmpty() ? fetchPresent(context, before, beforePath)
                                           : readListing(beforePath, options.root, before);
    QByteArray path;
    if (outcome.isDone()) {
        outcome = ListingRequest(context, options.folder, options.root).make(path);
    }
    Listing now;
    qint64 unused = 0;
    if (outcome.isDone()) {
        outcome = fetchListing(context, path, options.root, now, unused);
    }
    if (!outcome.isDone()) {
        return outcome;
    }
    before.sortByPath();
    now.sortByPath();
    ListingDifferences differences(context.output);
    differences.show(before, now);
    differs = differences.areThere();
    context.output.talk(differences.summary());
    tellUnfitLines(context.output, before, beforePath);
    tellUnfitLines(context.output, now, path);
    return outcome;
}

ExitCode told(Context& context, const Outcome& outcome) {
    if (!outcome.isDone()) {
        context.output.error(outcome);
    }
    return outcome.code;
}

}  // namespace

ExitCode listingCreate(Context& context) {
    return told(context, create(context));
}

ExitCode listingShow(Context& context) {
    return told(context, show(context));
}

ExitCode listingDiff(Context& context) {
    bool differs = false;
    const ExitCode code = told(context, diff(context, differs));
    return code == ExitCode::Done && differs ? ExitCode::Failed : code;
}

}  // namespace storagectl

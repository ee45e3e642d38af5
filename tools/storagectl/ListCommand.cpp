#include "tools/storagectl/Commands.h"

namespace storagectl {

namespace {

using Entry = FileService::Entry;

QString sizeText(const Entry& entry, bool human) {
    if (entry.kind == Entry::Kind::Directory) {
        return "-";
    }
    if (entry.tooLarge) {
        return ">2147483647";
    }
    return human ? humanSize(entry.size) : QString::number(entry.size);
}

QJsonObject objectFor(const QByteArray& directory, const Entry& entry) {
    const bool isFile = entry.kind == Entry::Kind::File;
    const QString name = text(entry.name);
    QJsonObject object{{"command", "ls"},
                       {"directory", text(directory)},
                       {"name", name},
                       {"type", isFile ? "file" : "directory"}};
    if (isFile) {
        object.insert("size", entry.tooLarge ? QJsonValue() : QJsonValue(entry.size));
    }
    if (entry.created >= 0) {
        object.insert("created", isoTime(entry.created));
    }
    if (entry.modified >= 0) {
        object.insert("modified", isoTime(entry.modified));
    }
    return object;
}

void show(Context& context, const QByteArray& directory, const Entry& entry) {
    Output& output = context.output;
    if (output.style().json) {
        output.object(objectFor(directory, entry));
        return;
    }
    const bool isDirectory = entry.kind == Entry::Kind::Directory;
    const QString name = output.listedName(entry.name);
    const QString shown = isDirectory ? output.bold(name) : name;
    QString line = shown;
    if (context.options.longListing) {
        line = QString("%1 %2 %3  ")
                   .arg(QChar(isDirectory ? 'd' : '-'))
                   .arg(sizeText(entry, context.options.humanSizes), 11)
                   .arg(isoTime(entry.modified), -25) +
               shown;
    }
    output.data(line.toUtf8() + '\n');
}

/// Lists what a filter matches. `shownEntries` counts them.
Outcome listMatching(Context& context, const QByteArray& directory, const QByteArray& filter,
                     int& shownEntries) {
    const Answer answer = context.files.list(directory, filter, [&](const Entry& entry) {
        show(context, directory, entry);
        ++shownEntries;
        return !context.output.isClosed();
    });
    return answer == Answer::Refused ? context.files.explain(directory, "list")
                                     : outcomeOf(answer, text(directory));
}

bool isWildcard(const QByteArray& name) {
    return name.contains('*') || name.contains('?') || name.contains('[');
}

/// A path without entries: an empty directory, a file, or nothing.
Outcome listWithoutEntries(Context& context, const QByteArray& path) {
    Entry entry;
    const Answer answer = context.files.lookUp(path, entry);
    if (answer != Answer::Success) {
        return outcomeOf(answer, text(path));
    }
    if (entry.kind == Entry::Kind::Missing) {
        return Outcome::failure(ExitCode::NotFound, text(path) + ": not found");
    }
    if (entry.kind == Entry::Kind::File) {
        show(context, directoryOf(path), entry);
    }
    return Outcome::done();
}

Outcome listLiterally(Context& context, const QByteArray& path) {
    int shownEntries = 0;
    const Outcome outcome = listMatching(context, path, "*", shownEntries);
    return outcome.isDone() && shownEntries == 0 ? listWithoutEntries(context, path) : outcome;
}

Outcome listOne(Context& context, const QByteArray& path) {
    if (context.options.paths.size() > 1) {
        context.output.line(text(path) + ':');
    }
    const QByteArray& pattern = context.options.pattern;
    const bool byWildcard = pattern.isEmpty() && isWildcard(baseNameOf(path));
    if (pattern.isEmpty() && !byWildcard) {
        return listLiterally(context, path);
    }
    int shownEntries = 0;
    Outcome outcome = listMatching(context, byWildcard ? directoryOf(path) : path,
                                   byWildcard ? baseNameOf(path) : pattern, shownEntries);
    if (!outcome.isDone() || shownEntries > 0) {
        return outcome;
    }
    if (byWildcard) {
        // "a[1]" matches "a1" and not itself.
        outcome = listLiterally(context, path);
    }
    return outcome.code == ExitCode::NotFound || !byWildcard
               ? Outcome::failure(ExitCode::NotFound, text(path) + ": no name matches")
               : outcome;
}

}  // namespace

ExitCode list(Context& context) {
    return forEachFile(context,
                       [&context](const QByteArray& path) { return listOne(context, path); });
}

}  // namespace storagectl

#include "tools/storagectl/Commands.h"

#include "tools/storagectl/PartialFile.h"
#include "tools/storagectl/Upload.h"

#include <QElapsedTimer>

#include <sys/stat.h>

namespace storagectl {

namespace {

/// Shorter than this a rate says nothing.
constexpr qint64 kRatedMilliseconds = 50;

/// Standard output as the place where a file goes.
class DataSink : public Sink {
public:
    DataSink(Output& output, const QByteArray& path) : _output(output), _path(path) {}

    Outcome append(const QByteArray& bytes) override {
        if (_output.style().json) {
            _output.object({{"command", "cat"},
                            {"file", text(_path)},
                            {"offset", _length},
                            {"base64", QString::fromLatin1(bytes.toBase64())}});
        } else {
            _output.data(bytes);
        }
        _length += bytes.size();
        return _output.isClosed() ? Outcome::failure(ExitCode::Failed, "the reader is gone")
                                  : Outcome::done();
    }
    bool startOver() override { return false; }

private:
    Output& _output;
    QByteArray _path;
    qint64 _length = 0;
};

QString summary(const QString& what, qint64 size, qint64 resumedFrom, qint64 milliseconds) {
    const double seconds = static_cast<double>(milliseconds) / 1000;
    QString line = what + QString(", %1 bytes in %2 s").arg(size).arg(seconds, 0, 'f', 2);
    if (milliseconds >= kRatedMilliseconds) {
        line += QString(" (%1/s)").arg(humanSize((size - resumedFrom) * 1000 / milliseconds));
    }
    if (resumedFrom > 0) {
        line += QString(", of which %1 were there").arg(resumedFrom);
    }
    return line;
}

bool isLocalDirectory(const QByteArray& path) {
    struct stat status = {};
    return ::stat(path.constData(), &status) == 0 && S_ISDIR(status.st_mode);
}

/// "file" or "directory" or "" becomes the file's own local name. Empty where it has none.
QByteArray localTargetFor(const QByteArray& target, const QByteArray& path) {
    const QByteArray name = baseNameOf(path);
    if (target.isEmpty()) {
        return name;
    }
    const bool isDirectory = target.endsWith('/') || isLocalDirectory(target);
    if (!isDirectory) {
        return target;
    }
    return name.isEmpty() ? name : target + (target.endsWith('/') ? "" : "/") + name;
}

QString kept(qint64 bytes, const QByteArray& partialPath) {
    return bytes == 0 ? QString()
                      : QString("; %1 bytes are kept in %2, the same command goes on from there")
                            .arg(bytes)
                            .arg(text(partialPath));
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

struct Fetched {
    QByteArray path;
    QByteArray target;
    qint64 modified;
    qint64 milliseconds;
};

void reportFetched(Context& context, const Fetched& fetched, const Download& download) {
    FileService::Entry now;
    const bool isKnown = context.files.lookUp(fetched.path, now) == Answer::Success &&
                         now.kind == FileService::Entry::Kind::File;
    const bool grew = isKnown && (now.tooLarge || now.size > download.size());
    if (grew) {
        const QString size =
            now.tooLarge ? QString("more than 2147483647") : QString::number(now.size);
        context.output.talk(text(fetched.path) +
                            QString(": grew to %1 bytes meanwhile; fetched as it was, %2 bytes")
                                .arg(size)
                                .arg(download.size()));
    }
    const qint64 modified = fetched.modified;
    QJsonObject object{{"command", "get"},
                       {"file", text(fetched.path)},
                       {"target", text(fetched.target)},
                       {"size", download.size()},
                       {"resumedFrom", download.resumedFrom()},
                       {"grew", grew},
                       {"milliseconds", fetched.milliseconds}};
    object.insert("modified", modified < 0 ? QJsonValue() : QJsonValue(isoTime(modified)));
    context.output.object(object);
    context.output.talk(summary(text(fetched.path) + " -> " + text(fetched.target), download.size(),
                                download.resumedFrom(), fetched.milliseconds));
    if (modified < 0) {
        context.output.talk(text(fetched.path) +
                            ": its modification time cannot be asked, the daemon does not list it");
    }
}

/// `taken` holds the targets of the command so far: files of many folders have one name.
Outcome getOne(Context& context, const QByteArray& path, QByteArrayList& taken) {
    const QByteArray target = localTargetFor(context.options.localTarget, path);
    if (target.isEmpty()) {
        return Outcome::failure(ExitCode::Unsafe, text(path) + ": has no name to be stored under");
    }
    if (taken.contains(target)) {
        return Outcome::failure(ExitCode::Unsafe,
                                QString("%1: would replace %2, which this command has just "
                                        "fetched; use a directory for each")
                                    .arg(text(path), text(target)));
    }
    taken.append(target);
    FileService::Entry entry;
    Outcome outcome = lookUpFile(context, path, entry);
    PartialFile partial(target);
    PieceDigests digests;
    if (outcome.isDone()) {
        outcome = partial.open(digests);
    }
    if (!outcome.isDone()) {
        return outcome;
    }
    QElapsedTimer timer;
    timer.start();
    Progress progress(context.output, text(path));
    Download download({context.files, context.output, progress, context.options.retries}, path,
                      partial, digests);
    outcome = download.run();
    if (outcome.isDone()) {
        outcome = partial.finish(entry.modified);
    }
    if (!outcome.isDone()) {
        partial.discardIfEmpty();
        outcome.message += kept(download.bytesPresent(), partial.path());
        return outcome;
    }
    reportFetched(context, {path, target, entry.modified, timer.elapsed()}, download);
    return outcome;
}

Outcome catOne(Context& context, const QByteArray& path) {
    DataSink sink(context.output, path);
    PieceDigests digests;
    Progress progress(context.output, text(path));
    Download download({context.files, context.output, progress, context.options.retries}, path,
                      sink, digests);
    return download.run();
}

/// The path that a file is sent to: a directory gets it under its local name.
Outcome remoteTargetFor(Context& context, const QByteArray& local, QByteArray& remote) {
    FileService::Entry entry;
    const Answer answer = context.files.lookUp(remote, entry);
    if (answer != Answer::Success) {
        return outcomeOf(answer, text(remote));
    }
    if (entry.kind == FileService::Entry::Kind::OutsideRoots && !remote.endsWith('/')) {
        return context.files.explain(remote, "write");
    }
    if (remote.endsWith('/') || entry.kind == FileService::Entry::Kind::Directory) {
        remote += (remote.endsWith('/') ? "" : "/") + baseNameOf(local);
    }
    return Outcome::done();
}

Outcome putOne(Context& context, const QByteArray& local, QByteArray remote) {
    LocalSource source;
    Outcome outcome = source.open(local);
    if (outcome.isDone()) {
        outcome = remoteTargetFor(context, local, remote);
    }
    if (outcome.isDone()) {
        outcome = checkWireName(remote);
    }
    if (!outcome.isDone()) {
        return outcome;
    }
    QElapsedTimer timer;
    timer.start();
    Progress progress(context.output, text(local));
    PieceDigests digests;
    Upload upload({context.files, context.output, progress, context.options.retries}, source,
                  remote, digests);
    outcome = upload.run();
    if (!outcome.isDone()) {
        outcome.message += kept(upload.bytesPresent(), upload.partialPath());
        return outcome;
    }
    context.output.object({{"command", "put"},
                           {"file", text(local)},
                           {"target", text(remote)},
                           {"size", source.size()},
                           {"resumedFrom", upload.resumedFrom()},
                           {"milliseconds", timer.elapsed()}});
    context.output.talk(summary(text(local) + " -> " + text(remote), source.size(),
                                upload.resumedFrom(), timer.elapsed()));
    return outcome;
}

}  // namespace

ExitCode get(Context& context) {
    const QByteArray& target = context.options.localTarget;
    const bool isOneName = !target.isEmpty() && !isLocalDirectory(target);
    if (context.options.paths.size() > 1 && isOneName) {
        const Outcome outcome = Outcome::failure(
            ExitCode::Usage, text(target) + ": several files need a directory to go to");
        context.output.error(outcome);
        return outcome.code;
    }
    QByteArrayList taken;
    return forEachFile(context,
                       [&](const QByteArray& path) { return getOne(context, path, taken); });
}

ExitCode cat(Context& context) {
    return forEachFile(context,
                       [&context](const QByteArray& path) { return catOne(context, path); });
}

ExitCode put(Context& context) {
    const QByteArray local = context.options.paths.first();
    const QByteArray remote = context.options.paths.last();
    Outcome outcome = checkWireName(remote);
    if (outcome.isDone()) {
        outcome = putOne(context, local, remote);
    }
    if (!outcome.isDone()) {
        context.output.error(outcome, text(local));
    }
    return outcome.code;
}

}  // namespace storagectl

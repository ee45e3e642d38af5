#include "tools/storagectl/Commands.h"

#include "tools/storagectl/PartialFile.h"
#include "tools/storagectl/Upload.h"

#include <QElapsedTimer>

namespace storagectl {

namespace {

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
        outcome.message += keptText(upload.bytesPresent(), upload.partialPath());
        return outcome;
    }
    context.output.object({{"command", "put"},
                           {"file", text(local)},
                           {"target", text(remote)},
                           {"size", source.size()},
                           {"resumedFrom", upload.resumedFrom()},
                           {"milliseconds", timer.elapsed()}});
    context.output.talk(summaryText(text(local) + " -> " + text(remote), source.size(),
                                    upload.resumedFrom(), timer.elapsed()));
    return outcome;
}

}  // namespace

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

#include "tools/storagectl/Commands.h"

#include <QDir>

namespace storagectl {

namespace {

using Kind = FileService::Entry::Kind;

bool isLost(Answer answer) {
    return answer == Answer::NoDaemon || answer == Answer::NoBroker;
}

/// What stands at a path after a break. False where nobody can be asked.
bool lookAgain(Context& context, const QByteArray& path, FileService::Entry& entry) {
    return context.files.connection().startAfresh() == Answer::Success &&
           context.files.lookUp(path, entry) == Answer::Success;
}

/// The answer to a deletion was lost. It is not sent again: a new file of that name may have come.
Outcome checkRemoved(Context& context, const QByteArray& path, Answer answer) {
    FileService::Entry entry;
    if (!lookAgain(context, path, entry)) {
        Outcome outcome = outcomeOf(answer, text(path));
        outcome.message += "; whether it was deleted is not known";
        return outcome;
    }
    if (entry.kind == Kind::Missing) {
        context.output.talk(text(path) + ": the answer was lost, but it is gone");
        return Outcome::done();
    }
    return Outcome::failure(ExitCode::Failed, text(path) +
                                                  ": the answer was lost and it is still "
                                                  "there; the deletion was not repeated");
}

Outcome removeOne(Context& context, const QByteArray& path) {
    Answer answer = context.files.remove(path);
    if (answer == Answer::Refused) {
        return context.files.explain(path, "delete");
    }
    const Outcome outcome =
        isLost(answer) ? checkRemoved(context, path, answer) : outcomeOf(answer, text(path));
    if (outcome.isDone()) {
        context.output.object({{"command", "rm"}, {"file", text(path)}});
        context.output.detail(text(path) + ": deleted");
    }
    return outcome;
}

/// The answer to a move was lost. It is not sent again: a move whose source is gone deletes what
/// stands at the target, which is the file that the first one moved.
Outcome checkMoved(Context& context, const QByteArray& from, const QByteArray& to, Answer answer) {
    FileService::Entry source;
    FileService::Entry target;
    if (!lookAgain(context, from, source) || !lookAgain(context, to, target)) {
        Outcome outcome = outcomeOf(answer, text(from));
        outcome.message += "; whether it was moved is not known, look before you repeat it";
        return outcome;
    }
    if (source.kind == Kind::Missing && target.kind != Kind::Missing) {
        context.output.talk(text(from) + ": the answer was lost, but it is gone and " + text(to) +
                            " is there");
        return Outcome::done();
    }
    const QString state = source.kind == Kind::Missing
                              ? "neither it nor the target is there"
                              : "it is still there; the move was not repeated";
    return Outcome::failure(ExitCode::Failed, text(from) + ": the answer was lost and " + state);
}

/// Refuses before anything is sent: a move whose source is missing would delete the target.
Outcome checkMove(Context& context, const QByteArray& from, const QByteArray& to) {
    if (QDir::cleanPath(text(from)) == QDir::cleanPath(text(to))) {
        return Outcome::failure(ExitCode::Unsafe, text(from) + ": source and target are the same");
    }
    FileService::Entry source;
    FileService::Entry target;
    Answer answer = context.files.lookUp(from, source);
    if (answer == Answer::Success) {
        answer = context.files.lookUp(to, target);
    }
    if (answer != Answer::Success) {
        return outcomeOf(answer, text(from));
    }
    if (source.kind == Kind::Missing || source.kind == Kind::OutsideRoots) {
        return context.files.explain(from, "move");
    }
    if (target.kind == Kind::Directory) {
        return Outcome::failure(ExitCode::Failed,
                                text(to) + ": is a directory; name the file that is to be in it");
    }
    if (target.kind == Kind::OutsideRoots) {
        return context.files.explain(to, "replace");
    }
    return Outcome::done();
}

Outcome moveOne(Context& context, const QByteArray& from, const QByteArray& to) {
    Outcome outcome = checkMove(context, from, to);
    if (!outcome.isDone()) {
        return outcome;
    }
    const Answer answer = context.files.move(from, to);
    if (answer == Answer::Refused) {
        const Outcome reason = context.files.explain(directoryOf(to), "write to");
        return reason.code == ExitCode::NotFound
                   ? reason
                   : Outcome::failure(ExitCode::Failed,
                                      text(from) + ": the daemon could not move it to " + text(to));
    }
    return isLost(answer) ? checkMoved(context, from, to, answer) : outcomeOf(answer, text(from));
}

Outcome truncateOpen(Context& context, const QByteArray& path, qint64 size) {
    FileService::OpenFile file;
    Answer answer = context.files.open(path, FileService::ReadOnly, file);
    if (answer == Answer::Success) {
        context.files.close(file);
        // Only now: an open for writing makes the file where it is missing.
        answer = context.files.open(path, FileService::ReadWrite, file);
    }
    if (answer == Answer::Refused) {
        return context.files.explain(path, "open");
    }
    if (answer == Answer::Success) {
        answer = context.files.truncate(file, size);
    }
    if (answer == Answer::Success || answer == Answer::Refused) {
        context.files.close(file);
    }
    return answer == Answer::Refused
               ? Outcome::failure(ExitCode::Failed, text(path) + ": the daemon could not resize it")
               : outcomeOf(answer, text(path));
}

ExitCode finish(Context& context, const Outcome& outcome, const QByteArray& path,
                const QJsonObject& result) {
    if (outcome.isDone()) {
        context.output.object(result);
    } else {
        context.output.error(outcome, text(path));
    }
    return outcome.code;
}

}  // namespace

ExitCode removeFiles(Context& context) {
    return forEachFile(context,
                       [&context](const QByteArray& path) { return removeOne(context, path); });
}

ExitCode moveFile(Context& context) {
    const QByteArray from = context.options.paths.first();
    const QByteArray to = context.options.paths.last();
    Outcome outcome = checkWireName(from);
    if (outcome.isDone()) {
        outcome = checkWireName(to);
    }
    if (outcome.isDone()) {
        outcome = moveOne(context, from, to);
    }
    return finish(context, outcome, from,
                  {{"command", "mv"}, {"from", text(from)}, {"to", text(to)}});
}

ExitCode truncateFile(Context& context) {
    const QByteArray path = context.options.paths.first();
    const qint64 size = context.options.size;
    Outcome outcome = checkWireName(path);
    if (outcome.isDone() && size > FileService::kLargestFileBytes) {
        outcome = tooLargeFor(path);
    }
    if (outcome.isDone()) {
        outcome = truncateOpen(context, path, size);
    }
    return finish(context, outcome, path,
                  {{"command", "truncate"}, {"file", text(path)}, {"size", size}});
}

}  // namespace storagectl

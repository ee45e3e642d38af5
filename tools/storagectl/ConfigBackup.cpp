#include "tools/storagectl/ConfigBackup.h"

namespace storagectl {

namespace {

using Kind = FileService::Entry::Kind;

}  // namespace

Outcome ConfigBackup::run(bool isReplaced) {
    Outcome outcome = lookBefore(isReplaced);
    if (!outcome.isDone()) {
        return outcome;
    }
    bool flag = false;
    const Answer answer = _unit.backup(_folder, _archive, flag);
    outcome = outcomeOf(answer, text(_archive));
    if (answer == Answer::Interrupted) {
        outcome.message += "; the unit goes on packing";
        return outcome;
    }
    const bool isLost = answer == Answer::NoDaemon || answer == Answer::NoBroker;
    if (isLost && _unit.awaitIdle() != Answer::Success) {
        outcome.message += "; whether it was made is not known";
        return outcome;
    }
    if (!isLost && !outcome.isDone()) {
        return outcome;
    }
    if (!isLost && !flag) {
        return Outcome::failure(ExitCode::Failed, text(_archive) + ": the daemon refuses the name");
    }
    outcome = lookAfter();
    if (isLost && outcome.isDone()) {
        _context.output.talk(text(_archive) + ": the answer was lost, but the archive is there");
    }
    return outcome;
}

Outcome ConfigBackup::lookBefore(bool isReplaced) {
    FileService::Entry entry;
    const Outcome outcome = _unit.find(_archive, entry);
    if (!outcome.isDone() || entry.kind == Kind::Missing) {
        return outcome;
    }
    if (entry.kind != Kind::File) {
        return Outcome::failure(ExitCode::Failed, text(_archive) + ": is no file on the unit");
    }
    if (!isReplaced) {
        return Outcome::failure(
            ExitCode::Unsafe,
            text(_archive) + ": is there already; name another one, or give --replace");
    }
    _size = entry.size;
    return digestNow(_digestBefore);
}

Outcome ConfigBackup::lookAfter() {
    FileService::Entry entry;
    Outcome outcome = _unit.find(_archive, entry);
    if (!outcome.isDone()) {
        return outcome;
    }
    if (entry.kind != Kind::File || entry.size == 0) {
        return Outcome::failure(ExitCode::Failed,
                                text(_archive) +
                                    ": the daemon made no archive; its storage may be full, or a "
                                    "file changed while it was packed");
    }
    _size = entry.size;
    QByteArray digest;
    if (!_digestBefore.isEmpty()) {
        outcome = digestNow(digest);
    }
    if (outcome.isDone() && !digest.isEmpty() && digest == _digestBefore) {
        return Outcome::failure(ExitCode::Failed,
                                text(_archive) +
                                    ": is what it was before, the daemon made no new "
                                    "archive; its storage may be full");
    }
    return outcome;
}

Outcome ConfigBackup::digestNow(QByteArray& digest) {
    ConfigUnit::File file{ConfigUnit::pathOf(_archive), _size};
    const Outcome outcome = _unit.digest(file);
    digest = file.digest;
    return outcome;
}

}  // namespace storagectl

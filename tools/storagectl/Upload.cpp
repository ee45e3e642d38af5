#include "tools/storagectl/Upload.h"

namespace storagectl {

namespace {

// What Linux file systems allow.
constexpr qsizetype kLongestNameBytes = 255;

}  // namespace

Upload::Upload(const TransferTools& tools, LocalSource& source, const QByteArray& path,
               PieceDigests& digests)
    : Transfer(tools, path, digests), _source(source) {}

Outcome Upload::attempt() {
    FileService::OpenFile file;
    Outcome outcome = openPartial(file);
    if (!outcome.isDone()) {
        return outcome;
    }
    outcome = takeUp(file);
    if (outcome.isDone()) {
        outcome = send(file);
    }
    if (!outcome.mayRetry) {
        _tools.files.close(file);
    }
    if (outcome.isDone() && _source.hasChanged()) {
        outcome = Outcome::failure(ExitCode::Integrity,
                                   text(_source.path()) + ": changed while it was sent");
    }
    if (outcome.isDone()) {
        outcome = verify();
    }
    return outcome.isDone() ? moveIntoPlace() : outcome;
}

Outcome Upload::openPartial(FileService::OpenFile& file) {
    const Answer answer = _tools.files.open(partialPath(), FileService::ReadWrite, file);
    if (answer != Answer::Refused) {
        return outcomeOf(answer, text(partialPath()));
    }
    const QByteArray directory = directoryOf(_path);
    const Outcome reason = _tools.files.explain(directory, "create a file in");
    const bool isDirectory = reason.code == ExitCode::Failed;
    if (!isDirectory) {
        return reason;
    }
    const bool isTooLong = baseNameOf(partialPath()).size() > kLongestNameBytes;
    return Outcome::failure(ExitCode::Failed,
                            text(partialPath()) + (isTooLong ? ": this name is too long for a file"
                                                             : ": the daemon could not create it"));
}

Outcome Upload::takeUp(const FileService::OpenFile& file) {
    bool proved = !file.tooLarge && file.size <= _source.size();
    Outcome outcome;
    if (proved) {
        outcome = _source.digest(file.size, _digests);
        if (outcome.isDone()) {
            outcome = prove(file, proved);
        }
    }
    if (outcome.isDone() && !proved) {
        _tools.output.talk(text(partialPath()) + ": starting over, it is not the beginning of " +
                           text(_source.path()));
        _digests.clear();
        outcome = outcomeOf(_tools.files.truncate(file, 0), text(partialPath()));
    }
    if (outcome.isDone()) {
        _confirmed = _digests.length();
        _resumedFrom = _resumedFrom < 0 ? _confirmed : _resumedFrom;
    }
    return outcome;
}

Outcome Upload::send(const FileService::OpenFile& file) {
    Connection& connection = _tools.files.connection();
    _tools.progress.begin("sent", _confirmed, _source.size());
    while (_confirmed < _source.size()) {
        Outcome outcome = postChunks(file);
        if (!outcome.isDone()) {
            return outcome;
        }
        Connection::Answered answered;
        const Answer answer = connection.next(answered);
        if (answer == Answer::Refused) {
            // A handle left open would hold the space of a file that is deleted to make room.
            _tools.files.close(file);
            return {
                ExitCode::Failed,
                text(partialPath()) + ": the daemon could not write to it (its disk may be full)",
                true};
        }
        if (answer != Answer::Success) {
            return outcomeOf(answer, text(partialPath()));
        }
        int sent = 0;
        answered.request.parameterAsBLOB(2, sent);
        if (answered.reply.parameterAsInt32(1) != sent) {
            return outcomeOf(Answer::Unfit, text(partialPath()));
        }
        _confirmed += sent;
        _tools.progress.update(_confirmed);
    }
    return Outcome::done();
}

Outcome Upload::postChunks(const FileService::OpenFile& file) {
    Connection& connection = _tools.files.connection();
    QByteArray bytes;
    while (_digests.length() < _source.size() && connection.underWay() < kWindow) {
        const qint64 offset = _digests.length();
        const qint64 length = qMin<qint64>(kChunkBytes, _source.size() - offset);
        const Outcome outcome = _source.read(offset, length, bytes);
        if (!outcome.isDone()) {
            return outcome;
        }
        Message request;
        request.construct(MESSAGE_FILE_WRITE, "iiB", file.handle, offset, length,
                          bytes.constData());
        connection.post(request);
        _digests.add(bytes.constData(), length);
    }
    return Outcome::done();
}

Outcome Upload::verify() {
    bool whole = false;
    const Outcome outcome = proveWhole(partialPath(), whole);
    if (!outcome.isDone() || whole) {
        return outcome;
    }
    return Outcome::failure(
        ExitCode::Integrity,
        text(partialPath()) + ": what the unit holds differs from the local file by size or MD5");
}

Outcome Upload::moveIntoPlace() {
    const Answer answer = _tools.files.move(partialPath(), _path);
    if (answer == Answer::Success) {
        return Outcome::done();
    }
    if (answer == Answer::Refused) {
        return Outcome::failure(ExitCode::Failed,
                                text(partialPath()) +
                                    ": whole and verified, but the daemon could not move it onto " +
                                    text(_path));
    }
    return checkMove(answer);
}

Outcome Upload::checkMove(Answer answer) {
    bool whole = false;
    Outcome outcome = outcomeOf(answer, text(_path));
    if (_tools.files.connection().startAfresh() == Answer::Success) {
        outcome = proveWhole(_path, whole);
    }
    if (whole) {
        return Outcome::done();
    }
    const ExitCode code = outcome.isDone() ? ExitCode::Failed : outcome.code;
    return Outcome::failure(
        code, text(_path) + ": the answer to the move from " + text(partialPath()) +
                  " was lost, and the target is not (yet) the new "
                  "file; the move is not repeated, the same command goes on from there");
}

Outcome Upload::proveWhole(const QByteArray& path, bool& whole) {
    FileService::OpenFile file;
    const Answer answer = _tools.files.open(path, FileService::ReadOnly, file);
    if (answer == Answer::Refused) {
        return Outcome::done();
    }
    if (answer != Answer::Success) {
        return outcomeOf(answer, text(path));
    }
    whole = !file.tooLarge && file.size == _source.size();
    const Outcome outcome = whole ? prove(file, whole) : Outcome::done();
    if (!outcome.isDone()) {
        whole = false;
        return outcome;
    }
    _tools.files.close(file);
    return outcome;
}

}  // namespace storagectl

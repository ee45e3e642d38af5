#include "tools/storagectl/Download.h"

#include "bus/Clock.h"

#include <algorithm>

namespace storagectl {

Download::Download(const TransferTools& tools, const QByteArray& path, Sink& sink,
                   PieceDigests& digests)
    : Transfer(tools, path, digests), _sink(sink) {}

Outcome Download::attempt() {
    FileService::OpenFile file;
    const Answer answer = _tools.files.open(_path, FileService::ReadOnly, file);
    if (answer == Answer::Refused) {
        return _tools.files.explain(_path, "open");
    }
    if (answer != Answer::Success) {
        return outcomeOf(answer, text(_path));
    }
    Outcome outcome = takeUp(file);
    if (outcome.isDone()) {
        outcome = fetch(file);
    }
    if (outcome.isDone()) {
        outcome = verify(file);
    }
    if (!outcome.mayRetry) {
        _tools.files.close(file);
    }
    return outcome;
}

Outcome Download::takeUp(const FileService::OpenFile& file) {
    if (file.tooLarge) {
        return tooLargeFor(_path);
    }
    if (_size < 0) {
        _size = file.size;
    } else if (file.size < _size) {
        return Outcome::failure(
            ExitCode::Integrity,
            text(_path) + QString(": became shorter while it was read: %1 bytes, now %2")
                              .arg(_size)
                              .arg(file.size));
    }
    Outcome outcome;
    bool proved = true;
    if (_digests.length() > _size) {
        outcome = startOver("the partial file is longer than the file");
    } else if (_digests.length() > 0) {
        outcome = prove(file, proved);
    }
    if (outcome.isDone() && !proved) {
        // Another file by now: so many bytes of it never were a whole one.
        _size = file.size;
        outcome = startOver("the partial file has other contents");
    }
    if (outcome.isDone() && _resumedFrom < 0) {
        _resumedFrom = _digests.length();
    }
    return outcome;
}

Outcome Download::startOver(const QString& reason) {
    if (!_sink.startOver()) {
        return Outcome::failure(ExitCode::Integrity, text(_path) + ": changed while it was read");
    }
    _tools.output.talk(text(_path) + ": starting over, " + reason);
    _digests.clear();
    return Outcome::done();
}

Outcome Download::fetch(const FileService::OpenFile& file) {
    Connection& connection = _tools.files.connection();
    // With a rate one request at a time, of a second's bytes at the most.
    const qint64 rate = _tools.bytesASecond;
    const int window = rate > 0 ? 1 : kWindow;
    const qint64 chunkBytes = rate > 0 ? std::min<qint64>(rate, kChunkBytes) : kChunkBytes;
    qint64 asked = _digests.length();
    _tools.progress.begin("fetched", asked, _size);
    while (_digests.length() < _size) {
        const qint64 before = _digests.length();
        const quint32 start = Clock::ticks();
        while (asked < _size && connection.underWay() < window) {
            const qint64 length = std::min(chunkBytes, _size - asked);
            Message request;
            request.construct(MESSAGE_FILE_READ, "iii", file.handle, asked, length);
            connection.post(request);
            asked += length;
        }
        Connection::Answered answered;
        const Answer answer = connection.next(answered);
        Outcome outcome =
            answer == Answer::Success ? take(answered) : outcomeOf(answer, text(_path));
        if (outcome.isDone() && rate > 0) {
            outcome = holdBack(_digests.length() - before, start);
        }
        if (!outcome.isDone()) {
            return outcome;
        }
        _tools.progress.update(_digests.length());
    }
    return Outcome::done();
}

/// Until so many bytes have taken the time that they may.
Outcome Download::holdBack(qint64 bytes, quint32 since) {
    const qint64 milliseconds = bytes * 1000 / _tools.bytesASecond - (Clock::ticks() - since);
    return outcomeOf(
        _tools.files.connection().pause(static_cast<int>(std::max<qint64>(0, milliseconds))),
        text(_path));
}

Outcome Download::take(const Connection::Answered& answered) {
    int length = 0;
    const char* block = answered.reply.parameterAsBLOB(2, length);
    const bool isNext = answered.request.parameterAsInt32(1) == _digests.length();
    if (!isNext || length != answered.request.parameterAsInt32(2)) {
        return outcomeOf(Answer::Unfit, text(_path));
    }
    const Outcome outcome = _sink.append(QByteArray::fromRawData(block, length));
    if (outcome.isDone()) {
        _digests.add(block, length);
    }
    return outcome;
}

Outcome Download::verify(const FileService::OpenFile& file) {
    bool proved = true;
    const Outcome outcome = prove(file, proved);
    if (!outcome.isDone() || proved) {
        return outcome;
    }
    return Outcome::failure(ExitCode::Integrity,
                            text(_path) +
                                ": what arrived differs from the "
                                "file by its MD5; it may have been changed while it was read");
}

}  // namespace storagectl

#include "tools/storagectl/ConfigUnit.h"

#include "bus/Clock.h"
#include "core/shared/StoragePaths.h"
#include "tools/storagectl/ConfigGzip.h"
#include "tools/storagectl/Download.h"

#include <algorithm>
#include <optional>

namespace storagectl {

namespace {

/// The daemon gives tar 240 s, and serves nobody meanwhile.
constexpr int kLongestTarMilliseconds = 240'000;
/// Never issued, so that closing it costs nothing and always brings an answer.
constexpr int kNoHandle = -1;
/// Their handles must not expire while the first of them are hashed.
constexpr qsizetype kFilesAtOnce = 32;
constexpr qint64 kBytesAtOnce = 16 * 1024 * 1024;
/// A slow unit's pace.
constexpr qint64 kHashBytesPerMillisecond = 4096;
constexpr int kDigestBytes = 16;

/// Reads an archive while it is fetched, so that it needs no room here.
class ArchiveSink : public Sink {
public:
    ArchiveSink(const QByteArray& path, ConfigContents& contents)
        : _path(path), _contents(contents) {
        startOver();
    }

    Outcome append(const QByteArray& bytes) override {
        _digest.addData(bytes);
        _length += bytes.size();
        _gzip->add(bytes);
        return fault().isEmpty() ? Outcome::done() : damaged(fault());
    }

    bool startOver() override {
        _contents = {};
        _hasTooMany = false;
        _digest.reset();
        _length = 0;
        _tar.emplace([this](const TarMember& member) {
            _hasTooMany = !_contents.add(member);
            return !_hasTooMany;
        });
        _gzip.emplace(
            [this](const char* data, qsizetype length) { return _tar->add(data, length); });
        return true;
    }

    ConfigUnit::File file() const { return {_path, _length, _digest.result()}; }

    Outcome finish() {
        _contents.finish();
        return _gzip->isWhole() && _tar->isWhole() ? Outcome::done() : damaged("it is cut short");
    }

private:
    QString fault() const {
        if (_hasTooMany) {
            return "it holds more files than a configuration has";
        }
        return _tar->fault().isEmpty() ? _gzip->fault() : _tar->fault();
    }

    Outcome damaged(const QString& why) const {
        return Outcome::failure(ExitCode::Integrity,
                                text(_path) + ": a damaged archive, or none: " + why);
    }

    QByteArray _path;
    ConfigContents& _contents;
    bool _hasTooMany = false;
    QCryptographicHash _digest{QCryptographicHash::Md5};
    qint64 _length = 0;
    std::optional<ConfigTar> _tar;
    std::optional<ConfigGzip> _gzip;
};

int extraFor(qint64 bytes) {
    return static_cast<int>(bytes / kHashBytesPerMillisecond);
}

}  // namespace

void ConfigUnit::status(const QString& line) {
    const Output::Style& style = _context.output.style();
    if (!style.quiet && !style.json) {
        _context.output.status(line);
    }
}

QByteArray ConfigUnit::pathOf(const QByteArray& name) {
    return QByteArray(StoragePaths::kConfigRoot) + '/' + name;
}

Outcome ConfigUnit::list(const QByteArray& folder, QList<RemoteEntry>& entries) {
    RemoteTree tree(_context);
    Outcome outcome = tree.listDirectory(StoragePaths::kConfigRoot, entries);
    const bool hasFolder = std::any_of(entries.begin(), entries.end(), [&](const auto& entry) {
        return entry.isDirectory && entry.path == pathOf(folder);
    });
    if (outcome.isDone() && hasFolder) {
        QList<RemoteEntry> below;
        outcome = tree.list(pathOf(folder), below);
        entries.append(below);
    }
    const QByteArray root = pathOf({});
    for (RemoteEntry& entry : entries) {
        entry.path = entry.path.startsWith(root) ? entry.path.mid(root.size()) : entry.path;
    }
    return tree.failures() == 0 || !outcome.isDone()
               ? outcome
               : Outcome::failure(
                     ExitCode::Failed,
                     QString("%1: not all of it could be listed").arg(StoragePaths::kConfigRoot));
}

Outcome ConfigUnit::find(const QByteArray& archive, FileService::Entry& entry) {
    const QByteArray path = pathOf(archive);
    return outcomeOf(_context.files.lookUp(path, entry), text(path));
}

Outcome ConfigUnit::read(const QByteArray& archive, ConfigContents& contents, File& file) {
    const QByteArray path = pathOf(archive);
    ArchiveSink sink(path, contents);
    PieceDigests digests;
    Progress progress(_context.output, text(path));
    Download download({_context.files, _context.output, progress, _context.options.retries}, path,
                      sink, digests);
    const Outcome outcome = download.run();
    const Outcome finished = sink.finish();
    file = sink.file();
    return outcome.isDone() ? finished : outcome;
}

Outcome ConfigUnit::digest(File& file) {
    QList<File> files{file};
    const Outcome outcome = digest(files);
    file = files.first();
    return outcome;
}

Outcome ConfigUnit::digest(QList<File>& files) {
    int retriesLeft = _context.options.retries;
    qsizetype next = 0;
    while (next < files.size()) {
        const qsizetype before = next;
        status(QString("%1 of %2 files compared").arg(next).arg(files.size()));
        const Outcome outcome = digestSome(files, next);
        if (!outcome.isDone() && (!outcome.mayRetry || retriesLeft == 0)) {
            return outcome;
        }
        if (!outcome.isDone()) {
            retriesLeft = next > before ? _context.options.retries : retriesLeft - 1;
            _context.output.talk(outcome.message + "; trying again");
            _context.files.connection().startAfresh();
        }
    }
    status({});
    return Outcome::done();
}

Outcome ConfigUnit::digestSome(QList<File>& files, qsizetype& next) {
    qsizetype end = next;
    qint64 bytes = 0;
    while (end < files.size() && end - next < kFilesAtOnce &&
           (end == next || bytes + files[end].size <= kBytesAtOnce)) {
        bytes += files[end++].size;
    }
    QList<FileService::OpenFile> open;
    Answer answer = openSome(files.mid(next, end - next), open);
    if (answer == Answer::Success) {
        answer = digestOpen(open, files, next);
    }
    if (answer == Answer::Success) {
        answer = closeSome(open);
    }
    if (answer == Answer::Success) {
        next = end;
    }
    return outcomeOf(answer, StoragePaths::kConfigRoot);
}

Answer ConfigUnit::openSome(const QList<File>& files, QList<FileService::OpenFile>& open) {
    Connection& connection = _context.files.connection();
    connection.abandon();
    for (const File& file : files) {
        Message request;
        request.construct(MESSAGE_FILE_OPEN, "Si", file.path.constData(), FileService::ReadOnly);
        connection.post(request);
    }
    while (open.size() < files.size()) {
        Connection::Answered answered;
        const Answer answer = connection.next(answered);
        if (answer != Answer::Success) {
            return answer;
        }
        open.append({answered.reply.parameterAsInt32(1), answered.reply.parameterAsInt32(2)});
    }
    return Answer::Success;
}

/// A file that changed its size, or cannot be read, has no digest.
Answer ConfigUnit::digestOpen(const QList<FileService::OpenFile>& open, QList<File>& files,
                              qsizetype first) {
    Connection& connection = _context.files.connection();
    QList<qsizetype> asked;
    qint64 bytes = 0;
    for (qsizetype i = 0; i < open.size(); ++i) {
        if (open[i].handle < 0 || open[i].size != files[first + i].size) {
            continue;
        }
        Message request;
        request.construct(MESSAGE_FILE_GENERATE_HASH, "iii", open[i].handle, 0, open[i].size);
        connection.post(request);
        asked.append(first + i);
        bytes += open[i].size;
    }
    for (const qsizetype index : asked) {
        Connection::Answered answered;
        const Answer answer = connection.next(answered, extraFor(bytes));
        if (answer != Answer::Success && answer != Answer::Refused) {
            return answer;
        }
        int length = 0;
        const char* const block = answered.reply.parameterAsBLOB(2, length);
        if (length == kDigestBytes) {
            files[index].digest = QByteArray(block, length);
        }
    }
    return Answer::Success;
}

Answer ConfigUnit::closeSome(const QList<FileService::OpenFile>& open) {
    Connection& connection = _context.files.connection();
    for (const FileService::OpenFile& file : open) {
        if (file.handle >= 0) {
            Message request;
            request.construct(MESSAGE_FILE_CLOSE, "i", file.handle);
            connection.post(request);
        }
    }
    while (connection.underWay() > 0) {
        Connection::Answered answered;
        const Answer answer = connection.next(answered);
        if (answer != Answer::Success && answer != Answer::Refused) {
            return answer;
        }
    }
    return Answer::Success;
}

Answer ConfigUnit::backup(const QByteArray& folder, const QByteArray& archive, bool& flag) {
    status(text(archive) + ": the unit packs it");
    return request(MESSAGE_CONFIG_BACKUP, folder, archive, flag);
}

Answer ConfigUnit::restore(const QByteArray& folder, const QByteArray& archive, bool& flag) {
    status(text(archive) + ": the unit restores it");
    return request(MESSAGE_CONFIG_RESTORE, folder, archive, flag);
}

Answer ConfigUnit::request(int command, const QByteArray& folder, const QByteArray& archive,
                           bool& flag) {
    Message message;
    message.construct(command, "SS", folder.constData(), archive.constData());
    Message reply;
    const Answer answer = _context.files.connection().ask(message, reply, kLongestTarMilliseconds);
    flag = reply.parameterAsByte(0) == 1;
    status({});
    return answer;
}

/// Asked again and again: what is sent before the daemon has joined the bus again is lost.
Answer ConfigUnit::awaitIdle() {
    Connection& connection = _context.files.connection();
    Message request;
    request.construct(MESSAGE_FILE_CLOSE, "i", kNoHandle);
    const quint32 start = Clock::ticks();
    for (;;) {
        const Answer afresh = connection.startAfresh();
        if (afresh != Answer::Success) {
            return afresh;
        }
        Message reply;
        const Answer answer = connection.ask(request, reply);
        const bool isLost = answer == Answer::NoDaemon || answer == Answer::NoBroker;
        if (!isLost || Clock::ticksSince(start) >= kLongestTarMilliseconds) {
            return answer == Answer::Refused ? Answer::Success : answer;
        }
    }
}

}  // namespace storagectl

#include "tools/storagectl/FileService.h"

#include "core/shared/StoragePaths.h"

#include <QDir>
#include <QStringDecoder>

namespace storagectl {

namespace {

constexpr int kEntriesUnderWay = 32;
constexpr int kDigestBytes = 16;
// A slow unit's pace; a longer range may take longer to hash.
constexpr qint64 kHashBytesPerMillisecond = 4096;
constexpr qint64 kNoTime = 0xFFFFFFFF;

qint64 timeOf(qint32 wireSeconds) {
    // Unsigned on the wire, so that it lasts beyond 2038.
    const qint64 seconds = static_cast<quint32>(wireSeconds);
    return seconds == kNoTime ? -1 : seconds;
}

FileService::Entry entryOf(const Message& reply) {
    using Entry = FileService::Entry;
    const int length = reply.parameterAsInt32(3);
    Entry entry;
    entry.kind = length == -1 ? Entry::Kind::Directory : Entry::Kind::File;
    entry.name = reply.parameterAsString(2);
    entry.size = length < 0 ? 0 : length;
    entry.tooLarge = length < -1;
    entry.created = timeOf(reply.parameterAsInt32(4));
    entry.modified = timeOf(reply.parameterAsInt32(5));
    return entry;
}

/// A filter that a name is sure to pass, whatever wildcard characters it holds. Others may too.
QByteArray filterFor(QByteArray name) {
    for (const char special : {'*', '[', ']', '\\'}) {
        name.replace(special, '?');
    }
    return name;
}

/// Why a path outside the roots is refused, and what to name instead.
QString outsideRootsText(const QString& path) {
    using namespace StoragePaths;
    const QString cleaned = QDir::cleanPath(path);
    if (cleaned == QLatin1String(kDataRoot) || cleaned == QLatin1String(kConfigRoot)) {
        return QString(
                   "%1: the daemon serves only what lies below this folder; name that, for "
                   "example %2/NAME")
            .arg(path, cleaned);
    }
    return QString("%1: refused by the daemon: it serves only what lies below %2, %3 and %4")
        .arg(path, kDataRoot, kConfigRoot, kCardRoot);
}

QByteArray withoutTrailingSlashes(QByteArray path) {
    while (path.size() > 1 && path.endsWith('/')) {
        path.chop(1);
    }
    return path;
}

}  // namespace

Answer FileService::open(const QByteArray& path, OpenFlags flags, OpenFile& file) {
    Message request;
    request.construct(MESSAGE_FILE_OPEN, "Si", path.constData(), flags);
    Message reply;
    const Answer answer = _connection.ask(request, reply);
    if (answer != Answer::Success) {
        return answer;
    }
    file.handle = reply.parameterAsInt32(1);
    file.size = reply.parameterAsInt32(2);
    if (file.handle < 0) {
        return Answer::Refused;
    }
    file.tooLarge = file.size < 0;
    if (file.tooLarge) {
        return Answer::Success;
    }
    // The length is cut to 32 bits. Only a file that has a byte at the last offset is larger.
    request.construct(MESSAGE_FILE_READ, "iii", file.handle, static_cast<int>(kLargestFileBytes),
                      1);
    const Answer probe = _connection.ask(request, reply);
    file.tooLarge = probe == Answer::Success;
    return probe == Answer::Refused ? Answer::Success : probe;
}

void FileService::close(const OpenFile& file) {
    Message request;
    request.construct(MESSAGE_FILE_CLOSE, "i", file.handle);
    Message reply;
    _connection.ask(request, reply);
}

Answer FileService::truncate(const OpenFile& file, qint64 size) {
    Message request;
    request.construct(MESSAGE_FILE_TRUNCATE, "ii", file.handle, static_cast<int>(size));
    Message reply;
    return _connection.ask(request, reply);
}

Answer FileService::hash(const OpenFile& file, qint64 offset, qint64 length, QByteArray& digest) {
    Message request;
    request.construct(MESSAGE_FILE_GENERATE_HASH, "iii", file.handle, static_cast<int>(offset),
                      static_cast<int>(length));
    Message reply;
    const int extra = static_cast<int>(length / kHashBytesPerMillisecond);
    const Answer answer = _connection.ask(request, reply, extra);
    if (answer != Answer::Success) {
        return answer;
    }
    int bytes = 0;
    const char* block = reply.parameterAsBLOB(2, bytes);
    digest = QByteArray(block, bytes);
    return bytes == kDigestBytes ? Answer::Success : Answer::Unfit;
}

Answer FileService::prove(const OpenFile& file, const QList<PieceDigests::Piece>& pieces,
                          bool& proved, const std::function<void(qint64)>& progress) {
    proved = true;
    for (const PieceDigests::Piece& piece : pieces) {
        QByteArray digest;
        const Answer answer = hash(file, piece.offset, piece.length, digest);
        if (answer != Answer::Success) {
            return answer;
        }
        proved = digest == piece.digest;
        if (!proved) {
            return Answer::Success;
        }
        progress(piece.offset + piece.length);
    }
    return Answer::Success;
}

Answer FileService::remove(const QByteArray& path) {
    Message request;
    request.construct(MESSAGE_FILE_DELETE, "S", path.constData());
    Message reply;
    return _connection.ask(request, reply);
}

Answer FileService::move(const QByteArray& from, const QByteArray& to) {
    Message request;
    request.construct(MESSAGE_FILE_MOVE, "SS", from.constData(), to.constData());
    Message reply;
    return _connection.ask(request, reply);
}

Answer FileService::list(const QByteArray& path, const QByteArray& filter,
                         const std::function<bool(const Entry&)>& visit) {
    Message request;
    request.construct(MESSAGE_OPEN_DIRECTORY, "SS", path.constData(), filter.constData());
    Message reply;
    Answer answer = _connection.ask(request, reply);
    if (answer != Answer::Success) {
        return answer;
    }
    const int handle = reply.parameterAsInt32(1);
    const int count = reply.parameterAsInt32(2);
    bool wanted = true;
    int asked = 0;
    for (int seen = 0; seen < count && (wanted || seen < asked); ++seen) {
        while (wanted && asked < count && asked - seen < kEntriesUnderWay) {
            request.construct(MESSAGE_GET_FILE_IN_DIR, "ii", handle, asked++);
            _connection.post(request);
        }
        Connection::Answered entry;
        answer = _connection.next(entry);
        if (answer != Answer::Success) {
            // A refusal of the list as a whole has another meaning.
            return answer == Answer::Refused ? Answer::Unfit : answer;
        }
        wanted = wanted && visit(entryOf(entry.reply));
    }
    request.construct(MESSAGE_CLOSE_DIRECTORY, "i", handle);
    _connection.ask(request, reply);
    return Answer::Success;
}

Answer FileService::lookUp(const QByteArray& path, Entry& entry) {
    bool parentListed = false;
    const Answer answer = lookUpInParent(path, entry, parentListed);
    const bool settled = parentListed && entry.kind != Entry::Kind::Missing;
    // A name that begins with a point is never listed.
    const bool hidden = baseNameOf(path).startsWith('.') || baseNameOf(path).isEmpty();
    if (answer != Answer::Success || settled || (parentListed && !hidden)) {
        return answer;
    }
    return lookUpByOpening(path, entry);
}

Answer FileService::lookUpInParent(const QByteArray& path, Entry& entry, bool& parentListed) {
    entry = {};
    const QByteArray name = baseNameOf(path);
    const Answer answer = list(directoryOf(path), filterFor(name), [&](const Entry& candidate) {
        if (candidate.name != name) {
            return true;
        }
        entry = candidate;
        return false;
    });
    parentListed = answer == Answer::Success;
    return answer == Answer::Refused ? Answer::Success : answer;
}

Answer FileService::lookUpByOpening(const QByteArray& path, Entry& entry) {
    entry = {};
    entry.name = baseNameOf(path);
    OpenFile file;
    Answer answer = open(path, ReadOnly, file);
    if (answer == Answer::Success) {
        close(file);
        entry.kind = Entry::Kind::File;
        entry.size = file.size;
        entry.tooLarge = file.tooLarge;
    }
    if (answer != Answer::Refused) {
        return answer;
    }
    answer = list(path, "*", [&entry](const Entry&) {
        entry.kind = Entry::Kind::Directory;
        return false;
    });
    if (answer == Answer::Refused) {
        entry.kind = Entry::Kind::OutsideRoots;
        return Answer::Success;
    }
    return answer;
}

Outcome FileService::explain(const QByteArray& path, const QString& verb) {
    Entry entry;
    const Answer answer = lookUp(path, entry);
    if (answer != Answer::Success) {
        return outcomeOf(answer, text(path));
    }
    switch (entry.kind) {
        case Entry::Kind::Missing:
            return Outcome::failure(ExitCode::NotFound, text(path) + ": not found");
        case Entry::Kind::OutsideRoots:
            return Outcome::failure(ExitCode::Unsafe, outsideRootsText(text(path)));
        case Entry::Kind::Directory:
            return Outcome::failure(ExitCode::Failed, text(path) + ": is a directory");
        case Entry::Kind::File:
            break;
    }
    return Outcome::failure(ExitCode::Failed,
                            text(path) + ": the daemon could not " + verb + " it");
}

Outcome checkWireName(const QByteArray& path) {
    QStringDecoder decoder(QStringConverter::Utf8);
    const QString decoded = decoder(path);
    QString fault;
    if (path.isEmpty()) {
        fault = "an empty name";
    } else if (path.contains('\0')) {
        fault = "a name with a zero byte";
    } else if (decoder.hasError() || decoded.toUtf8() != path) {
        fault = "a name that is not valid UTF-8";
    } else {
        return Outcome::done();
    }
    return Outcome::failure(ExitCode::Unsafe,
                            text(path) + ": " + fault + " cannot be put on the wire");
}

Outcome tooLargeFor(const QByteArray& path) {
    return Outcome::failure(
        ExitCode::Unsafe, text(path) +
                              ": larger than 2147483647 bytes: sizes "
                              "and offsets have 32 bits on the wire, so it cannot be transferred");
}

QString text(const QByteArray& path) {
    return QString::fromUtf8(path);
}

QByteArray directoryOf(const QByteArray& path) {
    const QByteArray plain = withoutTrailingSlashes(path);
    const qsizetype slash = plain.lastIndexOf('/');
    if (slash < 0) {
        return ".";
    }
    return slash == 0 ? QByteArray("/") : plain.left(slash);
}

QByteArray baseNameOf(const QByteArray& path) {
    const QByteArray plain = withoutTrailingSlashes(path);
    const QByteArray name = plain.mid(plain.lastIndexOf('/') + 1);
    return name == "." || name == ".." ? QByteArray() : name;
}

}  // namespace storagectl

#include "tests/tools/FakeDaemon.h"

#include "filesystem/FileProtocol.h"

#include <QCryptographicHash>
#include <QRegularExpression>
#include <QSet>
#include <QtEndian>

namespace {

bool isAllowed(const QByteArray& path) {
    return path.startsWith("/root/data/") || path.startsWith("/root/config/") ||
           path.startsWith("/mmc");
}

QByteArray framed(const QByteArray& connection, const Message& reply) {
    return connection + QByteArray(reply.buffer(), reply.length());
}

}  // namespace

void FakeDaemon::attach(FakeTransport& transport) {
    _transport = &transport;
    transport.onWait = [this](int milliseconds) { serve(milliseconds); };
}

void FakeDaemon::detach() {
    for (const FakeTransport::Sent& frame : std::as_const(_transport->sent)) {
        if (frame.token != "Message.storage") {
            otherSent.append(frame);
        }
    }
    connects = _transport->connects();
    _transport = nullptr;
}

void FakeDaemon::reply(const Message& message) {
    _transport->deliver("ConnectionManager.clientMessage", framed(_lastConnection, message));
}

int FakeDaemon::count(int command) const {
    int result = 0;
    for (const Message& request : requests) {
        result += request.command() == command ? 1 : 0;
    }
    return result;
}

void FakeDaemon::serve(int milliseconds) {
    bool delivered = false;
    const QList<FakeTransport::Sent> sent = std::exchange(_transport->sent, {});
    for (const FakeTransport::Sent& frame : sent) {
        if (frame.token != "Message.storage") {
            otherSent.append(frame);
            if (onOther) {
                onOther(frame);
            }
            delivered = takeReport(frame) || delivered;
            continue;
        }
        _lastConnection = frame.payload.left(4);
        Message request;
        request.construct(frame.payload.constData() + 4, int(frame.payload.size()) - 4);
        requests.push_back(request);
        const Fate given = fate ? fate(request) : Fate::Answered;
        if (given == Fate::LostRequest) {
            continue;
        }
        if (given == Fate::Answered && onDownload && request.command() == MESSAGE_LZF_DOWNLOAD) {
            delivered = onDownload(_lastConnection, request) || delivered;
            continue;
        }
        Message reply;
        if (given == Fate::Bare || !answer(request, reply)) {
            reply.construct(request.command(), "");
        }
        if (spoil) {
            spoil(request, reply);
        }
        if (given != Fate::LostReply) {
            _transport->deliver("ConnectionManager.clientMessage",
                                framed(frame.payload.left(4), reply));
            delivered = true;
        }
    }
    if (!delivered) {
        _clock.tick += quint32(milliseconds);
        if (onIdle) {
            onIdle();
        }
    }
}

bool FakeDaemon::takeReport(const FakeTransport::Sent& frame) {
    if (!onDownload || !frame.token.startsWith("ConnectionManager.writeCount.")) {
        return false;
    }
    Message report;
    report.construct(frame.payload.constData(), int(frame.payload.size()));
    QByteArray connection(4, '\0');
    qToLittleEndian<qint32>(report.parameterAsInt32(0), connection.data());
    return onDownload(connection, report);
}

bool FakeDaemon::answer(const Message& request, Message& reply) {
    switch (request.command()) {
        case MESSAGE_FILE_OPEN:
            return openFile(request, reply);
        case MESSAGE_FILE_DELETE:
            return files.remove(request.parameterAsString(0)) > 0 &&
                   reply.construct(request.command(), "S", request.parameterAsString(0));
        case MESSAGE_FILE_MOVE:
            return moveFile(request, reply);
        case MESSAGE_OPEN_DIRECTORY:
            return openDirectory(request, reply);
        case MESSAGE_GET_FILE_IN_DIR:
            return entry(request, reply);
        case MESSAGE_GENERATE_LISTING:
            return makeListing(request, reply);
        case MESSAGE_CLOSE_DIRECTORY:
            return _listings.remove(request.parameterAsInt32(0)) > 0 &&
                   reply.construct(request.command(), "i", request.parameterAsInt32(0));
        default:
            return (onFurther && onFurther(request, reply)) || answerByHandle(request, reply);
    }
}

bool FakeDaemon::answerByHandle(const Message& request, Message& reply) {
    const int handle = request.parameterAsInt32(0);
    if (!_open.contains(handle)) {
        return false;
    }
    QByteArray& contents = files[_open[handle]].contents;
    switch (request.command()) {
        case MESSAGE_FILE_CLOSE:
            _open.remove(handle);
            return reply.construct(request.command(), "i", handle);
        case MESSAGE_FILE_READ:
            return readFile(request, reply);
        case MESSAGE_FILE_WRITE:
            return writeFile(request, reply);
        case MESSAGE_FILE_TRUNCATE:
            contents.resize(request.parameterAsInt32(1), '\0');
            return reply.construct(request.command(), "i", handle);
        case MESSAGE_FILE_GENERATE_HASH: {
            const QByteArray range =
                contents.mid(request.parameterAsInt32(1), request.parameterAsInt32(2));
            const QByteArray digest = QCryptographicHash::hash(range, QCryptographicHash::Md5);
            return range.size() == request.parameterAsInt32(2) &&
                   reply.construct(request.command(), "iiB", handle, request.parameterAsInt32(1),
                                   digest.size(), digest.constData());
        }
        default:
            return false;
    }
}

bool FakeDaemon::openFile(const Message& request, Message& reply) {
    const QByteArray path = request.parameterAsString(0);
    const bool writes = (request.parameterAsInt32(1) & 0x2) != 0;
    if (!isAllowed(path) || (!writes && !files.contains(path))) {
        return reply.construct(request.command(), "Sii", path.constData(), -1, -1);
    }
    files[path];
    _open[_nextHandle] = path;
    return reply.construct(request.command(), "Sii", path.constData(), _nextHandle++, sizeOf(path));
}

bool FakeDaemon::readFile(const Message& request, Message& reply) {
    const QByteArray path = _open[request.parameterAsInt32(0)];
    const qint64 offset = request.parameterAsInt32(1);
    const int length = request.parameterAsInt32(2);
    if (offset + length > sizeOf(path)) {
        return false;
    }
    const QByteArray bytes = files[path].contents.mid(offset, length).leftJustified(length, '\0');
    return reply.construct(request.command(), "iiB", request.parameterAsInt32(0), offset, length,
                           bytes.constData());
}

bool FakeDaemon::writeFile(const Message& request, Message& reply) {
    QByteArray& contents = files[_open[request.parameterAsInt32(0)]].contents;
    const int offset = request.parameterAsInt32(1);
    int length = 0;
    const char* block = request.parameterAsBLOB(2, length);
    contents.resize(qMax<qsizetype>(contents.size(), offset + length), '\0');
    contents.replace(offset, length, block, length);
    return reply.construct(request.command(), "ii", request.parameterAsInt32(0), length);
}

/// As the real one: the target is gone even where the source is missing.
bool FakeDaemon::moveFile(const Message& request, Message& reply) {
    const QByteArray from = request.parameterAsString(0);
    const QByteArray to = request.parameterAsString(1);
    files.remove(to);
    if (!files.contains(from)) {
        return false;
    }
    files[to] = files.take(from);
    return reply.construct(request.command(), "SS", from.constData(), to.constData());
}

bool FakeDaemon::openDirectory(const Message& request, Message& reply) {
    const QByteArray path = request.parameterAsString(0);
    if (!isAllowed(path + (path == "/root/data" ? "" : "/"))) {
        return false;
    }
    const QRegularExpression matches(
        QRegularExpression::wildcardToRegularExpression(request.parameterAsString(1)));
    QList<QByteArray> names;
    for (auto file = files.cbegin(); file != files.cend(); ++file) {
        if (!file.key().startsWith(path + '/')) {
            continue;
        }
        const QByteArray below = file.key().mid(path.size() + 1);
        const QByteArray name = below.contains('/') ? below.left(below.indexOf('/')) + '/' : below;
        const QByteArray plain = name.endsWith('/') ? name.chopped(1) : name;
        if (!plain.startsWith('.') && !names.contains(name) &&
            matches.match(QString::fromUtf8(plain)).hasMatch()) {
            names.append(name);
        }
    }
    _listings[_nextHandle] = names;
    for (QByteArray& name : _listings[_nextHandle]) {
        name = path + '/' + name;
    }
    return reply.construct(request.command(), "Sii", path.constData(), _nextHandle++, names.size());
}

/// Lists `files` of a root that has any, and keeps the listing among them.
bool FakeDaemon::makeListing(const Message& request, Message& reply) {
    const QByteArray root = request.parameterAsString(1);
    QByteArray lines;
    for (auto file = files.cbegin(); file != files.cend(); ++file) {
        if (file.key().startsWith(root + '/') && !file.key().contains("/.")) {
            lines += QByteArray::number(sizeOf(file.key())) + ',' +
                     QByteArray::number(file->modified) + ',' +
                     QString::fromUtf8(file.key()).toLatin1() + '\n';
        }
    }
    QByteArray path;
    if (!lines.isEmpty()) {
        path = QByteArray("/root/data/") + request.parameterAsString(0) + "/.files." +
               QByteArray(root).replace('/', '.');
        files[path].contents = lines;
    }
    return reply.construct(MESSAGE_LISTING_FINISHED, "SS", root.constData(), path.constData());
}

bool FakeDaemon::entry(const Message& request, Message& reply) {
    const int handle = request.parameterAsInt32(0);
    const int index = request.parameterAsInt32(1);
    if (!_listings.contains(handle) || index < 0 || index >= _listings[handle].size()) {
        return false;
    }
    QByteArray path = _listings[handle][index];
    const bool isDirectory = path.endsWith('/');
    if (isDirectory) {
        path.chop(1);
    }
    const QByteArray name = path.mid(path.lastIndexOf('/') + 1);
    const int modified = isDirectory ? 1'600'000'000 : files[path].modified;
    return reply.construct(request.command(), "iiSiii", handle, index, name.constData(),
                           isDirectory ? -1 : int(sizeOf(path)), modified, modified);
}

qint64 FakeDaemon::sizeOf(const QByteArray& path) const {
    return pretendedSizes.value(path, files[path].contents.size());
}

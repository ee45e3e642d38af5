#include "tests/tools/FakeDownloads.h"

#include "filesystem/FileProtocol.h"

#include <QCryptographicHash>
#include <QtEndian>

#include <lzf.h>

namespace {

constexpr int kMostQueued = 90'112;
constexpr int kMessageBytes = 8150;
constexpr int kBlockBytes = 64'512;

QByteArray block(const QByteArray& bytes, int flags) {
    QByteArray shrunk(bytes.size(), Qt::Uninitialized);
    const unsigned length = lzf_compress(bytes.constData(), unsigned(bytes.size()), shrunk.data(),
                                         unsigned(bytes.size()) - 1);
    return length > 0 ? FakeDownloads::record(2 | flags, shrunk.left(length))
                      : FakeDownloads::record(1 | flags, bytes);
}

QByteArray numberBytes(quint32 number) {
    QByteArray bytes(4, '\0');
    qToLittleEndian(number, bytes.data());
    return bytes;
}

}  // namespace

FakeDownloads::FakeDownloads(FakeDaemon& daemon) : _daemon(daemon) {
    daemon.onDownload = [this](const QByteArray& connection, const Message& message) {
        return message.command() == MESSAGE_LZF_DOWNLOAD
                   ? begin(connection, message)
                   : report(connection, message.parameterAsInt32(1));
    };
}

FakeDownloads::~FakeDownloads() {
    _daemon.onDownload = {};
}

QByteArray FakeDownloads::record(int type, const QByteArray& payload) {
    QByteArray bytes(3, char(type));
    qToLittleEndian(quint16(payload.size()), bytes.data() + 1);
    return bytes + payload;
}

bool FakeDownloads::begin(const QByteArray& connection, const Message& request) {
    const QByteArrayList entries = QByteArray(request.parameterAsString(1)).split('\n');
    requests.push_back(entries);
    if (refuses) {
        Message bare;
        bare.construct(MESSAGE_LZF_DOWNLOAD, "");
        _daemon.reply(bare);
        return true;
    }
    QByteArray stream;
    for (const QByteArray& entry : entries) {
        stream += packed(entry);
    }
    stream += record(4);
    if (spoil) {
        spoil(stream);
    }
    _jobs[connection] = {request.parameterAsInt32(0), stream};
    Message wish;
    wish.construct(MESSAGE_WRITE_COUNT, "i", qFromLittleEndian<qint32>(connection.constData()));
    _daemon.transport().deliver("ConnectionManager.to", {wish.buffer(), wish.length()});
    return true;
}

bool FakeDownloads::report(const QByteArray& connection, int count) {
    reports.push_back(count);
    bool delivered = false;
    while (_jobs.contains(connection) && unsigned(count) <= kMostQueued) {
        Job& job = _jobs[connection];
        if (onMessage && !onMessage(_messages++)) {
            _jobs.remove(connection);
            break;
        }
        const QByteArray piece = job.rest.left(kMessageBytes);
        job.rest.remove(0, piece.size());
        count += int(piece.size());
        Message message;
        message.construct(MESSAGE_LZF_DOWNLOAD, "iB", job.transfer, int(piece.size()),
                          piece.constData());
        _daemon.transport().deliver("ConnectionManager.clientMessage",
                                    connection + QByteArray(message.buffer(), message.length()));
        delivered = true;
        if (job.rest.isEmpty()) {
            _jobs.remove(connection);
        }
    }
    return delivered;
}

QByteArray FakeDownloads::packed(const QByteArray& entry) const {
    const QByteArrayList parts = entry.split('|');
    const QByteArray path = parts[0];
    if (failures.contains(path)) {
        return record(132, failures[path]);
    }
    const auto file = _daemon.files.constFind(path);
    if (file == _daemon.files.cend()) {
        return path.endsWith("/.") ? packedDirectory(path.chopped(2)) : record(132, "Missing");
    }
    const QByteArray& contents = file->contents;
    const qsizetype offset = parts.size() == 3 ? parts[2].toInt() : 0;
    const QByteArray hash =
        QCryptographicHash::hash(contents.left(offset), QCryptographicHash::Md5).toBase64();
    const bool resumes = offset > 0 && offset <= contents.size() && hash == parts[1];
    return packedFile(contents, resumes ? offset : 0);
}

QByteArray FakeDownloads::packedFile(const QByteArray& contents, qsizetype from) const {
    if (contents.isEmpty() || from == contents.size()) {
        return record(contents.isEmpty() ? 5 : 21);
    }
    QByteArray records;
    int flags = from > 0 ? 4 | 16 : 4;
    for (qsizetype at = from; at < contents.size(); at += kBlockBytes) {
        records += block(contents.mid(at, kBlockBytes), flags);
        flags = 0;
    }
    return records;
}

/// All of it in one block; a directory is what files are below.
QByteArray FakeDownloads::packedDirectory(const QByteArray& path) const {
    QMap<QByteArray, QByteArray> entries;
    for (auto file = _daemon.files.cbegin(); file != _daemon.files.cend(); ++file) {
        if (!file.key().startsWith(path + '/')) {
            continue;
        }
        const QByteArrayList below = file.key().mid(path.size() + 1).split('/');
        const QByteArray name = QString::fromUtf8(below[0]).toLatin1();
        const bool isDirectory = below.size() > 1;
        const auto size = isDirectory ? 4096U : quint32(file->contents.size());
        entries[below[0]] = QByteArray(1, isDirectory ? '\1' : '\0') + numberBytes(size) +
                            numberBytes(quint32(file->modified)) +
                            numberBytes(quint32(name.size())) + name;
    }
    return entries.isEmpty() ? record(132, "Missing") : block(entries.values().join(), 4 | 8);
}

#include "hashing/FileHashManager.h"

#include "core/shared/RegularFile.h"
#include "core/shared/StoragePaths.h"

#include <QCryptographicHash>
#include <QtEndian>

#include <algorithm>

namespace {

constexpr int kReadBufferBytes = 8192;

}  // namespace

FileHashManager::FileHashManager(QObject* parent) : QObject(parent), _debug("FileHashManager") {}

bool FileHashManager::validateFilename(const QString& filename) {
    return StoragePaths::isAllowed(filename);
}

QString FileHashManager::calculateFileHash(const QString& filename, int offset, int length) {
    QFile file;
    if (!RegularFile::open(file, filename, QIODevice::ReadOnly)) {
        return QString();
    }
    const qint64 size = file.size();
    if (length < 0) {
        length = static_cast<int>(size);
    }
    if (offset < 0) {
        return QString();
    }
    // KEPT: the end of the range is 32-bit arithmetic, so a sum that wraps passes this test; the
    // read then finds no data.
    const qint64 end =
        static_cast<qint32>(static_cast<quint32>(offset) + static_cast<quint32>(length));
    if (end > size) {
        return QString();
    }
    const QByteArray digest = calculateFileHash(file, offset, length);
    return digest.isEmpty() ? QString() : QString::fromLatin1(digest.toBase64());
}

QByteArray FileHashManager::calculateFileHash(QFile& file, int offset, int length) {
    // Asked first, because Qt prints a warning of its own for each of these.
    const bool cannotRead = length > 0 && !file.isReadable();
    if (!file.isOpen() || offset < 0 || cannotRead || !file.seek(offset)) {
        return QByteArray();
    }
    QCryptographicHash hash(QCryptographicHash::Md5);
    char buffer[kReadBufferBytes];
    int remaining = length;
    while (remaining > 0) {
        const qint64 count = file.read(buffer, std::min(remaining, kReadBufferBytes));
        if (count < 1) {
            return QByteArray();
        }
        hash.addData(QByteArrayView(buffer, count));
        remaining -= static_cast<int>(count);
    }
    return hash.result();
}

int FileHashManager::calculate32BitMemoryHash(const char* data, int length) {
    const QByteArrayView block(data, std::max(length, 0));
    const QByteArray digest = QCryptographicHash::hash(block, QCryptographicHash::Md5);
    return qFromLittleEndian<qint32>(digest.constData());
}

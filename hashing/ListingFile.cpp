#include "hashing/ListingFile.h"

#include "core/shared/PutInPlace.h"
#include "core/shared/RegularFile.h"
#include "core/shared/StoragePaths.h"

#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace {

bool isOnePathComponent(const QString& folder) {
    return !folder.isEmpty() && folder != QLatin1String(".") && folder != QLatin1String("..") &&
           !folder.contains(u'/');
}

QString keyOf(QString root) {
    return root.replace(u'/', u'.').replace(u'\\', u'.');
}

}  // namespace

ListingFile::ListingFile(const QString& folder, const QString& root)
    : _isPlaceable(isOnePathComponent(folder)) {
    const QString start = QLatin1String(StoragePaths::kDataRoot) + u'/' + folder + u'/';
    const QString key = keyOf(root);
    _place = start + QLatin1String(".files.") + key;
    _beside = start + QLatin1String(".files.temp.") + key;
}

bool ListingFile::open() {
    if (!_isPlaceable) {
        return false;
    }
    do {
        _file.close();
        if (!RegularFile::open(_file, _beside, QIODevice::ReadWrite) || !lock()) {
            return false;
        }
        // Whoever had the lock may have put this very file in its place.
    } while (!isBesideItsPlace());
    return _file.resize(0);
}

bool ListingFile::putInPlace() {
    const QByteArray beside = QFile::encodeName(_beside);
    const bool isWritten = _file.error() == QFileDevice::NoError;
    const bool isPut = isWritten && ::putInPlace(_file.handle(), beside, QFile::encodeName(_place));
    if (!isWritten) {
        ::unlink(beside.constData());
    }
    _file.close();
    return isPut;
}

bool ListingFile::lock() {
    int result = 0;
    do {
        result = ::flock(_file.handle(), LOCK_EX);
    } while (result != 0 && errno == EINTR);
    return result == 0;
}

bool ListingFile::isBesideItsPlace() const {
    struct stat own;
    struct stat beside;
    return ::fstat(_file.handle(), &own) == 0 &&
           ::stat(QFile::encodeName(_beside).constData(), &beside) == 0 &&
           own.st_dev == beside.st_dev && own.st_ino == beside.st_ino;
}

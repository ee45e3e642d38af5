#include "filesystem/Filesystem.h"

#include "bus/Clock.h"
#include "bus/DebugText.h"
#include "core/shared/RegularFile.h"
#include "core/shared/StoragePaths.h"
#include "filesystem/FileMove.h"
#include "filesystem/FileProtocol.h"
#include "filesystem/NameFilter.h"
#include "hashing/FileHashManager.h"

#include <QDateTime>
#include <QDir>

#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <limits>
#include <memory>

Filesystem* g_pFilesystem = nullptr;

namespace {

constexpr char kLogTarget[] = "Filesystem";
/// A read of up to this much is not worth asking for the file's size first.
constexpr int kUnmeasuredReadBytes = 65536;

qint64 expiryFromNow() {
    return Clock::wallSeconds() + Filesystem::kHandleIdleSeconds;
}

/// Returns the number of bytes read.
qint64 readAt(QFile& file, qint64 offset, char* data, qint64 length) {
    // Text mode leaves out carriage returns, which is Qt's to do.
    if (file.isTextModeEnabled()) {
        const bool isReady = length > 0 && file.isReadable() && file.seek(offset);
        return isReady ? std::max<qint64>(file.read(data, length), 0) : 0;
    }
    qint64 done = 0;
    while (done < length) {
        const ssize_t count = ::pread(file.handle(), data + done,
                                      static_cast<std::size_t>(length - done), offset + done);
        if (count == 0 || (count < 0 && errno != EINTR)) {
            break;
        }
        done += std::max<ssize_t>(count, 0);
    }
    return done;
}

bool writeAt(const QFile& file, qint64 offset, const char* data, qint64 length) {
    qint64 done = 0;
    // Written even where there is nothing to write: the kernel then says whether it could be.
    do {
        const ssize_t count = ::pwrite(file.handle(), data + done,
                                       static_cast<std::size_t>(length - done), offset + done);
        if (count < 0 && errno != EINTR) {
            return false;
        }
        done += std::max<ssize_t>(count, 0);
    } while (done < length);
    return true;
}

long secondsSince1970(const QDateTime& time) {
    return time.isValid() ? static_cast<long>(time.toSecsSinceEpoch()) : 0;
}

long creationTime(const QFileInfo& entry) {
    const QDateTime birth = entry.birthTime();
    return secondsSince1970(birth.isValid() ? birth : entry.metadataChangeTime());
}

}  // namespace

Filesystem::Filesystem(QObject* parent) : QObject(parent) {}

Filesystem::~Filesystem() {
    qDeleteAll(_handles);
}

void Filesystem::expireHandles() {
    const qint64 now = Clock::wallSeconds();
    for (auto it = _handles.begin(); it != _handles.end();) {
        Handle* const handle = it.value();
        if (handle->expires <= now) {
            delete handle;
            it = _handles.erase(it);
            continue;
        }
        handle->expires = std::min(handle->expires, now + kHandleIdleSeconds);
        ++it;
    }
}

int Filesystem::nextHandle() {
    int number = 0;
    do {
        number = _nextHandle;
        _nextHandle = number == std::numeric_limits<int>::max() ? 0 : number + 1;
    } while (_handles.contains(number));
    return number;
}

bool Filesystem::validateFilename(const QString& filename) {
    return StoragePaths::isAllowed(filename);
}

template <typename Kind>
Kind* Filesystem::find(int handle) const {
    return dynamic_cast<Kind*>(_handles.value(handle));
}

template <typename Kind>
Kind* Filesystem::use(int handle) const {
    Kind* const found = find<Kind>(handle);
    if (found != nullptr) {
        found->expires = expiryFromNow();
    }
    return found;
}

template <typename Kind>
bool Filesystem::close(int handle) {
    Kind* const found = find<Kind>(handle);
    if (found == nullptr) {
        return false;
    }
    _handles.remove(handle);
    delete found;
    return true;
}

int Filesystem::openFile(const QString& filename, QIODevice::OpenMode flags, int& length) {
    if (!validateFilename(filename)) {
        DebugText::send(kLogTarget, "INVALID FILENAME \"%s\"", filename.toUtf8().constData());
        return -1;
    }
    auto opened = std::make_unique<FileHandle>();
    opened->handle = nextHandle();
    opened->expires = expiryFromNow();
    opened->filename = filename;
    if (isFull() || !RegularFile::open(opened->file, filename, flags)) {
        DebugText::send(kLogTarget, "FAILED TO OPEN FILE \"%s\" with flags 0x%08X",
                        filename.toUtf8().constData(), static_cast<unsigned>(flags.toInt()));
        return -1;
    }
    length = static_cast<int>(opened->file.size());
    const int number = opened->handle;
    _handles.insert(number, opened.get());
    opened.release();
    DebugText::send(kLogTarget, "OPENED FILE \"%s\"", filename.toUtf8().constData());
    return number;
}

bool Filesystem::closeFile(int handle) {
    return close<FileHandle>(handle);
}

bool Filesystem::readFile(int handle, int offset, int length, QByteArray& data) {
    FileHandle* const opened = use<FileHandle>(handle);
    if (opened == nullptr || offset < 0) {
        return false;
    }
    data.clear();
    qint64 wanted = std::max(length, 0);
    if (wanted > kUnmeasuredReadBytes) {
        // Memory for what the file has, not for what was asked.
        wanted = std::clamp<qint64>(opened->file.size() - offset, 0, wanted);
    }
    if (wanted > kMaximumReadReplyBytes) {
        return false;
    }
    data.resize(wanted);
    data.truncate(readAt(opened->file, offset, data.data(), wanted));
    return data.size() == length;
}

bool Filesystem::writeFile(int handle, int offset, int length, const char* data) {
    const FileHandle* const opened = use<FileHandle>(handle);
    return opened != nullptr && offset >= 0 && length >= 0 &&
           writeAt(opened->file, offset, data, length);
}

bool Filesystem::generateHash(int handle, int offset, int length, QByteArray& hash) {
    FileHandle* const opened = use<FileHandle>(handle);
    if (opened == nullptr) {
        return false;
    }
    hash = FileHashManager::calculateFileHash(opened->file, offset, length);
    return !hash.isEmpty();
}

bool Filesystem::truncateFile(int handle, int size) {
    FileHandle* const opened = use<FileHandle>(handle);
    return opened != nullptr && size >= 0 && opened->file.resize(size);
}

bool Filesystem::deleteFile(const QString& filename) {
    return validateFilename(filename) && QFile::remove(filename);
}

bool Filesystem::moveFile(const QString& from, const QString& to) {
    return validateFilename(from) && validateFilename(to) &&
           moveInPlaceOf(QFile::encodeName(from), QFile::encodeName(to));
}

int Filesystem::openDirectory(const QString& path, const QString& filter, int& count) {
    if (!validateFilename(path) || isFull()) {
        return -1;
    }
    auto opened = std::make_unique<DirHandle>();
    opened->expires = expiryFromNow();
    opened->filename = path;
    const NameFilter names(filter);
    const QFileInfoList entries = QDir(path).entryInfoList(QDir::NoFilter, QDir::Name);
    for (QFileInfo entry : entries) {
        const QString name = entry.fileName();
        if (name.startsWith(u'.') || !names.matches(name)) {
            continue;
        }
        // Everything is read now: left alone, an entry would show the file as it is when asked.
        entry.stat();
        opened->entries.append(entry);
    }
    count = static_cast<int>(opened->entries.size());
    opened->handle = nextHandle();
    const int number = opened->handle;
    _handles.insert(number, opened.get());
    opened.release();
    return number;
}

bool Filesystem::closeDirectory(int handle) {
    return close<DirHandle>(handle);
}

bool Filesystem::fileInDirectory(int handle, int index, QString& name, int& length, long& created,
                                 long& modified) {
    DirHandle* const opened = find<DirHandle>(handle);
    if (opened == nullptr) {
        DebugText::send(kLogTarget, "_handles does not contain the handle!");
        return false;
    }
    if (index < 0 || index >= opened->entries.size()) {
        DebugText::send(kLogTarget, "dir index out of range!");
        return false;
    }
    opened->expires = expiryFromNow();
    const QFileInfo& entry = opened->entries.at(index);
    name = entry.fileName();
    length = entry.isDir() ? -1 : static_cast<int>(entry.size());
    created = creationTime(entry);
    modified = secondsSince1970(entry.lastModified());
    DebugText::send(kLogTarget, "file %s", name.toUtf8().constData());
    return true;
}

#include "jobs/DirectoryReader.h"

#include <QFile>

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

bool DirectoryReader::open(const QString& path) {
    _directory.reset(opendir(QFile::encodeName(path).constData()));
    _hasEntry = false;
    return isOpen();
}

void DirectoryReader::close() {
    _directory.reset();
}

DirectoryReader::Step DirectoryReader::look() {
    if (_hasEntry) {
        return Step::Found;
    }
    errno = 0;
    const dirent* const found = readdir(_directory.get());
    if (found == nullptr) {
        return errno == 0 ? Step::AtEnd : Step::Failed;
    }
    _hasEntry = readEntry(found->d_name);
    return _hasEntry ? Step::Found : Step::Skipped;
}

bool DirectoryReader::readEntry(const char* name) {
    if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) {
        return false;
    }
    struct stat status;
    if (fstatat(dirfd(_directory.get()), name, &status, 0) != 0 ||
        !(S_ISDIR(status.st_mode) || S_ISREG(status.st_mode))) {
        return false;
    }
    _entry.isDirectory = S_ISDIR(status.st_mode);
    _entry.size = static_cast<int>(status.st_size);
    _entry.modified = static_cast<quint32>(status.st_mtime);
    _entry.name = QFile::decodeName(name);
    return true;
}

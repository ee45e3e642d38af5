#include "hashing/DirectoryEntries.h"

#include <QUtf8StringView>

#include <sys/stat.h>

#include <algorithm>
#include <cstring>

namespace {

/// Bytes of UTF-8 compare as UTF-16 units do but for this: characters beyond U+FFFF (from 0xF0 on)
/// are written with surrogates, and so come before U+E000 to U+FFFF (0xEE and 0xEF).
int rank(char character) {
    const auto byte = static_cast<unsigned char>(character);
    return (byte & 0xFE) == 0xEE ? byte + 0x10 : byte;
}

bool precedes(const char* left, const char* right) {
    while (*left == *right && *left != '\0') {
        ++left;
        ++right;
    }
    return rank(*left) < rank(*right);
}

bool mayCount(unsigned char type) {
    return type == DT_REG || type == DT_DIR || type == DT_LNK || type == DT_UNKNOWN;
}

}  // namespace

DirectoryEntries::DirectoryEntries(const char* path) : _directory(opendir(path)) {}

DirectoryEntries::Identity DirectoryEntries::identity() const {
    struct stat status;
    if (!_directory || ::fstat(dirfd(_directory.get()), &status) != 0) {
        return {};
    }
    return {status.st_dev, status.st_ino};
}

void DirectoryEntries::read() {
    if (!_directory) {
        return;
    }
    while (const dirent* const found = readdir(_directory.get())) {
        add(*found);
    }
    _directory.reset();
    std::sort(_entries.begin(), _entries.end(), [this](const Entry& left, const Entry& right) {
        return left.isDirectory == right.isDirectory ? precedes(name(left), name(right))
                                                     : right.isDirectory;
    });
}

void DirectoryEntries::add(const dirent& found) {
    const std::size_t length = std::strlen(found.d_name);
    if (found.d_name[0] == '.' || !mayCount(found.d_type) ||
        !QUtf8StringView(found.d_name, static_cast<qsizetype>(length)).isValidUtf8()) {
        return;
    }
    Entry entry;
    if (!look(found, entry)) {
        return;
    }
    entry.nameOffset = _names.size();
    _names.append(found.d_name, length + 1);
    _entries.push_back(entry);
}

bool DirectoryEntries::look(const dirent& found, Entry& entry) const {
    if (found.d_type == DT_DIR) {
        entry.isDirectory = true;
        return true;
    }
    struct stat status;
    if (::fstatat(dirfd(_directory.get()), found.d_name, &status, 0) != 0) {
        return false;
    }
    entry.isFile = S_ISREG(status.st_mode);
    entry.isDirectory = S_ISDIR(status.st_mode);
    entry.size = status.st_size;
    entry.modified = status.st_mtime;
    return entry.isFile || entry.isDirectory || found.d_type == DT_LNK;
}

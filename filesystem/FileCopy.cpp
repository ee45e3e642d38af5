#include "filesystem/FileCopy.h"

#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>

namespace {

bool writeAt(int to, off_t offset, const char* data, std::size_t length) {
    for (std::size_t written = 0; written < length;) {
        const ssize_t step =
            ::pwrite(to, data + written, length - written, offset + static_cast<off_t>(written));
        if (step < 0 && errno != EINTR) {
            return false;
        }
        written += step > 0 ? static_cast<std::size_t>(step) : 0;
    }
    return true;
}

/// As much of the range as the file still has.
bool copyRange(int from, int to, off_t begin, off_t end) {
    std::array<char, 65536> buffer;
    while (begin < end) {
        const auto wanted = std::min<off_t>(end - begin, static_cast<off_t>(buffer.size()));
        const ssize_t count = ::pread(from, buffer.data(), static_cast<std::size_t>(wanted), begin);
        if (count == 0) {
            return true;
        }
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0 || !writeAt(to, begin, buffer.data(), static_cast<std::size_t>(count))) {
            return false;
        }
        begin += count;
    }
    return true;
}

}  // namespace

bool copyContents(int from, int to) {
    off_t end = 0;
    // What is added meanwhile comes along.
    for (off_t begin = ::lseek(from, 0, SEEK_DATA); begin >= 0;
         begin = ::lseek(from, end, SEEK_DATA)) {
        end = ::lseek(from, begin, SEEK_HOLE);
        if (end < 0 || !copyRange(from, to, begin, end)) {
            return false;
        }
    }
    // There is no data any more behind the last of it.
    return errno == ENXIO && ::ftruncate(to, ::lseek(from, 0, SEEK_END)) == 0;
}

void copyAttributes(int from, int to) {
    struct stat status;
    if (::fstat(from, &status) != 0) {
        return;
    }
    const std::array<timespec, 2> times = {status.st_atim, status.st_mtim};
    // The mode comes after the owner: a change of owner takes setuid away.
    [[maybe_unused]] const int isOwned = ::fchown(to, status.st_uid, status.st_gid);
    ::fchmod(to, status.st_mode & 07777);
    ::futimens(to, times.data());
}

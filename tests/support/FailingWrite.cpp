#include "tests/support/FailingWrite.h"

#include <limits>

#include <cerrno>

#include <dlfcn.h>
#include <unistd.h>

namespace {

constexpr qint64 kNoLimit = std::numeric_limits<qint64>::max();

qint64 g_room = kNoLimit;

}  // namespace

FailingWrite::FailingWrite(qint64 room) {
    g_room = room;
}

FailingWrite::~FailingWrite() {
    g_room = kNoLimit;
}

/// Stands in front of the C library's function, for this program and the libraries it uses.
extern "C" ssize_t pwrite64(int descriptor, const void* bytes, size_t count, off64_t offset) {
    static const auto real = reinterpret_cast<ssize_t (*)(int, const void*, size_t, off64_t)>(
        dlsym(RTLD_NEXT, "pwrite64"));
    if (g_room == kNoLimit) {
        return real(descriptor, bytes, count, offset);
    }
    if (static_cast<qint64>(count) > g_room) {
        errno = ENOSPC;
        return -1;
    }
    g_room -= static_cast<qint64>(count);
    return real(descriptor, bytes, count, offset);
}

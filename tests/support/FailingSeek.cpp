#include "tests/support/FailingSeek.h"

#include <cerrno>

#include <dlfcn.h>
#include <unistd.h>

namespace {

bool g_fails = false;

}  // namespace

FailingSeek::FailingSeek() {
    g_fails = true;
}

FailingSeek::~FailingSeek() {
    g_fails = false;
}

/// Stands in front of the C library's function, for this program and the libraries it uses.
extern "C" off64_t lseek64(int descriptor, off64_t offset, int whence) noexcept {
    static const auto real =
        reinterpret_cast<off64_t (*)(int, off64_t, int)>(dlsym(RTLD_NEXT, "lseek64"));
    if (g_fails) {
        errno = EIO;
        return -1;
    }
    return real(descriptor, offset, whence);
}

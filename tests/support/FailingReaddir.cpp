#include "tests/support/FailingReaddir.h"

#include <cerrno>

#include <dirent.h>
#include <dlfcn.h>

namespace {

bool g_fails = false;
int g_namesLeft = 0;

}  // namespace

FailingReaddir::FailingReaddir(int names) {
    g_namesLeft = names;
    g_fails = true;
}

FailingReaddir::~FailingReaddir() {
    g_fails = false;
}

/// Stands in front of the C library's function, for this program and the libraries it uses.
extern "C" dirent64* readdir64(DIR* directory) {
    static const auto real = reinterpret_cast<dirent64* (*)(DIR*)>(dlsym(RTLD_NEXT, "readdir64"));
    if (g_fails && g_namesLeft-- <= 0) {
        errno = EIO;
        return nullptr;
    }
    return real(directory);
}

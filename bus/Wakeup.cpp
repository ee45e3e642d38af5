#include "bus/Wakeup.h"

#include <cerrno>
#include <cstdint>

#include <sys/eventfd.h>
#include <unistd.h>

namespace {

int newDescriptor() {
    return eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
}

int g_descriptor = newDescriptor();

}  // namespace

namespace Wakeup {

int descriptor() {
    return g_descriptor;
}

void raise() {
    const int savedErrno = errno;
    const std::uint64_t one = 1;
    // It fails only where wake-ups are pending already.
    [[maybe_unused]] const auto written = ::write(g_descriptor, &one, sizeof one);
    errno = savedErrno;
}

void clear() {
    std::uint64_t count = 0;
    [[maybe_unused]] const auto taken = ::read(g_descriptor, &count, sizeof count);
}

void renew() {
    close(g_descriptor);
    g_descriptor = newDescriptor();
}

}  // namespace Wakeup

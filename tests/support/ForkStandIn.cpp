#include "tests/support/ForkStandIn.h"

#include <cerrno>
#include <cstdlib>
#include <optional>

#include <dlfcn.h>
#include <unistd.h>

namespace {

using Outcome = ForkStandIn::Outcome;

constexpr pid_t kNobody = 0x7fffffff;

Outcome g_outcome = Outcome::Works;
int g_count = 0;
/// Of the child that is played; whoever catches its end and ends it again changes nothing.
std::optional<int> g_status;

}  // namespace

ForkStandIn::ForkStandIn(Outcome outcome) {
    set(outcome);
    g_count = 0;
}

ForkStandIn::~ForkStandIn() {
    set(Outcome::Works);
}

void ForkStandIn::set(Outcome outcome) {
    g_outcome = outcome;
}

int ForkStandIn::count() const {
    return g_count;
}

extern "C" pid_t fork() noexcept {
    static const auto real = reinterpret_cast<pid_t (*)()>(dlsym(RTLD_NEXT, "fork"));
    ++g_count;
    switch (g_outcome) {
        case Outcome::Fails:
            errno = EAGAIN;
            return -1;
        case Outcome::EndsAtOnce:
            return kNobody;
        case Outcome::IsBusy:
            return getpid();
        case Outcome::IsPlayed:
            g_status.reset();
            return 0;
        default:
            return real();
    }
}

extern "C" void _exit(int status) {
    if (g_outcome == Outcome::IsPlayed) {
        g_status = g_status.value_or(status);
        throw ForkStandIn::EndOfChild{*g_status};
    }
    _Exit(status);
}

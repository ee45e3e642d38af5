#include "tests/support/ForkStandIn.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <optional>
#include <utility>
#include <vector>

#include <dlfcn.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using Outcome = ForkStandIn::Outcome;

constexpr pid_t kNobody = 0x7fffffff;

Outcome g_outcome = Outcome::Works;
int g_count = 0;
std::vector<pid_t> g_busy;
/// Of the child that is played; whoever catches its end and ends it again changes nothing.
std::optional<int> g_status;

pid_t makeBusyChild(pid_t (*realFork)()) {
    const pid_t child = realFork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        for (;;) {
            pause();
        }
    }
    if (child > 0) {
        g_busy.push_back(child);
    }
    return child;
}

}  // namespace

ForkStandIn::ForkStandIn(Outcome outcome) {
    set(outcome);
    g_count = 0;
}

ForkStandIn::~ForkStandIn() {
    set(Outcome::Works);
    for (const pid_t child : std::exchange(g_busy, {})) {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }
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
        case Outcome::IsAnothers:
            return getpid();
        case Outcome::IsBusy:
            return makeBusyChild(real);
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

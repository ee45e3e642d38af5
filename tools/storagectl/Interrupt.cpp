#include "tools/storagectl/Interrupt.h"

#include "bus/PubSubInterface.h"

#include <cerrno>
#include <csignal>

namespace storagectl {

namespace {

volatile std::sig_atomic_t g_requested = 0;

void handleSignal(int) {
    const int savedErrno = errno;
    Interrupt::request();
    errno = savedErrno;
}

}  // namespace

void Interrupt::install() {
    // Without SA_RESTART, so that a blocked write to a pager ends too.
    struct sigaction action = {};
    action.sa_handler = handleSignal;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    // A write beyond the limit on file sizes fails like one to a full disk.
    std::signal(SIGXFSZ, SIG_IGN);
}

bool Interrupt::requested() {
    return g_requested != 0;
}

void Interrupt::request() {
    g_requested = 1;
    PubSubInterface::wake();
}

void Interrupt::clear() {
    g_requested = 0;
}

}  // namespace storagectl

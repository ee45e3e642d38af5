#include "core/Signals.h"

#include "bus/DebugText.h"
#include "bus/PubSubInterface.h"
#include "core/RunState.h"
#include "core/shared/ReapedChildren.h"
#include "core/shared/Tokens.h"

#include <cerrno>
#include <csignal>

#include <unistd.h>

// 92 asterisks.
#define ASTERISKS                                    \
    "**********************************************" \
    "**********************************************"

namespace {

static_assert(sizeof ASTERISKS == 92 + 1);

void handleSIGINT(int signal) {
    DebugText::send(Tokens::kClientName, "SIGINT exception (%d)! " ASTERISKS, signal);
    g_quit = true;
    _exit(0);
}

void handleSIGUSR1(int signal) {
    const int savedErrno = errno;
    DebugText::send(Tokens::kClientName, "SIGUSR1 exception (%d)! " ASTERISKS, signal);
    g_quit = true;
    PubSubInterface::wake();
    errno = savedErrno;
}

void handleSIGPIPE(int signal) {
    const int savedErrno = errno;
    DebugText::send(Tokens::kClientName, "SIGPIPE exception (%d)! " ASTERISKS, signal);
    errno = savedErrno;
}

void sigchild_handler(int signal) {
    const int savedErrno = errno;
    DebugText::send(Tokens::kClientName, "SIGCHLD exception (%d)! " ASTERISKS, signal);
    ReapedChildren::reap();
    PubSubInterface::wake();
    errno = savedErrno;
}

void install(int signal, void (*handler)(int)) {
    struct sigaction action = {};
    action.sa_handler = handler;
    sigaction(signal, &action, nullptr);
}

}  // namespace

void installSignalHandlers() {
    install(SIGINT, handleSIGINT);
    install(SIGUSR1, handleSIGUSR1);
    install(SIGPIPE, handleSIGPIPE);
    install(SIGCHLD, sigchild_handler);
}

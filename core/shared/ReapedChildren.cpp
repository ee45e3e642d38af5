#include "core/shared/ReapedChildren.h"

#include "bus/DebugText.h"

#include <sys/wait.h>

#include <csignal>

namespace {

struct Ended {
    pid_t pid;
    int status;
};

Ended g_ended[ReapedChildren::kRemembered];
volatile unsigned g_count = 0;

/// Keeps the handler from writing to the table while it is read.
class ChildSignalBlocker {
public:
    ChildSignalBlocker() {
        sigset_t childSignal;
        sigemptyset(&childSignal);
        sigaddset(&childSignal, SIGCHLD);
        pthread_sigmask(SIG_BLOCK, &childSignal, &_before);
    }
    ~ChildSignalBlocker() { pthread_sigmask(SIG_SETMASK, &_before, nullptr); }
    ChildSignalBlocker(const ChildSignalBlocker&) = delete;
    ChildSignalBlocker& operator=(const ChildSignalBlocker&) = delete;

private:
    sigset_t _before;
};

}  // namespace

int ReapedChildren::reap() {
    int reaped = 0;
    int status = 0;
    for (pid_t pid = waitpid(-1, &status, WNOHANG); pid >= 1; pid = waitpid(-1, &status, WNOHANG)) {
        g_ended[g_count % kRemembered] = {pid, status};
        g_count = g_count + 1;
        ++reaped;
        DebugText::plain("sigchild waitpid loop");
    }
    return reaped;
}

unsigned ReapedChildren::count() {
    return g_count;
}

bool ReapedChildren::find(pid_t pid, unsigned since, int& status) {
    const ChildSignalBlocker blocker;
    const unsigned newer = g_count - since;
    const unsigned known = newer < kRemembered ? newer : kRemembered;
    for (unsigned i = g_count - known; i != g_count; ++i) {
        const Ended& ended = g_ended[i % kRemembered];
        if (ended.pid == pid) {
            status = ended.status;
            return true;
        }
    }
    return false;
}

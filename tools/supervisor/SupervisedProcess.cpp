#include "tools/supervisor/SupervisedProcess.h"

#include "bus/DebugText.h"
#include "bus/ForkedChild.h"
#include "tools/supervisor/RunEnd.h"

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>
#include <cstring>

namespace {

constexpr char kTarget[] = "scada-storage-supervisor";

}  // namespace

bool SupervisedProcess::start() {
    const pid_t supervisor = getpid();
    const pid_t pid = ForkedChild::start();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGUSR1);
        // It may have died before it could be asked to tell.
        if (getppid() != supervisor) {
            ForkedChild::end();
        }
        become();
    }
    if (pid < 0) {
        DebugText::send(kTarget, "no process for %s: %s", _path.c_str(), strerror(errno));
        return false;
    }
    _pid = pid;
    return true;
}

void SupervisedProcess::become() const {
    setsid();
    // The bus library ignores it, and what is ignored stays so in the program executed.
    std::signal(SIGPIPE, SIG_DFL);
    char* arguments[] = {const_cast<char*>(_path.c_str()), nullptr};
    execv(_path.c_str(), arguments);
    DebugText::send(kTarget, "cannot execute %s: %s", _path.c_str(), strerror(errno));
    _exit(RunEnd::kNotStarted);
}

void SupervisedProcess::send(int signal) const {
    if (_pid > 0) {
        kill(_pid, signal);
    }
}

std::optional<int> SupervisedProcess::takeEnd() {
    int status = 0;
    if (_pid == 0 || waitpid(_pid, &status, WNOHANG) != _pid) {
        return std::nullopt;
    }
    _pid = 0;
    return status;
}

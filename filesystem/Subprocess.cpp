#include "filesystem/Subprocess.h"

#include "bus/Clock.h"
#include "bus/ForkedChild.h"
#include "core/shared/ReapedChildren.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <optional>

namespace {

constexpr int kNotStarted = 127;
constexpr int kFirstFreeDescriptor = 3;

/// Where the three are closed, a descriptor to be put in place may itself be one of them.
int movedOutOfTheWay(int descriptor) {
    return descriptor < 0 ? ::open("/dev/null", O_RDWR | O_CLOEXEC)
                          : ::fcntl(descriptor, F_DUPFD_CLOEXEC, kFirstFreeDescriptor);
}

bool putDescriptorsInPlace(int input, int output) {
    const int from = movedOutOfTheWay(input);
    const int to = movedOutOfTheWay(output);
    const int nowhere = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    const bool areInPlace = ::dup2(from, STDIN_FILENO) >= 0 && ::dup2(to, STDOUT_FILENO) >= 0 &&
                            ::dup2(nowhere, STDERR_FILENO) >= 0;
    // Ours are close-on-exec. Whoever started the daemon may have left it others.
    ::close_range(kFirstFreeDescriptor, ~0U, CLOSE_RANGE_CLOEXEC);
    return areInPlace;
}

/// Handlers go with the daemon's code; what it ignores, the program would ignore too.
void takeSignalsAsTheyAre() {
    for (const int signal : {SIGPIPE, SIGXFSZ, SIGCHLD, SIGTERM}) {
        std::signal(signal, SIG_DFL);
    }
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
}

bool limitFiles(qint64 longestFileBytes) {
    rlimit limit = {};
    if (longestFileBytes == 0) {
        return true;
    }
    if (::getrlimit(RLIMIT_FSIZE, &limit) != 0) {
        return false;
    }
    limit.rlim_cur = std::min(limit.rlim_cur, static_cast<rlim_t>(longestFileBytes));
    return ::setrlimit(RLIMIT_FSIZE, &limit) == 0;
}

/// No SIGCHLD comes between a look at what has ended and the wait for it.
class ChildSignalHeld {
public:
    ChildSignalHeld() {
        sigset_t childSignal;
        sigemptyset(&childSignal);
        sigaddset(&childSignal, SIGCHLD);
        ::sigprocmask(SIG_BLOCK, &childSignal, &_before);
    }
    ~ChildSignalHeld() { ::sigprocmask(SIG_SETMASK, &_before, nullptr); }
    ChildSignalHeld(const ChildSignalHeld&) = delete;
    ChildSignalHeld& operator=(const ChildSignalHeld&) = delete;

    /// Lets it come for up to this long.
    void wait(int milliseconds) const {
        const timespec time = {0, milliseconds * 1'000'000L};
        ::ppoll(nullptr, 0, &time, &_before);
    }

private:
    sigset_t _before;
};

/// As waitpid gives it; -1 where the process is gone and its status with it.
std::optional<int> endOf(pid_t process, unsigned reapedBefore) {
    ReapedChildren::reap();
    int status = 0;
    if (ReapedChildren::find(process, reapedBefore, status)) {
        return status;
    }
    return ::kill(process, 0) != 0 && errno == ESRCH ? std::optional(-1) : std::nullopt;
}

}  // namespace

int Subprocess::run() const {
    QList<char*> argumentVector;
    for (const QByteArray& argument : arguments) {
        argumentVector.append(const_cast<char*>(argument.constData()));
    }
    argumentVector.append(nullptr);
    const unsigned reapedBefore = ReapedChildren::count();
    const pid_t process = ForkedChild::start();
    if (process == 0) {
        become(argumentVector);
    }
    return process < 0 ? kStopped : waitFor(process, reapedBefore);
}

void Subprocess::become(const QList<char*>& argumentVector) const {
    // Some variables are further options to tar and gzip.
    const QByteArray path = qgetenv("PATH");
    ::clearenv();
    qputenv("PATH", path.isEmpty() ? "/usr/bin:/bin" : path);
    qputenv("LC_ALL", "C");
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    takeSignalsAsTheyAre();
    if (putDescriptorsInPlace(input, output) && limitFiles(longestFileBytes)) {
        ::execvp(argumentVector.first(), argumentVector.data());
    }
    ::_exit(kNotStarted);
}

int Subprocess::waitFor(int process, unsigned reapedBefore) const {
    const ChildSignalHeld held;
    const quint32 start = Clock::ticks();
    std::optional<int> end = endOf(process, reapedBefore);
    while (!end) {
        const bool isTooLong = Clock::ticksSince(start) >= longestMilliseconds;
        if (isTooLong || (mayGoOn && !mayGoOn())) {
            ::kill(process, SIGKILL);
        }
        held.wait(kWatchMilliseconds);
        end = endOf(process, reapedBefore);
    }
    const bool isExit = *end >= 0 && WIFEXITED(*end) && WEXITSTATUS(*end) != kNotStarted;
    return isExit ? WEXITSTATUS(*end) : kStopped;
}

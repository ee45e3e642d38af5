#include "bench/RsyncPeer.h"

#include "tests/support/ChildProcess.h"

#include <sys/resource.h>
#include <unistd.h>

#include <fstream>
#include <stdexcept>

namespace {

constexpr char kProgram[] = "/usr/bin/rsync";
/// In place of a remote shell: drops the host's name and runs the other side here.
constexpr char kShell[] = "/tmp/rsync-shell";
constexpr int kMilliseconds = 120'000;

/// Of all children that have ended, and of theirs.
double endedChildrenSeconds() {
    rusage usage{};
    getrusage(RUSAGE_CHILDREN, &usage);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

}  // namespace

bool RsyncPeer::isInstalled() {
    return access(kProgram, X_OK) == 0;
}

double RsyncPeer::copy(const std::string& options, const std::string& from, const std::string& to) {
    std::ofstream(kShell) << "shift\nexec \"$@\"\n";
    const double before = endedChildrenSeconds();
    ChildProcess process;
    process.start(
        {{kProgram, options, std::string("--rsh=/bin/sh ") + kShell, from + "/", "here:" + to},
         {},
         0});
    if (process.waitForExit(kMilliseconds) != 0) {
        throw std::runtime_error("rsync failed: " + process.log());
    }
    return endedChildrenSeconds() - before;
}

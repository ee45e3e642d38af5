#include "tests/support/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kPollMilliseconds = 5;

void openExtraDescriptors(int count) {
    if (count == 0) {
        return;
    }
    const rlim_t wanted = static_cast<rlim_t>(count) + 256;
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = std::max(limit.rlim_cur, wanted);
    limit.rlim_max = std::max(limit.rlim_max, wanted);
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
        _exit(126);
    }
    for (int i = 0; i < count; ++i) {
        if (::open("/dev/null", O_RDONLY) < 0) {
            _exit(126);
        }
    }
}

[[noreturn]] void run(const ChildProcess::Options& options, const std::string& logPath) {
    const int log = ::open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    dup2(log, STDOUT_FILENO);
    dup2(log, STDERR_FILENO);
    close(log);
    // A bus in the tester's own environment must not reach the program, nor the journal's mark.
    for (const char* name : {"SCADA_BUS_URL", "SCADA_BUS_PREFIX", "SCADA_BUS_CAFILE",
                             "SCADA_BUS_CERTFILE", "SCADA_BUS_KEYFILE", "JOURNAL_STREAM"}) {
        unsetenv(name);
    }
    for (const auto& [name, value] : options.environment) {
        setenv(name.c_str(), value.c_str(), 1);
    }
    // Brokers live where a normal user's search path does not lead.
    setenv("PATH", (std::string(getenv("PATH")) + ":/usr/sbin").c_str(), 1);
    openExtraDescriptors(options.extraDescriptors);
    std::vector<char*> arguments;
    for (const std::string& argument : options.command) {
        arguments.push_back(const_cast<char*>(argument.c_str()));
    }
    arguments.push_back(nullptr);
    execvp(arguments[0], arguments.data());
    _exit(127);
}

std::string newLogPath() {
    char name[] = "/tmp/log.XXXXXX";
    const int descriptor = mkostemp(name, O_CLOEXEC);
    if (descriptor < 0) {
        throw std::runtime_error("no log file");
    }
    close(descriptor);
    return name;
}

}  // namespace

ChildProcess::~ChildProcess() {
    kill();
    if (!_logPath.empty()) {
        unlink(_logPath.c_str());
    }
}

void ChildProcess::start(const Options& options) {
    kill();
    if (_logPath.empty()) {
        _logPath = newLogPath();
    }
    _status.reset();
    _pid = fork();
    if (_pid == 0) {
        run(options, _logPath);
    }
    if (_pid < 0) {
        throw std::runtime_error("cannot fork");
    }
}

void ChildProcess::signal(int number) const {
    if (_pid > 0) {
        ::kill(_pid, number);
    }
}

void ChildProcess::kill() {
    if (isRunning()) {
        signal(SIGKILL);
        waitpid(_pid, nullptr, 0);
        _status = -SIGKILL;
    }
}

bool ChildProcess::isRunning() {
    return _pid > 0 && !waitForExit(0);
}

std::optional<int> ChildProcess::waitForExit(int milliseconds) {
    const auto end = Clock::now() + std::chrono::milliseconds(milliseconds);
    while (!_status && _pid > 0) {
        int status = 0;
        if (waitpid(_pid, &status, WNOHANG) == _pid) {
            _status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
        } else if (Clock::now() >= end) {
            break;
        } else {
            poll(nullptr, 0, kPollMilliseconds);
        }
    }
    return _status;
}

std::string ChildProcess::log() const {
    std::ifstream file(_logPath, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

std::vector<std::string> ChildProcess::logLines() const {
    std::vector<std::string> lines;
    std::istringstream text(log());
    for (std::string line; std::getline(text, line);) {
        lines.push_back(line);
    }
    return lines;
}

int ChildProcess::logCount(const std::string& line) const {
    int count = 0;
    for (const std::string& candidate : logLines()) {
        count += candidate == line ? 1 : 0;
    }
    return count;
}

bool ChildProcess::waitForLog(const std::string& text, int milliseconds, std::size_t from) const {
    const auto end = Clock::now() + std::chrono::milliseconds(milliseconds);
    while (log().find(text, from) == std::string::npos) {
        if (Clock::now() >= end) {
            return false;
        }
        poll(nullptr, 0, kPollMilliseconds);
    }
    return true;
}

std::int64_t ChildProcess::residentBytes() const {
    return procNumber("smaps_rollup", "Rss:") * 1024;
}

std::int64_t ChildProcess::peakResidentBytes() const {
    return procNumber("status", "VmHWM:") * 1024;
}

std::int64_t ChildProcess::privateBytes() const {
    // Clean pages are the libraries', and private only while no other process uses them.
    return procNumber("smaps_rollup", "Private_Dirty:") * 1024;
}

int ChildProcess::openDescriptors() const {
    std::error_code ignored;
    const std::filesystem::directory_iterator folder(procFile("fd"), ignored);
    return static_cast<int>(std::distance(begin(folder), end(folder)));
}

double ChildProcess::cpuSeconds() const {
    double nanoseconds = 0;
    std::ifstream(procFile("schedstat")) >> nanoseconds;
    return nanoseconds / 1e9;
}

std::int64_t ChildProcess::voluntarySwitches() const {
    return procNumber("status", "voluntary_ctxt_switches:");
}

std::string ChildProcess::procFile(const std::string& name) const {
    return "/proc/" + std::to_string(pid()) + "/" + name;
}

/// -1 where the field is not there, which no test takes for a measurement of a live process.
std::int64_t ChildProcess::procNumber(const std::string& file, const std::string& field) const {
    std::ifstream stream(procFile(file));
    for (std::string word; stream >> word;) {
        if (word == field) {
            std::int64_t number = -1;
            stream >> number;
            return number;
        }
    }
    return -1;
}

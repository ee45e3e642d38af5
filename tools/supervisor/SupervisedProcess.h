#pragma once

#include <sys/types.h>
#include <optional>
#include <string>

/// The daemon as a child process; one run at a time. The daemon leads a session of its own, so
/// that an interrupt typed on a terminal reaches the supervisor alone. Where the supervisor dies,
/// the system has the daemon stop in order (SIGUSR1): a supervisor started anew then finds the
/// unit free, instead of waiting for the orphan to miss its keep-alives.
class SupervisedProcess {
public:
    /// `path` of the executable; it gets no arguments.
    explicit SupervisedProcess(std::string path) : _path(std::move(path)) {}

    const std::string& path() const { return _path; }
    /// 0 where none runs.
    pid_t pid() const { return _pid; }

    /// False, with a log line, where no process could be made. An executable that cannot be run
    /// shows as a run that ends with RunEnd::kNotStarted. REQUIRES: none runs.
    bool start();
    void send(int signal) const;
    /// waitpid's status where the run has ended. Never waits.
    std::optional<int> takeEnd();

private:
    [[noreturn]] void become() const;

    std::string _path;
    pid_t _pid = 0;
};

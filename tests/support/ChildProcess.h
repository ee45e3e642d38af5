#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

/// A program started by a test, with its standard output and error in a file of their own. It is
/// killed and reaped with this object.
class ChildProcess {
public:
    struct Options {
        std::vector<std::string> command = {};
        /// Set on top of the test's own environment.
        std::map<std::string, std::string> environment = {};
        /// Descriptors open before the program starts, inherited by it.
        int extraDescriptors = 0;
    };

    ChildProcess() = default;
    virtual ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    void start(const Options& options);

    pid_t pid() const { return _pid; }
    void signal(int number) const;
    /// Kills and reaps it; nothing where it does not run.
    void kill();
    bool isRunning();
    /// Its exit status (0 to 255), or the negative of the signal that ended it; nothing where it
    /// still runs when the time is over.
    std::optional<int> waitForExit(int milliseconds);

    /// Everything that it has written so far, over all its starts.
    std::string log() const;
    std::vector<std::string> logLines() const;
    /// How many whole lines are `line`.
    int logCount(const std::string& line) const;
    /// Waits until `text` stands in the log from byte `from` on.
    bool waitForLog(const std::string& text, int milliseconds, std::size_t from = 0) const;

    /// What the system says about the process.
    std::int64_t residentBytes() const;
    std::int64_t peakResidentBytes() const;
    std::int64_t privateBytes() const;
    int openDescriptors() const;
    double cpuSeconds() const;
    /// How often it gave up the processor to wait.
    std::int64_t voluntarySwitches() const;

private:
    std::string procFile(const std::string& name) const;
    std::int64_t procNumber(const std::string& file, const std::string& field) const;

    pid_t _pid = 0;
    std::optional<int> _status;
    std::string _logPath;
};

#pragma once

#include <array>
#include <csignal>

/// Puts the handlers of the daemon's signals back as they were, so that one test's do not reap
/// the next one's children.
class KeptSignalHandlers {
public:
    static constexpr std::array<int, 4> kSignals = {SIGINT, SIGUSR1, SIGPIPE, SIGCHLD};

    KeptSignalHandlers() {
        for (std::size_t i = 0; i < kSignals.size(); ++i) {
            sigaction(kSignals[i], nullptr, &_before[i]);
        }
    }
    ~KeptSignalHandlers() {
        for (std::size_t i = 0; i < kSignals.size(); ++i) {
            sigaction(kSignals[i], &_before[i], nullptr);
        }
    }
    KeptSignalHandlers(const KeptSignalHandlers&) = delete;
    KeptSignalHandlers& operator=(const KeptSignalHandlers&) = delete;

private:
    std::array<struct sigaction, kSignals.size()> _before;
};

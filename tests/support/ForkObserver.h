#pragma once

#include "tests/support/FakeBus.h"

#include <functional>

/// What a forked child sent and logged, in order, and how it ended.
struct ChildReport {
    QList<FakeBus::Sent> sent;
    QList<QByteArray> lines;
    /// The exit status, ForkObserver::kWentOn where the child came back to the test, the negative
    /// number of the signal that killed it; kNoChild where there was none.
    int status;
};

/// Lets a test see what the children do that the code under test forks: what they publish on the
/// fake bus, and what they log, comes back over a pipe. Collects this process's log lines too. One
/// at a time.
class ForkObserver {
public:
    static constexpr int kWentOn = 77;
    static constexpr int kNoChild = -1000;

    explicit ForkObserver(FakeBus& bus);
    ~ForkObserver();
    ForkObserver(const ForkObserver&) = delete;
    ForkObserver& operator=(const ForkObserver&) = delete;

    /// Runs `life`, which forks at most once, and waits for the child's end. Where `life` returns
    /// in the child, that is its end. No other child of this process may end meanwhile.
    ChildReport run(const std::function<void()>& life);

    /// What this process logged.
    const QList<QByteArray>& lines() const;

private:
    FakeBus& _bus;
};

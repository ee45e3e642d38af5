#pragma once

#include <QList>

#include <functional>

#include <sys/types.h>

/// Bounds how many forked children of one kind run at once, so that no burst of requests fills the
/// unit with processes. Further work waits its turn, up to a limit. Main thread only.
class ChildPool {
public:
    using Work = std::function<void()>;

    ChildPool(int maximumRunning, int maximumWaiting)
        : _maximumRunning(maximumRunning), _maximumWaiting(maximumWaiting) {}

    /// Runs `work` in a child, now or when its turn comes. Work that is too much to wait, or whose
    /// child cannot be forked, is dropped with a log line. Returns in two processes where `work`
    /// itself returns.
    void run(const Work& work);
    /// Starts what waits and has room; to be called once a pass. The end of a child wakes the
    /// loop, so none waits longer than it must.
    void startWaiting();
    /// In a forked child: running and waiting work is its parent's.
    void forget();

private:
    static bool hasEnded(pid_t child);
    bool hasRoom();
    void start(const Work& work);

    int _maximumRunning;
    int _maximumWaiting;
    QList<pid_t> _running;
    QList<Work> _waiting;
};

/// The daemon's children other than that of the thumbnails, which are one at a time anyway.
namespace ChildPools {

/// Lookups and file listings: short, and begun in the order of their requests.
extern ChildPool g_lookupsAndListings;
/// Children of lookups without a valid time, which do nothing until they end.
extern ChildPool g_invalidLookups;
extern ChildPool g_replayWorkers;

/// In the daemon's pass; without memory, the first that waits is dropped with a log line.
void startWaiting() noexcept;
void forget();

}  // namespace ChildPools

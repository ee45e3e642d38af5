#include "core/shared/MessageQueue.h"

#include "bus/ForkedChild.h"
#include "bus/PubSubInterface.h"
#include "bus/Wakeup.h"

#include <QtAlgorithms>

#include <poll.h>

#include <memory>
#include <utility>

QList<Message*> g_waitingMessages;
QMutex g_waitingMessagesMutex;
quint32 g_lastJobActivity = 0;

namespace {

constexpr int kBusyWaitMilliseconds = 1;
constexpr int kNapMilliseconds = 50;

DrainHooks g_hooks;

struct IdleWait {
    quint32 idleBelowMilliseconds;
    int waitMilliseconds;
};

constexpr IdleWait kIdleWaits[] = {
    {500, 50}, {2'000, 1'000}, {5'000, 2'000}, {10'000, 10'000}, {864'000'000, 25'000},
};

/// Takes in what the bus has without waiting on it; with nothing there the pass must still not
/// spin. A signal or a wake-up ends the nap.
void passTheBusBy() {
    if (g_pubSubInterface->takeInArrived() > 0) {
        return;
    }
    pollfd wakeup{Wakeup::descriptor(), POLLIN, 0};
    if (poll(&wakeup, 1, kNapMilliseconds) > 0) {
        Wakeup::clear();
    }
}

void waitForBus() {
    const quint32 activity = g_hooks.jobActivity ? g_hooks.jobActivity() : g_lastJobActivity;
    if (activity != g_lastJobActivity) {
        g_lastJobActivity = activity;
        g_pubSubInterface->readWaitingMessages(kBusyWaitMilliseconds);
        return;
    }
    const quint32 idle = PubSubInterface::getSystemTicks() - g_lastJobActivity;
    const int wait = busWaitForIdle(idle);
    if (wait < 0) {
        passTheBusBy();
        return;
    }
    g_pubSubInterface->readWaitingMessages(wait);
}

}  // namespace

void setDrainHooks(const DrainHooks& hooks) {
    g_hooks = hooks;
}

int busWaitForIdle(quint32 idleMilliseconds) {
    for (const IdleWait& row : kIdleWaits) {
        if (idleMilliseconds < row.idleBelowMilliseconds) {
            return row.waitMilliseconds;
        }
    }
    // KEPT: from ten days without a job on, a pass does not wait on the bus.
    return -1;
}

void processWaitingMessages() {
    if (g_pubSubInterface) {
        waitForBus();
    }
    QList<Message*> batch = std::exchange(g_waitingMessages, {});
    while (!batch.isEmpty()) {
        const std::unique_ptr<Message> message(batch.takeFirst());
        const unsigned generation = ForkedChild::generation();
        if (g_hooks.dispatch) {
            g_hooks.dispatch(*message);
        }
        if (ForkedChild::generation() != generation) {
            qDeleteAll(batch);
            return;
        }
    }
}

void dropWaitingMessages() {
    qDeleteAll(std::exchange(g_waitingMessages, {}));
}

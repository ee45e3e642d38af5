#include "bus/ForkedChild.h"

#include "bus/DebugText.h"
#include "bus/PubSubInterface.h"
#include "bus/Wakeup.h"

#include <pthread.h>
#include <unistd.h>

#ifdef SCADA_STORAGE_COVERAGE
extern "C" void __gcov_dump();
#endif

namespace {

constexpr int kNiceValue = 15;

unsigned g_generation = 0;

void becomeChild() {
    ++g_generation;
    Wakeup::renew();
    DebugText::forgetRepeats();
}

const int g_registered = pthread_atfork(nullptr, nullptr, becomeChild);

}  // namespace

namespace ForkedChild {

pid_t start() {
    PubSubInterface* bus = PubSubInterface::instance();
    if (bus) {
        bus->enterSafeToFork();
    }
    const pid_t pid = fork();
    if (bus && pid != 0) {
        bus->leaveSafeToFork();
    }
    return pid;
}

void yieldToForeground() {
    PubSubInterface::setProcessPriority(kNiceValue);
    PubSubInterface::setThreadIOPriority(static_cast<int>(IOPriority::Idle));
}

void end(int status) {
    DebugText::flushRepeats();
#ifdef SCADA_STORAGE_COVERAGE
    __gcov_dump();
#endif
    _exit(status);
}

unsigned generation() {
    return g_registered == 0 ? g_generation : 0;
}

}  // namespace ForkedChild

#include "bus/ProcessPriority.h"

#include "bus/DebugText.h"

#include <cerrno>
#include <cstring>

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

// The system call has no wrapper and no header: its numbers, from the kernel's interface.
constexpr int kIOPriorityOfProcess = 1;
constexpr int kIOClassShift = 13;
constexpr int kIOLevelInClass = 4;
constexpr int kIdleClass = 3;

constexpr char kTarget[] = "ProcessPriority";

}  // namespace

namespace ProcessPriority {

void setNice(int niceValue) {
    if (setpriority(PRIO_PROCESS, 0, niceValue) != 0) {
        DebugText::send(kTarget, "nice value %d refused: %s", niceValue, std::strerror(errno));
    }
}

void setIOClass(int ioClass) {
    if (ioClass == 0) {
        return;
    }
    const int level = ioClass == kIdleClass ? 0 : kIOLevelInClass;
    const int priority = (ioClass << kIOClassShift) | level;
    if (syscall(SYS_ioprio_set, kIOPriorityOfProcess, 0, priority) != 0) {
        DebugText::send(kTarget, "I/O class %d refused: %s", ioClass, std::strerror(errno));
    }
}

}  // namespace ProcessPriority

#include "tools/supervisor/RunEnd.h"

#include <sys/wait.h>
#include <cstring>

namespace {

// -7, of which the system keeps eight bits.
constexpr int kNoKeepalive = 249;
constexpr int kUnitTaken = 75;
constexpr int kUnusableEnvironment = 78;

const char* meaning(int exitStatus) {
    switch (exitStatus) {
        case 0:
            return "quit";
        case kNoKeepalive:
            return "no keep-alive reached it";
        case kUnitTaken:
            return "another daemon holds this unit";
        case kUnusableEnvironment:
            return "the bus settings in its environment cannot be used";
        case RunEnd::kNotStarted:
            return "it could not be started";
        default:
            return "failed";
    }
}

}  // namespace

QByteArray RunEnd::describe(int status) {
    if (WIFSIGNALED(status)) {
        const int number = WTERMSIG(status);
        return "signal " + QByteArray::number(number) + " (" + strsignal(number) +
               (WCOREDUMP(status) ? ", core dumped)" : ")");
    }
    const int exitStatus = WEXITSTATUS(status);
    return meaning(exitStatus) + (" (status " + QByteArray::number(exitStatus)) + ")";
}

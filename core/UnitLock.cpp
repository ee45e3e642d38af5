#include "core/UnitLock.h"

#include "bus/DebugText.h"
#include "core/shared/Tokens.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <unistd.h>

namespace {

int g_descriptor = -1;

void closeDescriptor() {
    if (g_descriptor < 0) {
        return;
    }
    close(g_descriptor);
    g_descriptor = -1;
}

}  // namespace

bool UnitLock::take(const char* directory) {
    // A forked child shares the lock as long as it has the descriptor.
    [[maybe_unused]] static const int registered =
        pthread_atfork(nullptr, nullptr, closeDescriptor);
    g_descriptor = open(directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (g_descriptor >= 0 && flock(g_descriptor, LOCK_EX | LOCK_NB) == 0) {
        return true;
    }
    const int error = errno;
    closeDescriptor();
    if (error == EWOULDBLOCK) {
        DebugText::send(Tokens::kClientName, "another process serves \"%s\"", directory);
        return false;
    }
    DebugText::send(Tokens::kClientName, "cannot lock \"%s\": %s", directory, std::strerror(error));
    return true;
}

void UnitLock::release() {
    closeDescriptor();
}

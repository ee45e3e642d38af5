#include "tools/supervisor/ServiceManager.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <cstddef>
#include <cstring>

namespace {

QByteArray take(const char* variable) {
    const QByteArray value = qgetenv(variable);
    qunsetenv(variable);
    return value;
}

}  // namespace

ServiceManager::ServiceManager() : _socket(take("NOTIFY_SOCKET")) {
    const QByteArray interval = take("WATCHDOG_USEC");
    const QByteArray addressee = take("WATCHDOG_PID");
    _hasWatchdog =
        interval.toULongLong() > 0 && (addressee.isEmpty() || addressee.toLongLong() == getpid());
}

void ServiceManager::alive() const {
    if (_hasWatchdog) {
        tell("WATCHDOG=1");
    }
}

void ServiceManager::tell(const QByteArray& state) const {
    sockaddr_un address{};
    const auto nameLength = static_cast<std::size_t>(_socket.size());
    if (_socket.isEmpty() || nameLength > sizeof address.sun_path) {
        return;
    }
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, _socket.constData(), nameLength);
    if (_socket.startsWith('@')) {
        address.sun_path[0] = '\0';
    }
    const int descriptor = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (descriptor < 0) {
        return;
    }
    // An abstract name ends where its length says, not at a NUL.
    const auto addressLength = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + nameLength);
    sendto(descriptor, state.constData(), static_cast<std::size_t>(state.size()),
           MSG_NOSIGNAL | MSG_DONTWAIT, reinterpret_cast<const sockaddr*>(&address), addressLength);
    close(descriptor);
}

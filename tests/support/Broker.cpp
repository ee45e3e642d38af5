#include "tests/support/Broker.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace {

constexpr int kStartTries = 1000;
constexpr int kStartPollMilliseconds = 5;

bool accepts(const std::string& socketPath) {
    const int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, socketPath.c_str(), sizeof address.sun_path - 1);
    const bool connected =
        connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    close(descriptor);
    return connected;
}

}  // namespace

Broker::Broker() {
    char name[] = "/tmp/broker.XXXXXX";
    if (mkdtemp(name) == nullptr) {
        throw std::runtime_error("no folder for the broker");
    }
    _folder = name;
}

Broker::~Broker() {
    kill();
    std::error_code ignored;
    std::filesystem::remove_all(_folder, ignored);
}

void Broker::start() {
    const std::string path = _folder + "/mosquitto.conf";
    // What ships is what is tested; only what a test looks at or adds is said here.
    std::ofstream(path) << "per_listener_settings true\n"
                        << std::ifstream(BROKER_SETTINGS).rdbuf()
                        << "user root\n"
                           "log_dest stderr\n"
                           "connection_messages true\n"
                        << "listener 0 " << socketPath() << "\nallow_anonymous true\n"
                        << _furtherLines;
    // Debian keeps it in a folder that a normal user's PATH leaves out.
    ChildProcess::start({.command = {"/usr/sbin/mosquitto", "-c", path}});
    for (int i = 0; !accepts(socketPath()); ++i) {
        if (i == kStartTries || !isRunning()) {
            throw std::runtime_error("the broker did not start: " + log());
        }
        poll(nullptr, 0, kStartPollMilliseconds);
    }
}

void Broker::pause() const {
    signal(SIGSTOP);
}

void Broker::resume() const {
    signal(SIGCONT);
}

int Broker::freePort() {
    const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    bind(descriptor, reinterpret_cast<const sockaddr*>(&address), length);
    getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &length);
    close(descriptor);
    return ntohs(address.sin_port);
}

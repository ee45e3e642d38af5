#include "bench/RecordedDay.h"

#include <mosquitto.h>
#include <poll.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <unistd.h>

/// A lookup on libmosquitto and nothing else, the peer of the daemon's: each delivery on a topic
/// forks a child, which scans the file by the bare loop, connects, sends the values and an end, and
/// exits. Usage: bare_lookup SOCKET REQUEST_TOPIC REPLY_TOPIC FILE START

namespace {

constexpr int kKeepAliveSeconds = 300;
constexpr int kWaitMilliseconds = 1000;

struct Lookup {
    const char* socket;
    const char* replyTopic;
    const char* file;
    std::uint32_t start;
};

void noteConnected(mosquitto*, void* isConnected, int) {
    *static_cast<bool*>(isConnected) = true;
}

/// Reads and writes as the connection wants it; false where it is lost.
bool step(mosquitto* client) {
    const bool writes = mosquitto_want_write(client);
    pollfd entry{mosquitto_socket(client), static_cast<short>(writes ? POLLIN | POLLOUT : POLLIN),
                 0};
    poll(&entry, 1, kWaitMilliseconds);
    return ((entry.revents & POLLOUT) == 0 ||
            mosquitto_loop_write(client, 1) == MOSQ_ERR_SUCCESS) &&
           ((entry.revents & ~POLLOUT) == 0 || mosquitto_loop_read(client, 1) == MOSQ_ERR_SUCCESS);
}

[[noreturn]] void answer(const Lookup& lookup) {
    std::array<float, RecordedDay::kMinutes> values;
    const int count = RecordedDay::bareLookup(lookup.file, lookup.start, values.data());
    bool isConnected = false;
    mosquitto* const client = mosquitto_new(nullptr, true, &isConnected);
    mosquitto_connect_callback_set(client, noteConnected);
    mosquitto_connect(client, lookup.socket, 0, kKeepAliveSeconds);
    while (!isConnected && step(client)) {
    }
    const int bytes = count * static_cast<int>(sizeof(float));
    mosquitto_publish(client, nullptr, lookup.replyTopic, bytes, values.data(), 0, false);
    mosquitto_publish(client, nullptr, lookup.replyTopic, 3, "end", 0, false);
    while (mosquitto_want_write(client) && step(client)) {
    }
    _exit(0);
}

void takeRequest(mosquitto*, void* context, const mosquitto_message*) {
    if (fork() == 0) {
        answer(*static_cast<const Lookup*>(context));
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 6) {
        std::fprintf(stderr, "usage: bare_lookup SOCKET REQUEST_TOPIC REPLY_TOPIC FILE START\n");
        return EXIT_FAILURE;
    }
    std::signal(SIGCHLD, SIG_IGN);
    Lookup lookup{argv[1], argv[3], argv[4],
                  static_cast<std::uint32_t>(std::strtoul(argv[5], nullptr, 10))};
    mosquitto_lib_init();
    mosquitto* const client = mosquitto_new(nullptr, true, &lookup);
    mosquitto_message_callback_set(client, takeRequest);
    if (mosquitto_connect(client, argv[1], 0, kKeepAliveSeconds) != MOSQ_ERR_SUCCESS ||
        mosquitto_subscribe(client, nullptr, argv[2], 0) != MOSQ_ERR_SUCCESS) {
        return EXIT_FAILURE;
    }
    while (step(client)) {
    }
    return EXIT_FAILURE;
}

#include <mosquitto.h>
#include <poll.h>

#include <cstdio>
#include <cstdlib>
#include <string>

/// An echo on libmosquitto and nothing else, the peer of the bus library's speed: answers each
/// delivery on a topic with the same bytes, or with as many bytes as told, on another topic.
/// Usage: bare_echo SOCKET REQUEST_TOPIC REPLY_TOPIC [REPLY_BYTES]

namespace {

constexpr int kKeepAliveSeconds = 300;
constexpr int kMiscMilliseconds = 1000;

struct Echo {
    std::string request;
    bool isWaiting = false;
};

void keepRequest(mosquitto*, void* context, const mosquitto_message* message) {
    auto* echo = static_cast<Echo*>(context);
    echo->request.assign(static_cast<const char*>(message->payload),
                         static_cast<std::size_t>(message->payloadlen));
    echo->isWaiting = true;
}

/// Published from here and not from the callback, where the library would queue the packet for
/// its next round.
int answer(mosquitto* client, Echo& echo, const char* topic, const std::string& fixedReply) {
    echo.isWaiting = false;
    const std::string& reply = fixedReply.empty() ? echo.request : fixedReply;
    return mosquitto_publish(client, nullptr, topic, static_cast<int>(reply.size()), reply.data(),
                             0, false);
}

int serve(mosquitto* client, Echo& echo, const char* topic, const std::string& fixedReply) {
    for (;;) {
        const bool writes = mosquitto_want_write(client);
        pollfd entry{mosquitto_socket(client),
                     static_cast<short>(writes ? POLLIN | POLLOUT : POLLIN), 0};
        if (poll(&entry, 1, kMiscMilliseconds) <= 0) {
            mosquitto_loop_misc(client);
            continue;
        }
        int result = MOSQ_ERR_SUCCESS;
        if ((entry.revents & POLLOUT) != 0) {
            result = mosquitto_loop_write(client, 1);
        }
        if (result == MOSQ_ERR_SUCCESS && (entry.revents & ~POLLOUT) != 0) {
            result = mosquitto_loop_read(client, 1);
        }
        if (result == MOSQ_ERR_SUCCESS && echo.isWaiting) {
            result = answer(client, echo, topic, fixedReply);
        }
        if (result != MOSQ_ERR_SUCCESS) {
            return EXIT_FAILURE;
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4) {
        std::fprintf(stderr, "usage: bare_echo SOCKET REQUEST_TOPIC REPLY_TOPIC [REPLY_BYTES]\n");
        return EXIT_FAILURE;
    }
    const std::string fixedReply(argc > 4 ? std::strtoul(argv[4], nullptr, 10) : 0, 'x');
    Echo echo;
    mosquitto_lib_init();
    mosquitto* client = mosquitto_new(nullptr, true, &echo);
    mosquitto_message_callback_set(client, keepRequest);
    if (mosquitto_connect(client, argv[1], 0, kKeepAliveSeconds) != MOSQ_ERR_SUCCESS ||
        mosquitto_subscribe(client, nullptr, argv[2], 0) != MOSQ_ERR_SUCCESS) {
        return EXIT_FAILURE;
    }
    return serve(client, echo, argv[3], fixedReply);
}

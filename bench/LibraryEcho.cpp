#include "bus/Message.h"
#include "bus/PubSubInterface.h"

#include <cstdio>
#include <cstdlib>

/// An echo on the bus library: answers each message on one token with the same message on another.
/// Usage: library_echo REQUEST_TOKEN REPLY_TOKEN, with the bus in the environment.

namespace {

constexpr int kWaitMilliseconds = 25000;

void answer(void* replyToken, PubSubMessage* delivery) {
    Message message;
    message.construct(delivery->data, delivery->length);
    PubSubInterface::instance()->sendTokenMessage(static_cast<const char*>(replyToken), message);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: library_echo REQUEST_TOKEN REPLY_TOKEN\n");
        return EXIT_FAILURE;
    }
    PubSubInterface bus(nullptr);
    if (!bus.initialize("library-echo", answer, argv[2], 65536, 65536, 0, IOPriority::Unchanged) ||
        !bus.addWantedToken(argv[1])) {
        return EXIT_FAILURE;
    }
    for (;;) {
        bus.readWaitingMessages(kWaitMilliseconds);
    }
}

#include "core/shared/Replies.h"

#include "bus/PubSubInterface.h"
#include "core/shared/Tokens.h"

#include <QtEndian>

#include <cstring>
#include <memory>

char g_szOurPubSubToken[128] = "";

namespace {

constexpr std::size_t kConnectionBytes = 4;
constexpr std::size_t kStackFrameBytes = 768;

}  // namespace

void sendMessage(Message& message) {
    if (!g_pubSubInterface) {
        return;
    }
    g_pubSubInterface->sendToken(g_szOurPubSubToken, message.buffer(), message.length());
}

void sendMessageToConnection(int connection, Message* message) {
    if (!g_pubSubInterface) {
        return;
    }
    const auto length = static_cast<std::size_t>(message->length());
    const std::size_t total = length + kConnectionBytes;
    char stackFrame[kStackFrameBytes];
    std::unique_ptr<char[]> heapFrame;
    char* frame = stackFrame;
    if (total > kStackFrameBytes) {
        heapFrame = std::make_unique_for_overwrite<char[]>(total);
        frame = heapFrame.get();
    }
    qToLittleEndian<qint32>(connection, frame);
    std::memcpy(frame + kConnectionBytes, message->buffer(), length);
    const bool sent =
        g_pubSubInterface->sendToken(Tokens::kClientMessage, frame, static_cast<int>(total));
    // Over a standing connection only a reply too large for the bus fails; its client waits.
    if (!sent && total > kStackFrameBytes && g_pubSubInterface->isConnected()) {
        sendMessageToConnection(connection, message->command());
    }
}

void sendMessageToConnection(int connection, int command) {
    Message message;
    message.construct(command, "");
    sendMessageToConnection(connection, &message);
}

#include "core/Dispatch.h"

#include "bus/DebugText.h"
#include "bus/ForkedChild.h"
#include "core/DaemonCommands.h"
#include "core/RunState.h"
#include "core/ThumbnailSchedule.h"
#include "core/WorkerRole.h"
#include "core/shared/Replies.h"
#include "core/shared/Tokens.h"
#include "filesystem/FileProtocol.h"
#include "filesystem/Filesystem.h"
#include "history/HistoricalDataManager.h"

#include <unistd.h>

namespace {

bool handleKeepalive(Message&) {
    DebugText::send(Tokens::kClientName, "handled keepalive");
    g_runState.noteKeepalive();
    Message reply;
    reply.construct(COMMAND_KEEPALIVE, "i", getpid());
    sendMessage(reply);
    return true;
}

bool handleQuit(Message&) {
    DebugText::send(Tokens::kClientName, "scada-storage-process: processMessage QUIT");
    g_quit = true;
    return false;
}

QString textOf(const Message& message, int parameter) {
    return QString::fromUtf8(message.parameterAsString(parameter));
}

bool handleThumbnailDay(Message& message) {
    ThumbnailSchedule::request(textOf(message, 0), textOf(message, 1));
    return true;
}

bool handleLookup(Message& message) {
    g_pHistoricalDataManager->lookup(textOf(message, 0), message.parameterAsInt32(1),
                                     message.parameterAsInt32(2), textOf(message, 3),
                                     textOf(message, 4), textOf(message, 5));
    return true;
}

bool handleBeginReplay(Message& message) {
    g_pHistoricalDataManager->beginHistoricalReplay(textOf(message, 0), textOf(message, 1));
    return true;
}

bool handleContinueReplay(Message& message) {
    g_pHistoricalDataManager->continueHistoricalReplay(message.parameterAsInt32(0),
                                                       textOf(message, 1));
    return true;
}

bool handleReplayAcknowledgement(Message& message) {
    if (g_pHistoricalDataManager->isWorkerThread()) {
        g_pHistoricalDataManager->ackReplayData(message.parameterAsInt32(0),
                                                message.parameterAsInt32(1));
    }
    return true;
}

bool handleByFileService(Message& message) {
    g_pFilesystem->handleMessage(fileServiceConnection(message), &message);
    return true;
}

struct Command {
    int code;
    CommandHandler handler;
};

constexpr Command kCommands[] = {
    {COMMAND_KEEPALIVE, handleKeepalive},
    {COMMAND_QUIT, handleQuit},
    {MESSAGE_WRITE_COUNT, handleByFileService},
    {COMMAND_THUMBNAIL_DAY, handleThumbnailDay},
    {COMMAND_LOOKUP, handleLookup},
    {COMMAND_BEGIN_REPLAY, handleBeginReplay},
    {COMMAND_CONTINUE_REPLAY, handleContinueReplay},
    {COMMAND_ACKNOWLEDGE_REPLAY_DATA, handleReplayAcknowledgement},
};

const Command* findCommand(int code) {
    for (const Command& command : kCommands) {
        if (command.code == code) {
            return &command;
        }
    }
    return nullptr;
}

void answerFailure(const Message& request) {
    Message reply;
    switch (request.command()) {
        case MESSAGE_FILE_OPEN:
            reply.construct(MESSAGE_FILE_OPEN, "Sii", request.parameterAsString(0), -1, -1);
            break;
        case MESSAGE_CONFIG_BACKUP:
        case MESSAGE_CONFIG_RESTORE:
            reply.construct(request.command(), "c", 0);
            break;
        default:
            sendMessageToConnection(request.tag(), request.command());
            return;
    }
    sendMessageToConnection(request.tag(), &reply);
}

void handleFailure(const Message& message) noexcept {
    DebugText::send(Tokens::kClientName, "command %d failed", message.command());
    if (findCommand(message.command())) {
        return;
    }
    try {
        answerFailure(message);
    } catch (...) {
        DebugText::send(Tokens::kClientName, "its client gets no answer");
    }
}

}  // namespace

bool processMessage(Message& message) noexcept {
    if (ForkedChild::generation() > 0 && !WorkerRole::actsOn(message.command())) {
        return true;
    }
    const Command* command = findCommand(message.command());
    return handleGuarded(command ? command->handler : handleByFileService, message);
}

int fileServiceConnection(const Message& message) {
    return message.command() == MESSAGE_WRITE_COUNT ? message.parameterAsInt32(0) : message.tag();
}

bool handleGuarded(CommandHandler handler, Message& message) noexcept {
    try {
        return handler(message);
    } catch (...) {
        handleFailure(message);
        return true;
    }
}

#include "bus/DebugText.h"
#include "core/DaemonCommands.h"
#include "core/Delivery.h"
#include "core/Dispatch.h"
#include "core/RunState.h"
#include "core/shared/MessageQueue.h"
#include "core/shared/Replies.h"
#include "core/shared/Tokens.h"
#include "filesystem/FileProtocol.h"
#include "filesystem/Filesystem.h"
#include "tests/fuzz/FuzzInput.h"
#include "tests/fuzz/Require.h"
#include "tests/fuzz/UnitRoots.h"
#include "tests/support/FakeBus.h"
#include "tests/support/FakeClock.h"

#include <cstring>
#include <iterator>
#include <vector>

/// Any sequence of deliveries through callback, queue, dispatch and file service, on real files:
/// each request with a code of the file protocol gets exactly one reply, with its own code, on its
/// own connection and of one of the two kinds; a keep-alive gets its one; no other code gets any.
/// The files that are open are those that replies said are open, and nothing else stays open.

namespace {

struct FileRequest {
    int command;
    const char* format;
    const char* replyFormat;
};

constexpr FileRequest kFileRequests[] = {
    {MESSAGE_FILE_OPEN, "Si", "Sii"},
    {MESSAGE_FILE_CLOSE, "i", "i"},
    {MESSAGE_FILE_READ, "iii", "iiB"},
    {MESSAGE_FILE_WRITE, "iiB", "ii"},
    {MESSAGE_FILE_GENERATE_HASH, "iii", "iiB"},
    {MESSAGE_FILE_TRUNCATE, "ii", "i"},
    {MESSAGE_FILE_DELETE, "S", "S"},
    {MESSAGE_FILE_MOVE, "SS", "SS"},
    {MESSAGE_OPEN_DIRECTORY, "SS", "Sii"},
    {MESSAGE_CLOSE_DIRECTORY, "i", "i"},
    {MESSAGE_GET_FILE_IN_DIR, "ii", "iiSiii"},
};

constexpr int kOtherCommands[] = {0,  1,      80,     220,    230,    231,    232,   234,
                                  -1, 0x1406, 0x14A0, 0x14B0, 0x14B1, 0x14C0, 0x14C1};

constexpr char kOwnReplies[] = "Message.ExtProc.from.1";

/// The steps after one for each file request.
enum Step : unsigned {
    kWrongFormat = std::size(kFileRequests),
    kOtherCommand,
    kStorageBytes,
    kOwnBytes,
    kTimePasses,
    kSteps,
};

const FileRequest* findFileRequest(int command) {
    for (const FileRequest& request : kFileRequests) {
        if (request.command == command) {
            return &request;
        }
    }
    return nullptr;
}

class Unit {
public:
    Unit() : _bus(PubSubInterfaceCallback) {
        _bus.bus().addWantedToken(Tokens::kStorageRequests);
        _bus.bus().addWantedToken(Tokens::kStorageManager);
        g_StorageMessageTokenID = _bus.bus().findToken(Tokens::kStorageRequests);
        std::strcpy(g_szOurPubSubToken, kOwnReplies);
        g_pFilesystem = &_filesystem;
        setDrainHooks({processMessage, nullptr});
    }

    ~Unit() {
        setDrainHooks({});
        g_pFilesystem = nullptr;
    }
    Unit(const Unit&) = delete;
    Unit& operator=(const Unit&) = delete;

    /// One step of the input. Deliveries of held steps are taken in with the next one that is not.
    void run(FuzzInput& input) {
        const unsigned choice = input.takeByte();
        const int connection = static_cast<int>(choice >> 4 & 7);
        const bool isHeld = (choice & 0x80) != 0;
        const unsigned step = choice % 16 % kSteps;
        if (step < std::size(kFileRequests)) {
            const FileRequest& request = kFileRequests[step];
            deliver(connection, input.takeMessage(request.command, request.format).encoded());
        } else if (step == kWrongFormat) {
            const FileRequest& request = kFileRequests[input.takeByte() % std::size(kFileRequests)];
            const FileRequest& other = kFileRequests[input.takeByte() % std::size(kFileRequests)];
            deliver(connection, input.takeMessage(request.command, other.replyFormat).encoded());
        } else if (step == kOtherCommand) {
            const int command = kOtherCommands[input.takeByte() % std::size(kOtherCommands)];
            deliver(connection, input.takeMessage(command, "ii").encoded());
        } else if (step == kStorageBytes) {
            deliver(connection, input.takeBlock());
        } else if (step == kOwnBytes) {
            deliverOwn(input.takeBlock());
        } else {
            drain();
            letTimePass(input.takeByte());
        }
        if (!isHeld) {
            drain();
        }
    }

    /// Dispatches what was delivered and checks what was sent for it.
    void drain() {
        processWaitingMessages();
        const QList<FakeBus::Sent> sent = _bus.takeSent();
        REQUIRE(sent.size() == static_cast<qsizetype>(_expected.size()));
        for (qsizetype i = 0; i < sent.size(); ++i) {
            checkReply(_expected[static_cast<std::size_t>(i)], sent[i]);
        }
        _expected.clear();
    }

    int openFiles() const { return _openFiles; }

private:
    struct Expected {
        int connection;
        int command;
    };

    void deliver(int connection, const std::string& bytes) {
        _bus.transport().deliver(Tokens::kStorageRequests,
                                 QByteArray::fromStdString(littleEndian(connection) + bytes));
        expectAnswerTo(connection, bytes);
    }

    void deliverOwn(const std::string& bytes) {
        _bus.transport().deliver(Tokens::kStorageManager, QByteArray::fromStdString(bytes));
        expectAnswerTo(0, bytes);
    }

    void expectAnswerTo(int connection, const std::string& bytes) {
        const std::optional<WireMessage> message = WireMessage::decoded(bytes);
        if (message &&
            (message->command == COMMAND_KEEPALIVE || findFileRequest(message->command))) {
            _expected.push_back({connection, message->command});
        }
    }

    void letTimePass(int seconds) {
        _clock.advance(seconds);
        _filesystem.expireHandles();
        if (seconds >= Filesystem::kHandleIdleSeconds) {
            _openFiles = 0;
        }
        // Shorter times could add up; a handle's last use is not followed here.
        _clock.wall -= seconds < Filesystem::kHandleIdleSeconds ? seconds : 0;
    }

    void checkReply(const Expected& expected, const FakeBus::Sent& sent) {
        const Message& reply = sent.message;
        REQUIRE(reply.command() == expected.command);
        if (expected.command == COMMAND_KEEPALIVE) {
            REQUIRE(sent.token == kOwnReplies);
            REQUIRE(std::strcmp(reply.formatString(), "i") == 0);
            return;
        }
        REQUIRE(sent.token == Tokens::kClientMessage);
        REQUIRE(sent.connection == expected.connection);
        const char* format = reply.formatString();
        const bool isBare = *format == '\0';
        REQUIRE(isBare || std::strcmp(format, findFileRequest(expected.command)->replyFormat) == 0);
        if (!isBare && expected.command == MESSAGE_FILE_OPEN) {
            _openFiles += reply.parameterAsInt32(1) >= 0 ? 1 : 0;
        }
        if (!isBare && expected.command == MESSAGE_FILE_CLOSE) {
            --_openFiles;
        }
    }

    FakeClock _clock;
    FakeBus _bus;
    Filesystem _filesystem{nullptr};
    std::vector<Expected> _expected;
    int _openFiles = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const UnitRoots roots;
    DebugText::setSink([](const char*, std::size_t) {});
    roots.reset();
    const UnitRoots::Descriptors before = UnitRoots::descriptors();
    {
        Unit unit;
        FuzzInput input(data, size);
        while (!input.isAtEnd()) {
            unit.run(input);
        }
        unit.drain();
        const UnitRoots::Descriptors during = UnitRoots::descriptors();
        REQUIRE(during.underRoots - before.underRoots == unit.openFiles());
        REQUIRE(during.all - before.all == unit.openFiles());
    }
    REQUIRE(UnitRoots::descriptors().all == before.all);
    g_quit = false;
    return 0;
}

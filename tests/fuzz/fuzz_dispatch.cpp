#include "bus/DebugText.h"
#include "core/DaemonCommands.h"
#include "core/Delivery.h"
#include "core/Dispatch.h"
#include "core/RunState.h"
#include "core/ThumbnailSchedule.h"
#include "core/shared/MessageQueue.h"
#include "core/shared/Replies.h"
#include "core/shared/Tokens.h"
#include "filesystem/FileProtocol.h"
#include "filesystem/Filesystem.h"
#include "history/HistoricalDataManager.h"
#include "jobs/LZFDownloadRemoteJob.h"
#include "jobs/RemoteJobManager.h"
#include "tests/fuzz/FuzzInput.h"
#include "tests/fuzz/Require.h"
#include "tests/fuzz/UnitRoots.h"
#include "tests/support/FakeBus.h"
#include "tests/support/FakeClock.h"
#include "tests/support/ForkStandIn.h"

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <vector>

/// Any sequence of deliveries through callback, queue, dispatch and file service, on real files:
/// each request with a code of the file protocol gets exactly one reply, with its own code, on its
/// own connection and of one of the two kinds; a keep-alive gets its one; no other code gets any.
/// The files that are open are those that replies said are open, and nothing else stays open. The
/// waiting thumbnail days are those that were asked for and those of the scheduling files. A
/// download is a job and a message to the connection manager, or a bare reply beyond the limits. A
/// lookup, the beginning of a replay and a listing are a fork each, of a child that ends at once;
/// a listing outside "/root" is notified.

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

constexpr int kOtherCommands[] = {0,   1,  80,     220,    230,    231,    232,    233,
                                  234, -1, 0x1406, 0x14A0, 0x14B0, 0x14B1, 0x14C0, 0x14C1};

constexpr char kTodo[] = "/root/data/thumbnailTodo.txt";
constexpr char kFinished[] = "/root/data/thumbnailsComplete.txt";
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
        _bus.bus().addWantedToken(Tokens::kThumbnailDayFinished);
        g_StorageMessageTokenID = _bus.bus().findToken(Tokens::kStorageRequests);
        std::strcpy(g_szOurPubSubToken, kOwnReplies);
        g_pFilesystem = &_filesystem;
        g_pHistoricalDataManager = &_history;
        g_remoteManager = &_jobs;
        setDrainHooks({processMessage, nullptr});
    }

    ~Unit() {
        setDrainHooks({});
        g_pFilesystem = nullptr;
        g_pHistoricalDataManager = nullptr;
        g_remoteManager = nullptr;
        ThumbnailSchedule::forget();
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
            deliver(connection, input.takeMessage(command, formatOf(command)).encoded());
        } else if (step == kStorageBytes) {
            deliver(connection, input.takeBlock());
        } else if (step == kOwnBytes && connection % 2 == 0) {
            deliverOwn(input.takeBlock());
        } else if (step == kOwnBytes) {
            deliverDayFinished(connection, input.takeBlock());
        } else if (connection % 2 == 0) {
            drain();
            letTimePass(input.takeByte());
        } else {
            drain();
            const std::string todo = input.takeBlock();
            loadSchedule(todo, input.takeBlock());
        }
        if (!isHeld) {
            drain();
        }
    }

    /// Dispatches what was delivered and checks what was sent for it.
    void drain() {
        processWaitingMessages();
        REQUIRE(_fork.count() == _expectedChildren);
        const QList<FakeBus::Sent> sent = _bus.takeSent();
        REQUIRE(sent.size() == static_cast<qsizetype>(_expected.size()));
        for (qsizetype i = 0; i < sent.size(); ++i) {
            checkReply(_expected[static_cast<std::size_t>(i)], sent[i]);
        }
        _expected.clear();
        checkSchedule();
    }

    int openFiles() const { return _openFiles; }

    void endDownloads() {
        while (!_jobs.jobs().isEmpty()) {
            RemoteJob* const job = _jobs.jobs().first();
            _jobs.removeJob(job);
            delete job;
        }
    }

private:
    struct Expected {
        int connection;
        int command;
        bool startsDownload = false;
    };
    struct Day {
        QString job;
        QString date;
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

    /// The connection's number says how many days are outstanding by then, and whether the last
    /// one came from the file.
    void deliverDayFinished(int connection, const std::string& bytes) {
        drain();
        g_thumbnailDaysOutstanding = connection / 4;
        g_thumbnailDayFromFile = connection / 2 % 2 == 1;
        _bus.transport().deliver(Tokens::kThumbnailDayFinished, QByteArray::fromStdString(bytes));
        _bus.bus().takeInArrived();
        REQUIRE(g_thumbnailDaysOutstanding == 0);
    }

    /// A start of the daemon with these scheduling files, against a plain model of it.
    void loadSchedule(const std::string& todo, const std::string& finished) {
        namespace fs = std::filesystem;
        for (const auto& [path, contents] : {std::pair(kTodo, todo), {kFinished, finished}}) {
            fs::remove_all(path);
            std::ofstream(path, std::ios::binary) << contents;
        }
        ThumbnailSchedule::forget();
        ThumbnailSchedule::load();
        _days.clear();
        for (const QByteArray& line : QByteArray::fromStdString(todo).split('\n')) {
            const QByteArray entry = line.trimmed();
            if (entry.count(',') == 1) {
                const QList<QByteArray> parts = entry.split(',');
                _days.append({QString::fromUtf8(parts[0]), QString::fromUtf8(parts[1])});
            }
        }
        const bool hasDays = !_days.isEmpty();
        for (const QByteArray& line : QByteArray::fromStdString(finished).split('\n')) {
            removeFirstDay(QString::fromUtf8(line.trimmed()));
        }
        checkSchedule();
        REQUIRE(fs::exists(kTodo) == (!hasDays || !_days.isEmpty()));
        REQUIRE(fs::exists(kFinished) == fs::exists(kTodo));
    }

    void removeFirstDay(const QString& date) {
        for (qsizetype i = 0; i < _days.size() && !date.isEmpty(); ++i) {
            if (_days[i].date == date) {
                _days.removeAt(i);
                return;
            }
        }
    }

    void checkSchedule() const {
        REQUIRE(g_thumbnailDays.size() == _days.size());
        for (qsizetype i = 0; i < _days.size(); ++i) {
            REQUIRE(g_thumbnailDays[i].job == _days[i].job);
            REQUIRE(g_thumbnailDays[i].date == _days[i].date);
        }
    }

    static QString textAt(const WireMessage& message, std::size_t index) {
        const bool isText = index < message.format.size() && message.format[index] == 'S';
        return isText ? QString::fromUtf8(message.bytes(index).c_str()) : QString();
    }

    void expectDay(const WireMessage& message) {
        const Day day{textAt(message, 0), textAt(message, 1)};
        if (day.job.size() <= ThumbnailSchedule::kMaximumTextLength &&
            day.date.size() <= ThumbnailSchedule::kMaximumTextLength &&
            _days.size() < ThumbnailSchedule::kMaximumWaitingDays) {
            _days.append(day);
        }
    }

    void expectAnswerTo(int connection, const std::string& bytes) {
        const std::optional<WireMessage> message = WireMessage::decoded(bytes);
        if (message && message->command == COMMAND_THUMBNAIL_DAY) {
            expectDay(*message);
        }
        if (message && forks(message->command)) {
            ++_expectedChildren;
        }
        if (message && message->command == MESSAGE_GENERATE_LISTING &&
            !textAt(*message, 1).startsWith("/root")) {
            _expected.push_back({connection, message->command});
        }
        if (message && message->command == MESSAGE_LZF_DOWNLOAD) {
            _expected.push_back(
                {connection, message->command, startsDownload(connection, *message)});
        } else if (message &&
                   (message->command == COMMAND_KEEPALIVE || isArchiveRequest(message->command) ||
                    findFileRequest(message->command))) {
            _expected.push_back({connection, message->command});
        }
    }

    static bool isArchiveRequest(int command) {
        return command == MESSAGE_CONFIG_BACKUP || command == MESSAGE_CONFIG_RESTORE;
    }

    static bool forks(int command) {
        return command == COMMAND_LOOKUP || command == COMMAND_BEGIN_REPLAY ||
               command == MESSAGE_GENERATE_LISTING;
    }

    static const char* formatOf(int command) {
        switch (command) {
            case COMMAND_THUMBNAIL_DAY:
            case COMMAND_BEGIN_REPLAY:
            case MESSAGE_GENERATE_LISTING:
                return "SS";
            case COMMAND_LOOKUP:
                return "SiiSSS";
            case COMMAND_CONTINUE_REPLAY:
            case MESSAGE_LZF_DOWNLOAD:
                return "iS";
            default:
                return "ii";
        }
    }

    bool startsDownload(int connection, const WireMessage& request) {
        int all = 0;
        for (const auto& [owner, count] : _downloads) {
            all += count;
        }
        const bool starts = request.format == "iS" && _downloads[connection] < 8 && all < 64;
        _downloads[connection] += starts ? 1 : 0;
        return starts;
    }

    /// A slice of every download; what they say is fuzz_download_stream's.
    void runDownloads() {
        _jobs.runSlice();
        for (const FakeBus::Sent& sent : _bus.takeSent()) {
            REQUIRE(sent.token == Tokens::kClientMessage);
            REQUIRE(sent.message.command() == MESSAGE_LZF_DOWNLOAD);
            REQUIRE(_downloads[sent.connection] > 0);
        }
        _downloads.clear();
        for (const RemoteJob* job : _jobs.jobs()) {
            ++_downloads[job->connectionID()];
        }
    }

    void letTimePass(int seconds) {
        runDownloads();
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
        if (expected.command == MESSAGE_GENERATE_LISTING) {
            REQUIRE(sent.token == Tokens::kNotificationAdd);
            return;
        }
        if (expected.startsDownload) {
            REQUIRE(sent.token == Tokens::kConnectionManager);
            REQUIRE(reply.command() == MESSAGE_WRITE_COUNT);
            REQUIRE(reply.parameterAsInt32(0) == expected.connection);
            return;
        }
        REQUIRE(reply.command() == expected.command);
        if (expected.command == COMMAND_KEEPALIVE) {
            REQUIRE(sent.token == kOwnReplies);
            REQUIRE(std::strcmp(reply.formatString(), "i") == 0);
            return;
        }
        REQUIRE(sent.token == Tokens::kClientMessage);
        REQUIRE(sent.connection == expected.connection);
        const char* format = reply.formatString();
        if (isArchiveRequest(expected.command)) {
            REQUIRE(std::strcmp(format, "c") == 0);
            return;
        }
        const bool isBare = *format == '\0';
        REQUIRE(isBare || expected.command != MESSAGE_LZF_DOWNLOAD);
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
    HistoricalDataManager _history{nullptr};
    ForkStandIn _fork{ForkStandIn::Outcome::EndsAtOnce};
    RemoteJobManager _jobs;
    std::vector<Expected> _expected;
    std::map<int, int> _downloads;
    QList<Day> _days;
    int _openFiles = 0;
    int _expectedChildren = 0;
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
        unit.endDownloads();
        const UnitRoots::Descriptors during = UnitRoots::descriptors();
        REQUIRE(during.underRoots - before.underRoots == unit.openFiles());
        REQUIRE(during.all - before.all == unit.openFiles());
    }
    REQUIRE(UnitRoots::descriptors().all == before.all);
    g_quit = false;
    return 0;
}

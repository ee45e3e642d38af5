#include "tools/storagectl/Connection.h"

#include "bus/Clock.h"
#include "core/shared/Tokens.h"
#include "filesystem/FileProtocol.h"
#include "tools/storagectl/Interrupt.h"

#include <QByteArray>
#include <QRandomGenerator>
#include <QtEndian>

#include <algorithm>
#include <cstring>
#include <limits>
#include <utility>

namespace storagectl {

namespace {

constexpr int kFrameBytes = 4;
constexpr int kBrokerPollMilliseconds = 50;
constexpr int kLongestWaitMilliseconds = 250;

/// What the full reply to a code looks like, and how many leading numbers it repeats.
struct ReplyShape {
    int command;
    const char* format;
    int repeatedNumbers;
};

constexpr ReplyShape kShapes[] = {
    {MESSAGE_FILE_OPEN, "Sii", 0},          {MESSAGE_FILE_CLOSE, "i", 1},
    {MESSAGE_FILE_READ, "iiB", 2},          {MESSAGE_FILE_WRITE, "ii", 1},
    {MESSAGE_FILE_GENERATE_HASH, "iiB", 2}, {MESSAGE_FILE_TRUNCATE, "i", 1},
    {MESSAGE_FILE_DELETE, "S", 0},          {MESSAGE_FILE_MOVE, "SS", 0},
    {MESSAGE_OPEN_DIRECTORY, "Sii", 0},     {MESSAGE_CLOSE_DIRECTORY, "i", 1},
    {MESSAGE_GET_FILE_IN_DIR, "iiSiii", 2}, {MESSAGE_LISTING_FINISHED, "SS", 0},
    {MESSAGE_CONFIG_BACKUP, "c", 0},        {MESSAGE_CONFIG_RESTORE, "c", 0},
};

const ReplyShape* shapeOf(int command) {
    for (const ReplyShape& shape : kShapes) {
        if (shape.command == command) {
            return &shape;
        }
    }
    return nullptr;
}

/// The one request whose reply has another code.
int requestOf(int replyCommand) {
    return replyCommand == MESSAGE_LISTING_FINISHED ? MESSAGE_GENERATE_LISTING : replyCommand;
}

bool repeats(const Message& request, const Message& reply, int numbers) {
    for (int i = 0; i < numbers; ++i) {
        if (request.parameterAsInt32(i) != reply.parameterAsInt32(i)) {
            return false;
        }
    }
    return true;
}

}  // namespace

Outcome outcomeOf(Answer answer, const QString& subject) {
    switch (answer) {
        case Answer::Success:
            return Outcome::done();
        case Answer::Refused:
            return {ExitCode::Failed, subject + ": the daemon reports a failure", true};
        case Answer::Unfit:
            return {ExitCode::Failed, subject + ": the daemon's answer does not fit the request",
                    true};
        case Answer::NoDaemon:
            return {ExitCode::NoDaemon, subject + ": no answer from the daemon", true};
        case Answer::NoBroker:
            return {ExitCode::NoBroker, subject + ": the connection to the broker is lost", true};
        case Answer::Interrupted:
            break;
    }
    return Outcome::failure(ExitCode::Interrupted, subject + ": interrupted");
}

Connection::Connection(PubSubInterface& bus, int timeoutMilliseconds)
    : _bus(bus), _timeoutMilliseconds(static_cast<quint32>(timeoutMilliseconds)) {
    abandon();
}

Outcome joinBus(PubSubInterface& bus, PubSubCallback callback, void* context) {
    if (!bus.initialize("storagectl", callback, context, 0, 0, 0, IOPriority::Unchanged)) {
        return Outcome::failure(ExitCode::BadEnvironment, "the bus settings cannot be used");
    }
    return bus.isConnected() ? Outcome::done()
                             : Outcome::failure(ExitCode::NoBroker, "no broker to be reached");
}

Outcome Connection::join() {
    const Outcome outcome = joinBus(_bus, &Connection::delivered, this);
    if (outcome.isDone()) {
        _bus.addWantedToken(Tokens::kClientMessage);
        _lostConnections = _bus.lostConnections();
    }
    return outcome;
}

void Connection::listen(const QByteArrayList& tokens, Listener listener) {
    _listener = std::move(listener);
    for (const QByteArray& token : tokens) {
        _bus.addWantedToken(token);
    }
}

void Connection::listenToDownload(DownloadListener listener) {
    if (listener && !_downloadListener) {
        _bus.addWantedToken(Tokens::kConnectionManager);
    } else if (!listener && _downloadListener) {
        _bus.removeWantedToken(Tokens::kConnectionManager);
    }
    _downloadListener = std::move(listener);
}

bool Connection::post(const Message& request) {
    _underWay.push_back(request);
    return send(request);
}

bool Connection::send(const Message& request) {
    QByteArray frame(kFrameBytes + request.length(), Qt::Uninitialized);
    qToLittleEndian<qint32>(_number, frame.data());
    std::memcpy(frame.data() + kFrameBytes, request.buffer(),
                static_cast<std::size_t>(request.length()));
    return _bus.sendToken(Tokens::kStorageRequests, frame.constData(),
                          static_cast<int>(frame.size()));
}

Answer Connection::wait(int milliseconds) {
    if (Interrupt::requested()) {
        return Answer::Interrupted;
    }
    if (!_bus.isConnected() || _bus.lostConnections() != _lostConnections) {
        return Answer::NoBroker;
    }
    if (milliseconds > 0) {
        // A wait lasts its whole time though the connection ends in it.
        _bus.readWaitingMessages(std::min(milliseconds, kLongestWaitMilliseconds));
    }
    return Answer::Success;
}

Answer Connection::pause(int milliseconds) {
    const quint32 start = Clock::ticks();
    const auto whole = static_cast<quint32>(milliseconds);
    for (;;) {
        const quint32 left = whole - std::min(Clock::ticks() - start, whole);
        const Answer answer = wait(static_cast<int>(left));
        if (answer != Answer::Success || left == 0) {
            return answer;
        }
    }
}

Answer Connection::next(Answered& answered, int extraMilliseconds) {
    const quint32 start = Clock::ticks();
    const quint32 allowed = _timeoutMilliseconds + static_cast<quint32>(extraMilliseconds);
    while (_answered.empty()) {
        const quint32 left = allowed - std::min(Clock::ticks() - start, allowed);
        const Answer answer = wait(static_cast<int>(left));
        if (answer != Answer::Success || left == 0) {
            return answer == Answer::Success ? Answer::NoDaemon : answer;
        }
    }
    answered = std::move(_answered.front());
    _answered.pop_front();
    return answered.answer;
}

Answer Connection::ask(const Message& request, Message& reply, int extraMilliseconds) {
    if (underWay() > 0) {
        abandon();
    }
    post(request);
    Answered answered;
    const Answer answer = next(answered, extraMilliseconds);
    reply = answered.reply;
    return answer;
}

Answer Connection::startAfresh() {
    abandon();
    const quint32 start = Clock::ticks();
    while (!_bus.isConnected()) {
        if (Interrupt::requested()) {
            return Answer::Interrupted;
        }
        if (Clock::ticks() - start >= _timeoutMilliseconds) {
            return Answer::NoBroker;
        }
        _bus.readWaitingMessages(kBrokerPollMilliseconds);
    }
    _lostConnections = _bus.lostConnections();
    return Answer::Success;
}

void Connection::abandon() {
    _underWay.clear();
    _answered.clear();
    _number = QRandomGenerator::system()->bounded(1, std::numeric_limits<int>::max());
}

void Connection::delivered(void* context, PubSubMessage* delivery) {
    auto& connection = *static_cast<Connection*>(context);
    const QByteArray token = connection._bus.tokenName(delivery->tokenId);
    if (token == Tokens::kClientMessage) {
        connection.take(*delivery);
    } else if (token == Tokens::kConnectionManager && connection._downloadListener) {
        connection.takeWish(*delivery);
    } else if (connection._listener) {
        connection._listener(token, *delivery);
    }
}

void Connection::take(const PubSubMessage& delivery) {
    if (delivery.length < kFrameBytes || qFromLittleEndian<qint32>(delivery.data) != _number) {
        return;
    }
    Message reply;
    reply.construct(delivery.data + kFrameBytes, delivery.length - kFrameBytes);
    if (reply.command() == MESSAGE_LZF_DOWNLOAD) {
        _hasAnswered = true;
        if (_downloadListener) {
            _downloadListener(reply);
        }
        return;
    }
    Answer answer = Answer::Unfit;
    const int index = findRequest(reply, answer);
    if (index < 0) {
        return;
    }
    _hasAnswered = true;
    _answered.push_back({answer, _underWay[index], reply});
    _underWay.erase(_underWay.begin() + index);
}

void Connection::takeWish(const PubSubMessage& delivery) {
    Message wish;
    wish.construct(delivery.data, delivery.length);
    if (wish.command() == MESSAGE_WRITE_COUNT && wish.parameterAsInt32(0) == _number) {
        _hasAnswered = true;
        _downloadListener(wish);
    }
}

int Connection::findRequest(const Message& reply, Answer& answer) const {
    const ReplyShape* shape = shapeOf(reply.command());
    if (shape == nullptr) {
        return -1;
    }
    const bool full = qstrcmp(reply.formatString(), shape->format) == 0;
    const bool bare = reply.formatString()[0] == '\0';
    answer = full ? Answer::Success : bare ? Answer::Refused : Answer::Unfit;
    for (std::size_t i = 0; i < _underWay.size(); ++i) {
        const Message& request = _underWay[i];
        const bool sameCommand = request.command() == requestOf(reply.command());
        if (sameCommand && (!full || repeats(request, reply, shape->repeatedNumbers))) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

}  // namespace storagectl

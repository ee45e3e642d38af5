#include "tools/storagectl/Connection.h"

#include "bus/Clock.h"
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

constexpr char kRequests[] = "Message.storage";
constexpr char kReplies[] = "ConnectionManager.clientMessage";
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
    {MESSAGE_GET_FILE_IN_DIR, "iiSiii", 2},
};

const ReplyShape* shapeOf(int command) {
    for (const ReplyShape& shape : kShapes) {
        if (shape.command == command) {
            return &shape;
        }
    }
    return nullptr;
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
        _bus.addWantedToken(kReplies);
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

bool Connection::post(const Message& request) {
    QByteArray frame(kFrameBytes + request.length(), Qt::Uninitialized);
    qToLittleEndian<qint32>(_number, frame.data());
    std::memcpy(frame.data() + kFrameBytes, request.buffer(),
                static_cast<std::size_t>(request.length()));
    _underWay.push_back(request);
    return _bus.sendToken(kRequests, frame.constData(), static_cast<int>(frame.size()));
}

Answer Connection::next(Answered& answered, int extraMilliseconds) {
    const quint32 start = Clock::ticks();
    const quint32 allowed = _timeoutMilliseconds + static_cast<quint32>(extraMilliseconds);
    while (_answered.empty()) {
        if (Interrupt::requested()) {
            return Answer::Interrupted;
        }
        if (!_bus.isConnected() || _bus.lostConnections() != _lostConnections) {
            return Answer::NoBroker;
        }
        const quint32 waited = Clock::ticks() - start;
        if (waited >= allowed) {
            return Answer::NoDaemon;
        }
        // A wait lasts its whole time though the connection ends in it.
        _bus.readWaitingMessages(
            std::min(static_cast<int>(allowed - waited), kLongestWaitMilliseconds));
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
    if (token == kReplies) {
        connection.take(*delivery);
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
    Answer answer = Answer::Unfit;
    const int index = findRequest(reply, answer);
    if (index < 0) {
        return;
    }
    _hasAnswered = true;
    _answered.push_back({answer, _underWay[index], reply});
    _underWay.erase(_underWay.begin() + index);
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
        const bool sameCommand = request.command() == reply.command();
        if (sameCommand && (!full || repeats(request, reply, shape->repeatedNumbers))) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

}  // namespace storagectl

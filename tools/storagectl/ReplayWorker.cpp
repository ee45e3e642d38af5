#include "tools/storagectl/ReplayWorker.h"

#include "bus/Clock.h"
#include "bus/PubSubInterface.h"
#include "core/shared/Tokens.h"
#include "tools/storagectl/Interrupt.h"

#include <algorithm>
#include <utility>

namespace storagectl {

namespace {

constexpr char kReplies[] = "Message.ExtProc.from";
constexpr int kKeepAliveCommand = 0;
constexpr int kBeginCommand = 231;
constexpr int kContinueCommand = 232;
constexpr int kBlockCommand = 233;
constexpr int kAcknowledgeCommand = 234;
constexpr char kRequester[] = "storagectl";
/// Days are chosen by date alone, and a noon exists on each of them in every time zone.
constexpr char kStartFormat[] = "yyyyMMdd120000";
constexpr int kSubscriptionMilliseconds = 2000;
constexpr int kWaitMilliseconds = 250;
/// A worker that is not deep in its files answers within it.
constexpr int kProbeMilliseconds = 500;
constexpr int kSilenceMilliseconds = 1000;
constexpr int kMostRepeats = 3;

bool hasFormat(const Message& message, const char* format) {
    return qstrcmp(message.formatString(), format) == 0;
}

QByteArray channelsText(const QMap<QByteArray, int>& channels) {
    QByteArrayList pairs;
    for (auto channel = channels.cbegin(); channel != channels.cend(); ++channel) {
        pairs.append(channel.key() + '=' + QByteArray::number(channel.value()));
    }
    return pairs.join('|');
}

}  // namespace

ReplayWorker::ReplayWorker(Connection& connection, int timeoutMilliseconds)
    : _connection(connection), _timeoutMilliseconds(timeoutMilliseconds) {}

Outcome ReplayWorker::checkUnit() {
    PubSubInterface& bus = _connection.bus();
    _connection.listen({}, [this](const QByteArray& token, const PubSubMessage& delivery) {
        take(token, delivery);
    });
    bus.wantBranch(kReplies);
    bus.awaitSubscriptions(kSubscriptionMilliseconds);
    _lostBefore = bus.lostConnections();
    const quint32 asked = Clock::ticks();
    probe();
    Outcome outcome;
    while (outcome.isDone() && Clock::ticksSince(asked) < _timeoutMilliseconds &&
           !(_daemonAnswers && Clock::ticksSince(asked) >= kProbeMilliseconds)) {
        outcome = wait(kProbeMilliseconds);
    }
    return outcome.isDone() && !_daemonAnswers ? outcomeOf(Answer::NoDaemon, "replay") : outcome;
}

Outcome ReplayWorker::begin(const ReplayOptions& options) {
    Message request;
    request.construct(kBeginCommand, "SS", kRequester,
                      options.from.toString(kStartFormat).toLatin1().constData());
    _hasAsked = true;
    Outcome outcome = send(request) ? Outcome::done() : outcomeOf(Answer::NoBroker, "replay");
    while (outcome.isDone() && _job == 0) {
        if (heldMilliseconds() >= _timeoutMilliseconds) {
            return Outcome::failure(ExitCode::NoDaemon, "replay: the daemon has begun none");
        }
        outcome = wait(kWaitMilliseconds);
    }
    if (outcome.isDone()) {
        request.construct(kContinueCommand, "iS", _job, channelsText(options.channels).constData());
        outcome = send(request) ? outcome : outcomeOf(Answer::NoBroker, "replay");
    }
    return outcome;
}

Outcome ReplayWorker::next(std::optional<Block>& block) {
    bool hasProbed = false;
    int repeats = 0;
    Outcome outcome;
    while (outcome.isDone() && !_block) {
        const int silence = heldMilliseconds();
        if (silence >= _timeoutMilliseconds) {
            // The end of a replay is not announced.
            return _daemonAnswers ? outcome : outcomeOf(Answer::NoDaemon, "replay");
        }
        if (!hasProbed && silence >= std::min(kSilenceMilliseconds, _timeoutMilliseconds / 2)) {
            probe();
            hasProbed = true;
        }
        outcome = wait(kWaitMilliseconds);
        if (!outcome.isDone() || _block || !hasProbed || !_workerAnswers) {
            continue;
        }
        // It waits, so what it was told last is lost.
        if (++repeats > kMostRepeats) {
            return Outcome::failure(ExitCode::Failed,
                                    "replay: the unit's process for it is there, and sends no "
                                    "block");
        }
        send(Message(_last));
        hasProbed = _workerAnswers = false;
    }
    block = std::exchange(_block, std::nullopt);
    return outcome;
}

void ReplayWorker::acknowledge() {
    Message message;
    message.construct(kAcknowledgeCommand, "ii", _job, _sequence);
    send(message);
}

int ReplayWorker::heldMilliseconds() const {
    return Clock::ticksSince(_lastSent);
}

bool ReplayWorker::send(const Message& message) {
    _last = message;
    _lastSent = Clock::ticks();
    return _connection.bus().sendTokenMessage(Tokens::kStorageManager, message);
}

void ReplayWorker::probe() {
    _daemonAnswers = false;
    _workerAnswers = false;
    Message message;
    message.construct(kKeepAliveCommand, "");
    _connection.bus().sendTokenMessage(Tokens::kStorageManager, message);
}

Outcome ReplayWorker::wait(int milliseconds) {
    PubSubInterface& bus = _connection.bus();
    bus.readWaitingMessages(milliseconds);
    if (!_conflict.isEmpty()) {
        return Outcome::failure(ExitCode::Unsafe,
                                "replay: " + _conflict +
                                    "; one replay a unit at a time, all hear each other's "
                                    "acknowledgements");
    }
    if (Interrupt::requested()) {
        return outcomeOf(Answer::Interrupted, "replay");
    }
    // A block that was sent meanwhile is lost, and nothing brings it back.
    const bool isWhole = bus.isConnected() && bus.lostConnections() == _lostBefore;
    return isWhole ? Outcome::done() : outcomeOf(Answer::NoBroker, "replay");
}

void ReplayWorker::take(const QByteArray& token, const PubSubMessage& delivery) {
    const int daemon = token.mid(static_cast<qsizetype>(sizeof kReplies)).toInt();
    Message message;
    message.construct(delivery.data, delivery.length);
    if (!token.startsWith(kReplies) || (_daemon != 0 && daemon != _daemon)) {
        return;
    }
    if (message.command() == kKeepAliveCommand && hasFormat(message, "i")) {
        takeAnswer(daemon, message.parameterAsInt32(0));
    } else if (message.command() == kContinueCommand && hasFormat(message, "i")) {
        takeAnnouncement(daemon, message);
    } else if (message.command() == kBlockCommand && hasFormat(message, "iiiB")) {
        takeBlock(daemon, message);
    }
}

void ReplayWorker::takeAnswer(int daemon, int process) {
    if (process == daemon) {
        _daemonAnswers = true;
        return;
    }
    _workerAnswers = true;
    _workers.insert(process);
    if (_workers.size() > (_hasAsked ? 1 : 0)) {
        _conflict = QString("process %1 of the unit replays already").arg(process);
    }
}

void ReplayWorker::takeAnnouncement(int daemon, const Message& message) {
    if (!_hasAsked || _job != 0) {
        _conflict = "another replay has begun on the unit";
        return;
    }
    _daemon = daemon;
    _job = message.parameterAsInt32(0);
}

void ReplayWorker::takeBlock(int daemon, const Message& message) {
    const int sequence = message.parameterAsInt32(1);
    if (daemon != _daemon || _block || message.parameterAsInt32(0) != _job ||
        sequence != _sequence + 1) {
        _conflict = "a block came that is another replay's";
        return;
    }
    int length = 0;
    const char* const bytes = message.parameterAsBLOB(3, length);
    _sequence = sequence;
    _block = Block{sequence, static_cast<quint32>(message.parameterAsInt32(2)),
                   QByteArray(bytes, length)};
}

}  // namespace storagectl

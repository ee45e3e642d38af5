#pragma once

#include "bus/Message.h"
#include "bus/PubSubInterface.h"
#include "tools/storagectl/Outcome.h"

#include <QByteArrayList>
#include <QtGlobal>

#include <deque>
#include <functional>

namespace storagectl {

/// How the daemon answered a request.
enum class Answer {
    Success,
    Refused,  ///< the bare reply, the protocol's only sign of failure
    Unfit,    ///< a reply that does not fit its request
    NoDaemon,
    NoBroker,
    Interrupted,
};

/// The outcome that stands for an answer other than Success. `subject` opens the sentence.
Outcome outcomeOf(Answer answer, const QString& subject);

/// Joins the bus as storagectl. NoBroker where none answers within half a second, BadEnvironment
/// where the environment is unusable.
Outcome joinBus(PubSubInterface& bus, PubSubCallback callback, void* context);

/// The client's end of the file protocol. It plays the connection manager for one connection
/// number of its own (random, 31 bits, never 0): requests go out framed with it, and of the
/// replies to all clients it takes those that carry it. The daemon answers in order, so a reply
/// belongs to the oldest request under way with its code and the numbers that it repeats, and a
/// bare reply to the oldest with its code. After a break `startAfresh` draws a new number, and
/// late replies to the old one are nobody's. The bus belongs to the caller.
class Connection {
public:
    /// Told of each delivery on the tokens that `listen` named.
    using Listener = std::function<void(const QByteArray& token, const PubSubMessage& delivery)>;
    /// Told of each message of a download; a bare one refuses it. And of the daemon's wish to hear
    /// how far the connection has drained, which has another code.
    using DownloadListener = std::function<void(const Message& message)>;

    struct Answered {
        Answer answer = Answer::Unfit;
        Message request;
        Message reply;
    };

    Connection(PubSubInterface& bus, int timeoutMilliseconds);
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    /// As `joinBus`, and wants the replies.
    Outcome join();

    /// Wants these tokens too, from all processes of the unit. Called from inside every wait.
    void listen(const QByteArrayList& tokens, Listener listener);

    /// The same for the downloads of this connection; an empty function ends it.
    void listenToDownload(DownloadListener listener);
    /// Sends a request that is not answered by a reply of its own.
    bool send(const Message& request);
    /// Waits for deliveries once, for so long at the most. Success, NoBroker or Interrupted.
    Answer wait(int milliseconds);
    /// The same for all of that time, whatever is delivered.
    Answer pause(int milliseconds);

    /// Sends a request. False where there is no broker; `next` says so then.
    bool post(const Message& request);
    /// The next answered request, in order of arrival. Waits as long as `timeoutMilliseconds` and
    /// `extraMilliseconds` together without progress. Anything but Success, Refused and Unfit
    /// leaves `answered` as it was.
    Answer next(Answered& answered, int extraMilliseconds = 0);
    /// `post` and `next` for a single request; what was under way before is abandoned.
    Answer ask(const Message& request, Message& reply, int extraMilliseconds = 0);

    int underWay() const { return static_cast<int>(_underWay.size() + _answered.size()); }
    /// True once the daemon has answered anything at all.
    bool hasAnswered() const { return _hasAnswered; }
    int connectionNumber() const { return _number; }
    int timeoutMilliseconds() const { return static_cast<int>(_timeoutMilliseconds); }
    PubSubInterface& bus() { return _bus; }

    /// Forgets what is under way and takes a new connection number.
    void abandon();
    /// After a break: abandons, and waits for the broker where it is away, as long as the time-out.
    /// Success, NoBroker or Interrupted.
    Answer startAfresh();

private:
    static void delivered(void* context, PubSubMessage* delivery);
    void take(const PubSubMessage& delivery);
    void takeWish(const PubSubMessage& delivery);
    int findRequest(const Message& reply, Answer& answer) const;

    PubSubInterface& _bus;
    quint32 _timeoutMilliseconds;
    int _number = 0;
    quint32 _lostConnections = 0;
    bool _hasAnswered = false;
    Listener _listener;
    DownloadListener _downloadListener;
    std::deque<Message> _underWay;
    std::deque<Answered> _answered;
};

}  // namespace storagectl

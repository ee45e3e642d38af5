#pragma once

#include "bus/Message.h"
#include "tools/storagectl/Connection.h"
#include "tools/storagectl/HistoryOptions.h"

#include <QByteArray>
#include <QSet>

#include <optional>

namespace storagectl {

/// The client's end of a replay. The unit's daemon forks a worker that streams blocks, each when
/// the one before it is acknowledged. Workers have neither a token nor a job number of their own:
/// their blocks come on the daemon's, and each hears what is sent to any of them. So there must be
/// one on a unit at a time, and whatever shows another ends this replay. The daemon's own token is
/// known from the announcement of the worker, the processes from their answers to a keep-alive:
/// each answers with its own process id.
class ReplayWorker {
public:
    /// The unit ends a replay whose block is not acknowledged for so long.
    static constexpr int kPatienceMilliseconds = 60'000;

    struct Block {
        int sequence = 0;
        quint32 startTime = 0;  ///< seconds since 1970, of the first day's noon
        QByteArray bytes;
    };

    ReplayWorker(Connection& connection, int timeoutMilliseconds);

    /// Listens, and makes sure that a daemon is there and, as far as it can be seen, no worker.
    Outcome checkUnit();
    /// Has a worker begin.
    Outcome begin(const ReplayOptions& options);
    /// The next block; none where the replay is over.
    Outcome next(std::optional<Block>& block);
    /// Waits for `milliseconds`, or until something comes. Done while the replay can go on.
    Outcome wait(int milliseconds);
    void acknowledge();

    /// Since a block could last be let go.
    int heldMilliseconds() const;

private:
    void take(const QByteArray& token, const PubSubMessage& delivery);
    void takeAnswer(int daemon, int process);
    void takeAnnouncement(int daemon, const Message& message);
    void takeBlock(int daemon, const Message& message);
    bool send(const Message& message);
    void probe();

    Connection& _connection;
    int _timeoutMilliseconds;
    quint32 _lostBefore = 0;
    bool _hasAsked = false;
    int _daemon = 0;  ///< its process id, once its worker was announced
    int _job = 0;
    int _sequence = 0;  ///< of the last block
    bool _daemonAnswers = false;
    bool _workerAnswers = false;
    QSet<int> _workers;
    QString _conflict;
    std::optional<Block> _block;
    Message _last;  ///< what the worker was told last
    quint32 _lastSent = 0;
};

}  // namespace storagectl

#pragma once

#include "bus/Message.h"

#include <QByteArrayList>

#include <deque>
#include <optional>
#include <vector>

class PubSubInterface;

namespace storagectl {

struct LookupOptions;

/// What the daemon answered to one request: up to 30 minutes from `start` on.
struct HalfHour {
    qint64 start = 0;  ///< seconds since 1970, a whole minute
    int minutes = 0;   ///< that are asked for; the answer may hold more
    bool isAnswered = false;
    /// For each gauge its minutes, up to the last one that has a sample; 0 is a sample of 0, or
    /// none.
    std::vector<std::vector<float>> values;
};

/// A row of lookups that together cover a range of time, a few under way at once, handed out in
/// order. Each carries a random tag of its own, and a new one when it is asked again, so that
/// late answers and those to other clients are nobody's. A half hour ends at midnight, because the
/// daemon looks at the second day only where it has found the first. The bus belongs to the
/// caller, who waits on it.
class HalfHours {
public:
    /// The daemon runs 8 at once, of all clients.
    static constexpr int kMostUnderWay = 4;
    static constexpr int kMostAsks = 3;

    HalfHours(PubSubInterface& bus, const LookupOptions& options, int timeoutMilliseconds);

    /// Asks for what there is room for, and again for what was not answered in time.
    void ask();
    /// Takes in a delivery, which need not be well formed.
    void take(const char* data, int length);
    /// The next half hour, once it is answered or given up.
    std::optional<HalfHour> next();
    bool isDone() const { return _nextStart > _last && _underWay.empty(); }

private:
    struct Request {
        HalfHour half;
        int tag = 0;
        int asks = 0;
        std::vector<bool> has;  ///< by gauge
        bool isGivenUp = false;
    };

    void add();
    void send(Request& request);
    Request* find(int tag);
    bool takeValues(const Message& message, Request& request) const;
    bool takeEnd(const Message& message, Request& request) const;

    PubSubInterface& _bus;
    const LookupOptions& _options;
    QByteArray _gaugeList;
    int _timeoutMilliseconds;
    qint64 _nextStart;
    qint64 _last;  ///< the last minute
    quint32 _lastNews = 0;
    std::deque<Request> _underWay;
};

}  // namespace storagectl

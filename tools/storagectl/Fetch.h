#pragma once

#include "tools/storagectl/Commands.h"

#include <QList>

#include <functional>

namespace storagectl {

/// A file of the unit, and the local file that it becomes.
struct FetchItem {
    QByteArray remote;
    QByteArray local;
    qint64 size = 0;       ///< in bytes, as listed; the base of the total and of the time left
    qint64 modified = -1;  ///< seconds since 1970, -1 leaves the local time

    // How it ended, for those who are told.
    qint64 keptBytes = 0;  ///< were here before and not sent again
    bool grew = false;     ///< meanwhile; it was fetched as it was
};

/// What a fetch has done so far. Bytes on the wire are those of the data messages.
struct FetchTotals {
    int files = 0;         ///< in place and proved
    qint64 fileBytes = 0;  ///< of these files
    qint64 keptBytes = 0;  ///< of them, those that were here before and not sent again
    qint64 bytesOnWire = 0;
};

/// Fetches files over the daemon's download job, many in one request. Each arrives in
/// "<local>.part", is proved by the daemon's own hash of it, and renamed over its target; a
/// partial file, or where there is none a local file of the target's name that is not longer than
/// the remote one, is gone on from if the daemon's hash of that prefix agrees. After a break it
/// goes on from what is there, with `--retries` attempts in a row without progress. Paced to
/// `Options::bytesASecond`. Shows its progress with a total over all items.
class Fetch {
public:
    /// How each item ended, in the order in which they end; called once an item.
    using Ended = std::function<void(const FetchItem& item, const Outcome& outcome)>;

    explicit Fetch(Context& context) : _context(context) {}

    /// Done once every item's end was told; else why the rest was given up (no broker, no daemon,
    /// interrupted, the local disk full): `ended` was told of these items too.
    Outcome run(const QList<FetchItem>& items, const Ended& ended);

    const FetchTotals& totals() const { return _totals; }

private:
    Context& _context;
    FetchTotals _totals;
};

}  // namespace storagectl

#pragma once

#include "tools/storagectl/DownloadJob.h"
#include "tools/storagectl/FetchFile.h"
#include "tools/storagectl/Progress.h"
#include "tools/storagectl/Retries.h"

#include <QSet>

#include <deque>
#include <memory>
#include <vector>

namespace storagectl {

/// One call of `Fetch::run`. It works in rounds: each is one request for many files, those to be
/// proved before those to be fetched. A file that has arrived is proved in the round after, so that
/// nothing waits for a proof of its own.
class FetchRun : private StreamEvents {
public:
    FetchRun(Context& context, FetchTotals& totals, const QList<FetchItem>& items,
             const Fetch::Ended& ended);

    Outcome run();

private:
    void began(Start start) override;
    void fileBytes(const char* data, qint64 length) override;
    void directoryEntry(const Entry&) override {}
    void failed(const QByteArray& reason) override;
    bool expectsMore() const override;

    Outcome whyNot(const FetchItem& item) const;
    bool fillRound();
    void addToRound(const FetchItem& item);
    Outcome runRound();
    Outcome stream(bool& isRefused);
    bool goesOn() const;
    void endCurrent();
    template <typename Event>
    void tell(const Event& event);
    void settle();
    void putInPlace(const std::vector<FetchFile*>& proved);
    Outcome giveUp(const Outcome& outcome);
    void readRound();
    void read(FetchItem item);
    void end(FetchFile& file, Outcome outcome);
    void end(const FetchItem& item, const Outcome& outcome);
    void showProgress();

    Context& _context;
    FetchTotals& _totals;
    const QList<FetchItem>& _items;
    const Fetch::Ended& _ended;
    Pacing _pacing;
    Progress _progress;
    QSet<QByteArray> _targets;
    qsizetype _next = 0;  ///< of the items, the first that was not begun
    std::deque<std::unique_ptr<FetchFile>> _round;
    qsizetype _current = -1;  ///< in the round, the file that the stream is at
    qint64 _wireBefore = 0;   ///< the round under way
    qint64 _mostPresent = 0;  ///< when a round ended; to fall back and catch up is no progress
    qint64 _present = 0;      ///< bytes of all files that are here
    qint64 _total = 0;
    Retries _retries;
    bool _hasTooMany = false;  ///< answers in the stream
    bool _isBroken = false;    ///< the last stream
    bool _hasToldOfRefusal = false;
    Outcome _hopeless;  ///< why no other file can fare better
};

}  // namespace storagectl

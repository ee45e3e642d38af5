#include "tools/storagectl/Fetch.h"

#include "tools/storagectl/FetchRun.h"

namespace storagectl {

Outcome Fetch::run(const QList<FetchItem>& items, const Ended& ended) {
    return FetchRun(_context, _totals, items, ended).run();
}

}  // namespace storagectl

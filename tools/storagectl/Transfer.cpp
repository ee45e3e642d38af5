#include "tools/storagectl/Transfer.h"

#include "tools/storagectl/Retries.h"

namespace storagectl {

Outcome Transfer::run() {
    Retries retries(_tools.files.connection(), _tools.output, _tools.retries);
    for (;;) {
        const qint64 before = _digests.length();
        const Outcome outcome = attempt();
        if (outcome.isDone()) {
            return outcome;
        }
        const Outcome next = retries.next(outcome, _digests.length() > before, text(_path));
        if (!next.isDone()) {
            return next;
        }
    }
}

Outcome Transfer::prove(const FileService::OpenFile& file, bool& proved) {
    _tools.progress.begin("verified", 0, _digests.length());
    const Answer answer = _tools.files.prove(file, _digests.pieces(), proved,
                                             [this](qint64 done) { _tools.progress.update(done); });
    return outcomeOf(answer, text(_path));
}

}  // namespace storagectl

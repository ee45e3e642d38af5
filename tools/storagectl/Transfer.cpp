#include "tools/storagectl/Transfer.h"

namespace storagectl {

Outcome Transfer::run() {
    Connection& connection = _tools.files.connection();
    int retriesLeft = _tools.retries;
    for (;;) {
        const qint64 before = _digests.length();
        const Outcome outcome = attempt();
        if (!outcome.mayRetry || !connection.hasAnswered()) {
            return outcome;
        }
        if (_digests.length() > before) {
            retriesLeft = _tools.retries;
        }
        if (retriesLeft == 0) {
            return outcome;
        }
        --retriesLeft;
        _tools.output.talk(outcome.message + "; trying again");
        if (connection.startAfresh() == Answer::Interrupted) {
            return outcomeOf(Answer::Interrupted, text(_path));
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

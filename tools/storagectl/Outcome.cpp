#include "tools/storagectl/Outcome.h"

namespace storagectl {

void Tally::add(const Outcome& outcome) {
    if (outcome.isDone()) {
        _anyDone = true;
        return;
    }
    const bool sameAsBefore = !_anyFailed || _failure == outcome.code;
    _anyFailed = true;
    _failure = sameAsBefore ? outcome.code : ExitCode::Failed;
}

ExitCode Tally::code() const {
    if (!_anyFailed || _failure == ExitCode::Interrupted) {
        return _failure;
    }
    return _anyDone ? ExitCode::Partly : _failure;
}

}  // namespace storagectl

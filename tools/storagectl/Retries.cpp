#include "tools/storagectl/Retries.h"

#include "tools/storagectl/Output.h"

#include <algorithm>

namespace storagectl {

namespace {

constexpr int kFirstPauseMilliseconds = 1000;
constexpr int kMostDoublings = 4;

}  // namespace

Outcome Retries::next(const Outcome& outcome, bool hadProgress, const QString& subject) {
    _left = hadProgress ? _most : _left;
    if (!outcome.mayRetry || !_connection.hasAnswered() || _left == 0) {
        return outcome;
    }
    --_left;
    _output.talk(outcome.message + "; trying again");
    const Answer answer = _connection.startAfresh();
    // A broker that stays away is found out by the next attempt.
    return answer == Answer::Interrupted ? outcomeOf(answer, subject) : Outcome::done();
}

Outcome Retries::nextAfterRefusal(const Outcome& outcome, const QString& subject) {
    const int doublings = std::min(_most - _left, kMostDoublings);
    const Outcome next = this->next(outcome, false, subject);
    if (!next.isDone()) {
        return next;
    }
    const Answer answer = _connection.pause(kFirstPauseMilliseconds << doublings);
    return answer == Answer::Interrupted ? outcomeOf(answer, subject) : Outcome::done();
}

}  // namespace storagectl

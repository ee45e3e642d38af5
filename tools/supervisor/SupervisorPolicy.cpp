#include "tools/supervisor/SupervisorPolicy.h"

#include "bus/Clock.h"

#include <algorithm>

namespace {

// Unsigned, so that it holds across the clock's wrap.
quint32 elapsed(quint32 since) {
    return Clock::ticks() - since;
}

quint32 remaining(quint32 since, quint32 limit) {
    return limit - std::min(limit, elapsed(since));
}

}  // namespace

SupervisorPolicy::Action SupervisorPolicy::next() {
    switch (_phase) {
        case Phase::Pausing:
            return elapsed(_pausingSince) >= _pauseMs ? start() : Action::Nothing;
        case Phase::Running:
        case Phase::Stopping:
            break;
        case Phase::Finished:
            return Action::Finish;
    }
    const Action force = nextForce();
    return force != Action::Nothing ? force : nextMessage();
}

SupervisorPolicy::Action SupervisorPolicy::start() {
    _phase = Phase::Running;
    _lastMessage = Clock::ticks() - (kKeepaliveMs - kFirstKeepaliveMs);
    _patientSince = Clock::ticks();
    _hasAnswered = false;
    _wasHealthy = false;
    _force = Force::None;
    return Action::Start;
}

SupervisorPolicy::Action SupervisorPolicy::nextForce() {
    if (_force == Force::Killed || elapsed(_patientSince) < patienceMs()) {
        return Action::Nothing;
    }
    _patientSince = Clock::ticks();
    if (_force == Force::Interrupted) {
        _force = Force::Killed;
        return Action::Kill;
    }
    _force = Force::Interrupted;
    return Action::Interrupt;
}

quint32 SupervisorPolicy::patienceMs() const {
    if (_force == Force::Interrupted) {
        return kInterruptMs;
    }
    return _phase == Phase::Stopping ? kQuitMs : kSilenceMs;
}

SupervisorPolicy::Action SupervisorPolicy::nextMessage() {
    if (elapsed(_lastMessage) < kKeepaliveMs) {
        return Action::Nothing;
    }
    _lastMessage = Clock::ticks();
    // A quit is repeated, as one that came before the daemon listened reached nobody.
    return _phase == Phase::Stopping ? Action::SendQuit : Action::SendKeepalive;
}

int SupervisorPolicy::millisecondsToNext() const {
    if (_phase == Phase::Finished) {
        return 0;
    }
    if (_phase == Phase::Pausing) {
        return static_cast<int>(remaining(_pausingSince, _pauseMs));
    }
    quint32 wait = remaining(_lastMessage, kKeepaliveMs);
    if (_force != Force::Killed) {
        wait = std::min(wait, remaining(_patientSince, patienceMs()));
    }
    return static_cast<int>(wait);
}

void SupervisorPolicy::answered() {
    if (!_hasAnswered) {
        _hasAnswered = true;
        _firstAnswer = Clock::ticks();
    }
    if (elapsed(_firstAnswer) >= kHealthMs) {
        _wasHealthy = true;
    }
    restorePatience();
}

void SupervisorPolicy::busIsAway() {
    restorePatience();
}

void SupervisorPolicy::restorePatience() {
    if (_phase == Phase::Running && _force == Force::None) {
        _patientSince = Clock::ticks();
    }
}

void SupervisorPolicy::ended() {
    if (_phase == Phase::Stopping) {
        _phase = Phase::Finished;
        return;
    }
    _pauseMs =
        _wasHealthy ? kFirstPauseMs : std::clamp(_pauseMs * 2, kFirstPauseMs, kLongestPauseMs);
    _pausingSince = Clock::ticks();
    _phase = Phase::Pausing;
}

void SupervisorPolicy::requestStop() {
    if (_phase == Phase::Pausing) {
        _phase = Phase::Finished;
    }
    if (_phase != Phase::Running) {
        return;
    }
    _phase = Phase::Stopping;
    _force = Force::None;
    _patientSince = Clock::ticks();
    _lastMessage = Clock::ticks() - kKeepaliveMs;
}

#include "history/MnemonicHistory.h"

#include <algorithm>
#include <limits>

MnemonicHistory::MnemonicHistory(const QString& name) : _name(name) {}

void MnemonicHistory::clear() {
    _started = false;
    _count = 0;
    _history.fill(0.0F);
}

void MnemonicHistory::setStartTimestamp(unsigned long long ts) {
    clear();
    _started = true;
    _startTimestamp = ts - kSlotSeconds;
}

bool MnemonicHistory::timeForRecord(unsigned long long ts) const {
    return !_started || ts - _startTimestamp >= kSlotSeconds;
}

void MnemonicHistory::addRecord(unsigned long long ts, float value) {
    if (!_started) {
        _started = true;
        _startTimestamp = ts;
        _count = 1;
        _history[0] = value;
        return;
    }
    const unsigned long long next = _startTimestamp + kSlotSeconds;
    if (ts >= next) {
        openSlots((ts - next) / kSlotSeconds + 1);
    }
    // KEPT: a sample exactly at the next slot's start still goes into this one. It gets here only
    // where the row halted; and a sample from before the current slot gets here always.
    if (ts <= _startTimestamp + kSlotSeconds) {
        _history[0] = value;
    }
}

/// In one step, however many: a clock that jumped by years must not hold the loop.
void MnemonicHistory::openSlots(unsigned long long wanted) {
    // KEPT: a full row still opens one slot a call; who wants 30 and no more asks isFull().
    const auto room = static_cast<unsigned long long>(std::max(kSlots - _count, 1));
    const unsigned long long opened = _haltWhenFull ? std::min(wanted, room) : wanted;

    const int moved = static_cast<int>(std::min<unsigned long long>(opened, kSlots));
    std::shift_right(_history.begin(), _history.end(), moved);
    std::fill_n(_history.begin(), moved, 0.0F);
    _startTimestamp += opened * kSlotSeconds;

    constexpr unsigned long long kMostCount = std::numeric_limits<int>::max();
    _count =
        static_cast<int>(std::min(static_cast<unsigned long long>(_count) + opened, kMostCount));
}

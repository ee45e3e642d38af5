#include "tools/storagectl/Pacing.h"

#include "bus/Clock.h"
#include "jobs/DownloadStream.h"

#include <algorithm>

namespace storagectl {

namespace {

using DownloadStream::kMessageBytes;

/// A download sends while its count is not above this.
constexpr int kMostQueuedBytes = 90'112;
constexpr qint64 kMostMessages = 11;
constexpr quint32 kPatienceMilliseconds = 1000;
constexpr qint64 kThousand = 1000;
constexpr qint64 kMessageBudget = kMessageBytes * kThousand;
/// What a road that was slow for a while may catch up on, as a part of a second's rate.
constexpr qint64 kCatchUpDivisor = 10;

}  // namespace

void Pacing::begin() {
    _isWanted = false;
    _granted = 0;
    _silentSince = Clock::ticks();
    _patience = kPatienceMilliseconds;
    if (!_accrues) {
        _accrues = true;
        _accruedUntil = _silentSince;
        _budget = kMessageBudget;
    }
}

void Pacing::wanted() {
    _isWanted = true;
}

void Pacing::received(qint64 bytes) {
    _granted = std::max<qint64>(0, _granted - bytes);
    _silentSince = Clock::ticks();
    _patience = kPatienceMilliseconds;
}

void Pacing::end() {
    _budget += _granted * kThousand;
    _granted = 0;
}

void Pacing::accrue() {
    const quint32 now = Clock::ticks();
    const qint64 most = std::max(kMessageBudget, _bytesASecond * kThousand / kCatchUpDivisor);
    _budget = std::min(most, _budget + qint64{now - _accruedUntil} * _bytesASecond);
    _accruedUntil = now;
}

qint64 Pacing::messagesDue() {
    if (_bytesASecond == 0) {
        return kMostMessages;
    }
    accrue();
    return std::clamp<qint64>(_budget / kMessageBudget, 0, kMostMessages);
}

int Pacing::grant(qint64 messages) {
    _silentSince = Clock::ticks();
    _budget -= messages * kMessageBudget;
    return kMostQueuedBytes + 1 - static_cast<int>(messages) * kMessageBytes;
}

std::optional<int> Pacing::report() {
    const bool isSilent = Clock::ticks() - _silentSince >= _patience;
    if (isGranted() && !isSilent) {
        return std::nullopt;
    }
    if (isGranted()) {
        // The wish or the last report may be lost. Where the road is merely slow, a full grant a
        // silence would pile up on it.
        _patience *= 2;
        return grant(1);
    }
    const qint64 messages = messagesDue();
    if (messages == 0) {
        return std::nullopt;
    }
    _granted = messages * kMessageBytes;
    _patience = kPatienceMilliseconds;
    return grant(messages);
}

int Pacing::millisecondsUntilDue() {
    if (isGranted()) {
        const quint32 silence = Clock::ticks() - _silentSince;
        return static_cast<int>(_patience - std::min(silence, _patience));
    }
    const bool isDue = messagesDue() > 0;
    return isDue ? 0
                 : static_cast<int>((kMessageBudget - _budget + _bytesASecond - 1) / _bytesASecond);
}

}  // namespace storagectl

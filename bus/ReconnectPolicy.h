#pragma once

#include <QtGlobal>

/// When to try the broker again: at once after a connection was lost, then after 50 ms, doubling
/// to 800 ms, so that the bus is back within a second of the broker and a missing broker costs
/// next to nothing. A connection that did not last a second does not reset the pause. Times are
/// system ticks (ms, modulo 2^32).
class ReconnectPolicy {
public:
    static constexpr int kFirstPauseMilliseconds = 50;
    static constexpr int kLongestPauseMilliseconds = 800;
    static constexpr int kStableMilliseconds = 1000;

    void connected(quint32 now) {
        _connectedAt = now;
        _isPausing = false;
    }

    void lost(quint32 now) {
        if (now - _connectedAt >= quint32(kStableMilliseconds)) {
            _pause = 0;
            _isPausing = false;
        } else {
            failed(now);
        }
    }

    void failed(quint32 now) {
        _pause =
            _pause == 0 ? kFirstPauseMilliseconds : qMin(2 * _pause, kLongestPauseMilliseconds);
        _due = now + quint32(_pause);
        _isPausing = true;
    }

    /// 0 when the next attempt is due.
    int millisecondsUntilDue(quint32 now) const {
        return _isPausing ? qMax(0, int(_due - now)) : 0;
    }

private:
    int _pause = 0;
    bool _isPausing = false;
    quint32 _due = 0;
    quint32 _connectedAt = 0;
};

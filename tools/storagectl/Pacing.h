#pragma once

#include <QtGlobal>

#include <optional>

namespace storagectl {

/// When a download is told how much is queued for its connection, and what. It goes on until the
/// count last told and what it sent since exceed its limit, so that every report is a grant of so
/// many messages. The next one is due when the last has arrived: what is under way stays bounded,
/// however slow the road is. With a rate a grant is what the rate has brought by then, and waits
/// until that is a message.
class Pacing {
public:
    /// 0 is without a limit.
    explicit Pacing(qint64 bytesASecond) : _bytesASecond(bytesASecond) {}

    /// A download was asked for; nothing is granted.
    void begin();
    /// It asks to be told.
    void wanted();
    void received(qint64 bytes);
    /// It is over: what was granted and did not come is given back.
    void end();

    /// What has to be told now, if anything; takes it for told.
    std::optional<int> report();
    /// How long nothing has to be told if nothing is received.
    int millisecondsUntilDue();
    /// Whether the download has no reason to be silent.
    bool isGranted() const { return !_isWanted || _granted > 0; }

private:
    void accrue();
    qint64 messagesDue();
    int grant(qint64 messages);

    qint64 _bytesASecond;
    bool _isWanted = false;
    qint64 _granted = 0;       ///< bytes that have not come yet
    quint32 _silentSince = 0;  ///< the last bytes, report or beginning
    quint32 _patience = 0;     ///< of a silence, until one more message is granted
    qint64 _budget = 0;        ///< thousandths of bytes
    quint32 _accruedUntil = 0;
    bool _accrues = false;
};

}  // namespace storagectl

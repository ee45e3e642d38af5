#include "jobs/RemoteJob.h"

#include "bus/DebugText.h"
#include "bus/PubSubInterface.h"

RemoteJob::RemoteJob(RemoteJobManager* manager, int connectionID)
    : _manager(manager),
      _connectionID(connectionID),
      _lastActivity(PubSubInterface::getSystemTicks()) {}

RemoteJob::~RemoteJob() = default;

QString RemoteJob::type() const {
    return QStringLiteral("RemoteJob");
}

void RemoteJob::runSlice() {}

void RemoteJob::hadActivity() {
    _lastActivity = PubSubInterface::getSystemTicks();
}

bool RemoteJob::timeout() const {
    return isOverdue(_lastActivity);
}

bool RemoteJob::isOverdue(quint32 ticks) const {
    const auto elapsed = static_cast<qint32>(PubSubInterface::getSystemTicks() - ticks);
    if (elapsed <= _timeoutMilliseconds) {
        return false;
    }
    DebugText::send("RemoteJob", "TIMEOUT !!! (%d elapsed, %d timeout)", elapsed,
                    _timeoutMilliseconds);
    return true;
}

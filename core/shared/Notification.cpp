#include "core/shared/Notification.h"

int g_nextNotificationID = 1;

int getNextRemoteID() {
    const int id = g_nextNotificationID;
    g_nextNotificationID = static_cast<int>(static_cast<unsigned>(id) + 1U);
    return id;
}

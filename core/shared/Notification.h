#pragma once

/// Numbers for user-visible notifications, counted from 1 over the life of the process.
extern int g_nextNotificationID;

/// Returns the next number and counts on.
int getNextRemoteID();

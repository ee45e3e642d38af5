#include "core/shared/Notification.h"

#include <gtest/gtest.h>

#include <climits>

namespace {

TEST(Notification, NumbersCountFromOne) {
    g_nextNotificationID = 1;
    EXPECT_EQ(getNextRemoteID(), 1);
    EXPECT_EQ(getNextRemoteID(), 2);
    EXPECT_EQ(g_nextNotificationID, 3);
}

TEST(Notification, TheLargestNumberIsFollowedByTheSmallest) {
    g_nextNotificationID = INT_MAX;
    EXPECT_EQ(getNextRemoteID(), INT_MAX);
    EXPECT_EQ(getNextRemoteID(), INT_MIN);
    g_nextNotificationID = 1;
}

}  // namespace

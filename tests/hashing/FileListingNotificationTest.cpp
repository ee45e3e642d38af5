#include "core/shared/Notification.h"
#include "tests/hashing/FileListingFixture.h"
#include "tests/hashing/PlainListing.h"
#include "tests/support/FakeBus.h"

#include <sys/wait.h>

namespace {

constexpr int kConnection = 7;
constexpr int kPid = 4321;
constexpr int kId = 17;

class FileListingNotificationTest : public FileListingFixture {
protected:
    struct Expected {
        QByteArray token;
        QByteArray title;
        QByteArray text;
        int total;
        int done;
    };

    FileListingNotificationTest() { log.clear(); }  // of the bus having connected

    static inline const Expected kCardAdd = {
        "Notification.add", "Creating file listings for card storage",
        "Creating file listings for card storage : data availability may be out of date", 0, 0};
    static inline const Expected kCardUpdate = {"Notification.update", kCardAdd.title,
                                                kCardAdd.text, 0, 0};

    void expectNotification(const FakeBus::Sent& sent, const Expected& expected, int pid, int id) {
        EXPECT_EQ(sent.token, expected.token);
        EXPECT_EQ(sent.message.command(), 0);
        ASSERT_STREQ(sent.message.formatString(), "iiiSSiiii");
        EXPECT_EQ(sent.message.parameterAsInt32(0), pid);
        EXPECT_EQ(sent.message.parameterAsInt32(1), id);
        EXPECT_EQ(sent.message.parameterAsInt32(2), clock.wall);
        EXPECT_EQ(sent.message.parameterAsString(3), expected.title);
        EXPECT_EQ(sent.message.parameterAsString(4), expected.text);
        EXPECT_EQ(sent.message.parameterAsInt32(5), 0);
        EXPECT_EQ(sent.message.parameterAsInt32(6), expected.total);
        EXPECT_EQ(sent.message.parameterAsInt32(7), expected.done);
        EXPECT_EQ(sent.message.parameterAsInt32(8), 3600);
    }

    /// What is sent while a listing of `root` is made.
    QList<FakeBus::Sent> updatesFor(const QString& root) {
        EXPECT_FALSE(FileHashManager::generateFileListing(kUser, root, kPid, kId).isNull());
        return bus.takeSent();
    }

    /// What the parent sends, with the child at its end.
    QList<FakeBus::Sent> sentAtRequest(const QString& folder, const QString& root) {
        FileHashManager::forkGenerateFileListing(kConnection, folder, root);
        int status = -1;
        EXPECT_GT(::wait(&status), 0);
        EXPECT_EQ(status, 0);
        EXPECT_LT(::wait(&status), 0) << "one child a request";
        return bus.takeSent();
    }

    FakeBus bus;
};

/// Every look at it finds it `step` milliseconds later.
class RunningClock : public FakeClock {
public:
    explicit RunningClock(quint32 step) : _step(step) {}
    quint32 ticksNow() const override { return _now += _step; }

private:
    quint32 _step;
    mutable quint32 _now = 0;
};

}  // namespace

TEST_F(FileListingNotificationTest, ARequestForTheCardIsAnnouncedAndItsListingMade) {
    makeFile("/mmc/a");
    const int id = g_nextNotificationID;
    const QList<FakeBus::Sent> sent = sentAtRequest(kUser, kCard);
    ASSERT_EQ(sent.size(), 1) << "the rest is the child's to send";
    expectNotification(sent[0], kCardAdd, getpid(), id);
    EXPECT_EQ(g_nextNotificationID, id + 1);
    EXPECT_EQ(readTestFile(kCardListing), line("/mmc/a"));
}

TEST_F(FileListingNotificationTest, ARequestForAnyOtherRootIsAnnouncedUnderItsName) {
    const QList<FakeBus::Sent> sent = sentAtRequest(kUser, "/media/usb");
    ASSERT_EQ(sent.size(), 1);
    expectNotification(sent[0],
                       {"Notification.add", "Generating file listings",
                        "Generating file listings for /media/usb", 0, 0},
                       getpid(), g_nextNotificationID - 1);
}

TEST_F(FileListingNotificationTest, RootsThatStartWithTheCardsNameAreTheCards) {
    const QList<FakeBus::Sent> sent = sentAtRequest(kUser, "/mmc2/x");
    ASSERT_EQ(sent.size(), 1);
    expectNotification(sent[0], kCardAdd, getpid(), g_nextNotificationID - 1);
}

TEST_F(FileListingNotificationTest, ARequestForARootBelowRootIsNotAnnounced) {
    makeFile(kFolder + "/a");
    const int id = g_nextNotificationID;
    for (const QString& root : {kFolder, QStringLiteral("/root/data"), QStringLiteral("/rootx")}) {
        EXPECT_TRUE(sentAtRequest(kUser, root).isEmpty());
    }
    EXPECT_EQ(g_nextNotificationID, id);
    EXPECT_EQ(readTestFile(kFolder + "/.files..root.data.user1"), line("/root/data/user1/a"));
}

TEST_F(FileListingNotificationTest, TheFirstUpdateSaysHowManyEntriesTheRootHas) {
    for (const char* path : {"/mmc/a", "/mmc/b", "/mmc/x/1", "/mmc/x/y/2"}) {
        makeFile(path);
    }
    const QList<FakeBus::Sent> sent = updatesFor(kCard);
    ASSERT_EQ(sent.size(), 1);
    Expected expected = kCardUpdate;
    expected.total = 3;
    expectNotification(sent[0], expected, kPid, kId);
}

TEST_F(FileListingNotificationTest, OtherRootsUpdatesHaveATitleOfTheirOwn) {
    makeFolder("/root/config/x");
    const QList<FakeBus::Sent> sent = updatesFor("/root/config");
    ASSERT_EQ(sent.size(), 1);
    expectNotification(sent[0],
                       {"Notification.update", "Generating file list",
                        "Generating file listings for /root/config", 1, 0},
                       kPid, kId);
}

TEST_F(FileListingNotificationTest, AnEmptyRootIsUpdatedOnce) {
    const QList<FakeBus::Sent> sent = updatesFor(kCard);
    ASSERT_EQ(sent.size(), 1);
    expectNotification(sent[0], kCardUpdate, kPid, kId);
}

TEST_F(FileListingNotificationTest, WithoutANotificationsNumberNothingIsSent) {
    makeFile("/mmc/a");
    FileHashManager::generateFileListing(kUser, kCard, -1, -1);
    EXPECT_TRUE(bus.takeSent().isEmpty());
}

TEST_F(FileListingNotificationTest, ANotificationsNumberMayBe0) {
    FileHashManager::generateFileListing(kUser, kCard, kPid, 0);
    const QList<FakeBus::Sent> sent = bus.takeSent();
    ASSERT_EQ(sent.size(), 1);
    expectNotification(sent[0], kCardUpdate, kPid, 0);
}

TEST_F(FileListingNotificationTest, ProgressCountsTheRootsEntriesOnly) {
    for (int i = 0; i < 3; ++i) {
        makeFile("/mmc/" + QString::number(i));
    }
    for (int i = 0; i < 1000; ++i) {
        makeFile("/mmc/x/" + QString::number(i));
    }
    const RunningClock running(1001);
    const QList<FakeBus::Sent> sent = updatesFor(kCard);
    ASSERT_EQ(sent.size(), 5);
    Expected expected = kCardUpdate;
    expected.total = 4;
    for (const FakeBus::Sent& update : sent) {
        EXPECT_STREQ(update.message.formatString(), "iiiSSiiii");
        EXPECT_EQ(update.message.parameterAsInt32(6), 4);
        EXPECT_EQ(update.message.parameterAsInt32(7), expected.done++);
    }
}

TEST_F(FileListingNotificationTest, AnUpdateComesWhenMoreThanASecondHasPassed) {
    for (int i = 0; i < 4; ++i) {
        makeFile("/mmc/" + QString::number(i));
    }
    {
        const RunningClock running(1000);
        EXPECT_EQ(updatesFor(kCard).size(), 1 + 2) << "every second look finds 2000 ms";
    }
    const RunningClock running(1);
    EXPECT_EQ(updatesFor(kCard).size(), 1);
}

TEST_F(FileListingNotificationTest, ALinkToADeviceCountsAsAnEntry) {
    makeFile("/mmc/a");
    makeFifo("/mmc/fifo");
    makeLink("/mmc/link", "fifo");
    makeLink("/mmc/broken", "nowhere");
    const QList<FakeBus::Sent> sent = updatesFor(kCard);
    ASSERT_EQ(sent.size(), 1);
    EXPECT_EQ(sent[0].message.parameterAsInt32(6), 2);
    EXPECT_EQ(PlainListing::entryCount(kCard), 2);
}

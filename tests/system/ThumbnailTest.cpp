#include "tests/system/Recordings.h"
#include "tests/system/SystemTest.h"

#include <signal.h>

#include <filesystem>

using namespace recordings;

namespace {

constexpr char kTodo[] = "/root/data/thumbnailTodo.txt";
constexpr char kFinished[] = "/root/data/thumbnailsComplete.txt";
constexpr std::uintmax_t kLongDayBytes = 512 * 1024 * 1024;

WireMessage dayRequest(const std::string& date) {
    return WireMessage(220).text("well7").text(date);
}

class ThumbnailTest : public SystemTest {
protected:
    void SetUp() override {
        SystemTest::SetUp();
        _client.subscribe("ThumbnailManager/#");
    }

    /// One sample of one gauge.
    static void recordDay(int day) { writeFile(wellDayFile(day), wellDay(day)); }

    /// The same, and a hole of empty records that keeps the day's child busy for a while.
    static void recordLongDay(int day) {
        recordDay(day);
        std::filesystem::resize_file(wellDayFile(day), kLongDayBytes);
    }

    /// Returns the notification's id.
    int expectNotification(const std::string& topic, const std::string& date,
                           int milliseconds = 10'000) {
        const WireMessage message = nextMessage(topic, milliseconds);
        EXPECT_EQ(message.command, 0);
        if (message.format != "iiiSSiiiii") {
            ADD_FAILURE() << message.format;
            return -1;
        }
        EXPECT_EQ(message.number(0), _daemon.pid());
        EXPECT_LE(std::abs(message.number(2) - std::time(nullptr)), 60);
        EXPECT_EQ(message.bytes(3), "Updating thumbnails");
        EXPECT_EQ(message.bytes(4), "Updating thumbnails for date " + date);
        for (const std::size_t zero : {5U, 6U, 7U, 9U}) {
            EXPECT_EQ(message.number(zero), 0) << zero;
        }
        EXPECT_EQ(message.number(8), 3600);
        return message.number(1);
    }

    void expectDayDone(const std::string& date) {
        const WireMessage done = nextMessage("ConnectionManager/to", 30'000);
        EXPECT_EQ(done.command, 221);
        ASSERT_EQ(done.format, "SS");
        EXPECT_EQ(done.bytes(0), "well7");
        EXPECT_EQ(done.bytes(1), date);
        EXPECT_EQ(next(topics::kDayFinished), date + '\0');
    }

    void expectDelete(int id, int milliseconds = 10'000) {
        const WireMessage message = nextMessage("Notification/delete", milliseconds);
        EXPECT_EQ(message.command, 0);
        ASSERT_EQ(message.format, "ii");
        EXPECT_EQ(message.number(0), _daemon.pid());
        EXPECT_EQ(message.number(1), id);
    }

    /// The daemon's one child, once there is one.
    pid_t child() {
        EXPECT_TRUE(awaitChildren(1, 5000));
        const std::vector<pid_t> all = children();
        return all.empty() ? 0 : all.front();
    }

    void restartDaemon() {
        _daemon.signal(SIGUSR1);
        ASSERT_EQ(_daemon.waitForExit(5000), 0);
        ASSERT_NO_FATAL_FAILURE(startDaemon());
    }
};

TEST_F(ThumbnailTest, ACommandBuildsItsDayAndTellsEveryone) {
    recordDay(1);
    ASSERT_NO_FATAL_FAILURE(startBoth());
    _client.publish(topics::kStorageManager, dayRequest("2024-05-01").encoded());
    const int id = expectNotification("Notification/add", "2024-05-01");
    EXPECT_GT(id, 0);
    expectDayDone("2024-05-01");
    expectDelete(id);
    EXPECT_EQ(toHex(readFile(wellThumbnailFile())), toHex(wellThumbnails({1})));
    EXPECT_EQ(_daemon.logCount("ThumbnailManager: appendDay(2024-05-01)"), 1);
    EXPECT_EQ(_daemon.logCount("scada-storage-process: ThumbnailManager dayFinished 2024-05-01 "
                               "(outstanding 0)"),
              1);
    EXPECT_FALSE(exists(kFinished));
}

TEST_F(ThumbnailTest, ARemoteClientMayAskForADayToo) {
    recordDay(1);
    ASSERT_NO_FATAL_FAILURE(startBoth());
    send(dayRequest("2024-05-01"));
    expectDayDone("2024-05-01");
    EXPECT_EQ(toHex(readFile(wellThumbnailFile())), toHex(wellThumbnails({1})));
    EXPECT_TRUE(takeReplies().empty());
}

TEST_F(ThumbnailTest, DaysAreBuiltOneAfterTheOtherUnderOneNotification) {
    for (const int day : {1, 2, 3}) {
        recordDay(day);
    }
    ASSERT_NO_FATAL_FAILURE(startBoth());
    for (const char* date : {"2024-05-01", "2024-05-02", "2024-05-03"}) {
        _client.publish(topics::kStorageManager, dayRequest(date).encoded());
    }
    const int id = expectNotification("Notification/add", "2024-05-01");
    expectDayDone("2024-05-01");
    EXPECT_EQ(expectNotification("Notification/update", "2024-05-02"), id);
    expectDayDone("2024-05-02");
    EXPECT_EQ(expectNotification("Notification/update", "2024-05-03"), id);
    expectDayDone("2024-05-03");
    expectDelete(id);
    EXPECT_EQ(toHex(readFile(wellThumbnailFile())), toHex(wellThumbnails({1, 2, 3})));

    _client.publish(topics::kStorageManager, dayRequest("2024-05-03").encoded());
    EXPECT_EQ(expectNotification("Notification/add", "2024-05-03"), id + 1);
    expectDelete(id + 1);
}

TEST_F(ThumbnailTest, TheTodoFileIsBuiltRecordedAndGoneAfterTheNextStart) {
    recordDay(1);
    recordDay(2);
    writeFile(kTodo, "well7,2024-05-01\nnot,a,day\nwell7,2024-05-02\n");
    ASSERT_NO_FATAL_FAILURE(startBoth());
    const int id = expectNotification("Notification/add", "2024-05-01");
    expectDayDone("2024-05-01");
    expectDayDone("2024-05-02");
    expectDelete(id);
    EXPECT_EQ(readFile(kFinished), "2024-05-01\n2024-05-02\n");
    EXPECT_TRUE(exists(kTodo));
    EXPECT_EQ(toHex(readFile(wellThumbnailFile())), toHex(wellThumbnails({1, 2})));

    ASSERT_NO_FATAL_FAILURE(restartDaemon());
    settle();
    EXPECT_FALSE(exists(kTodo));
    EXPECT_FALSE(exists(kFinished));
    EXPECT_EQ(_daemon.logCount("ThumbnailManager: appendDay(2024-05-01)"), 1);
}

TEST_F(ThumbnailTest, ARestartInBetweenBuildsTheRestOnly) {
    recordDay(2);
    writeFile(kTodo, "well7,2024-05-01\nwell7,2024-05-02\n");
    writeFile(kFinished, "2024-05-01\n");
    ASSERT_NO_FATAL_FAILURE(startBoth());
    expectDelete(expectNotification("Notification/add", "2024-05-02"));
    EXPECT_EQ(readFile(kFinished), "2024-05-01\n2024-05-02\n");
    EXPECT_EQ(_daemon.logCount("ThumbnailManager: appendDay(2024-05-01)"), 0);
}

TEST_F(ThumbnailTest, ADayThatIsNoDayIsFinishedAllTheSame) {
    ASSERT_NO_FATAL_FAILURE(startBoth());
    _client.publish(topics::kStorageManager, dayRequest("2024-2-3").encoded());
    expectDayDone("2024-2-3");
}

TEST_F(ThumbnailTest, TheDaemonAnswersWhileAChildIsAtWork) {
    recordLongDay(1);
    ASSERT_NO_FATAL_FAILURE(startBoth());
    _client.publish(topics::kStorageManager, dayRequest("2024-05-01").encoded());
    const pid_t worker = child();
    ASSERT_GT(worker, 0);
    ASSERT_EQ(kill(worker, SIGSTOP), 0);
    EXPECT_TRUE(answersKeepAlive(1000));
    EXPECT_GE(open("/root/data/a", kReadWrite), 0);
    ASSERT_EQ(kill(worker, SIGKILL), 0);
}

/// These wait out the ten seconds in which a lost child's word may still come.
class ThumbnailLossTest : public ThumbnailTest {
protected:
    static constexpr int kLossMilliseconds = 25'000;
};

TEST_F(ThumbnailLossTest, ADayWhoseChildIsKilledIsBuiltAgainAfterTheOthers) {
    recordLongDay(1);
    recordDay(2);
    writeFile(kTodo, "well7,2024-05-01\nwell7,2024-05-02\n");
    ASSERT_NO_FATAL_FAILURE(startBoth());
    const pid_t worker = child();
    ASSERT_GT(worker, 0);
    ASSERT_EQ(kill(worker, SIGKILL), 0);
    const int id = expectNotification("Notification/add", "2024-05-01");
    recordDay(1);
    EXPECT_EQ(expectNotification("Notification/update", "2024-05-02", kLossMilliseconds), id);
    expectDayDone("2024-05-02");
    EXPECT_EQ(expectNotification("Notification/update", "2024-05-01"), id);
    expectDayDone("2024-05-01");
    expectDelete(id);
    EXPECT_EQ(readFile(kFinished), "2024-05-02\n2024-05-01\n");
    EXPECT_EQ(toHex(readFile(wellThumbnailFile())), toHex(wellThumbnails({1, 2})));
    EXPECT_EQ(_daemon.logCount("scada-storage-process: thumbnail day 2024-05-01: its child ended "
                               "(status 0x0009) unheard"),
              1);
}

TEST_F(ThumbnailLossTest, AChildWhoseWordIsLostWithTheBrokerHoldsNoOtherDayUp) {
    recordLongDay(1);
    recordDay(2);
    ASSERT_NO_FATAL_FAILURE(startBoth());
    _client.publish(topics::kStorageManager, dayRequest("2024-05-01").encoded());
    _client.publish(topics::kStorageManager, dayRequest("2024-05-02").encoded());
    const pid_t worker = child();
    ASSERT_GT(worker, 0);
    settle();
    ASSERT_EQ(kill(worker, SIGSTOP), 0);
    _client.deliveries.clear();
    _broker.kill();
    // The rest of the long day is not needed any more.
    recordDay(1);
    ASSERT_EQ(kill(worker, SIGCONT), 0);
    ASSERT_TRUE(_daemon.waitForLog("sigchild waitpid loop", 10'000));
    ASSERT_NO_FATAL_FAILURE(startBroker());
    expectNotification("Notification/update", "2024-05-02", kLossMilliseconds);
    expectDayDone("2024-05-02");
    EXPECT_EQ(toHex(readFile(wellThumbnailFile())), toHex(wellThumbnails({1, 2})));
    EXPECT_EQ(_daemon.logCount("ThumbnailManager: appendDay(2024-05-01)"), 1);
    EXPECT_EQ(_daemon.logCount("scada-storage-process: thumbnail day 2024-05-01: its child ended "
                               "(status 0x0000) unheard"),
              1);
}

}  // namespace

#include "tests/system/SystemTest.h"

#include <signal.h>
#include <unistd.h>

namespace {

class LifecycleTest : public SystemTest {
protected:
    /// Where the first line that is `line` stands in the log, -1 where there is none.
    int lineIndex(const std::string& line) const {
        const std::vector<std::string> all = _daemon.logLines();
        const auto found = std::find(all.begin(), all.end(), line);
        return found == all.end() ? -1 : static_cast<int>(found - all.begin());
    }
};

std::string signalLine(const char* name, int number) {
    return std::string("scada-storage-process: ") + name + " exception (" + std::to_string(number) +
           ")! " + std::string(92, '*');
}

TEST_F(LifecycleTest, AQuitOnTheOwnTokenEndsItInOrder) {
    ASSERT_NO_FATAL_FAILURE(startBoth());
    _client.publish(_daemon.commandTopic(), WireMessage(1).encoded());
    EXPECT_EQ(_daemon.waitForExit(3000), 0);
    EXPECT_EQ(_daemon.logCount(lines::kStarting), 1);
    EXPECT_EQ(_daemon.logCount(lines::kQuit), 1);
    EXPECT_LT(lineIndex(lines::kStarting), lineIndex(lines::kQuit));
    EXPECT_EQ(_daemon.logLines().back(), lines::kExiting);
}

TEST_F(LifecycleTest, AQuitOnStorageManagerEndsIt) {
    ASSERT_NO_FATAL_FAILURE(startBoth());
    _client.publish(topics::kStorageManager, WireMessage(1).encoded());
    EXPECT_EQ(_daemon.waitForExit(3000), 0);
    EXPECT_EQ(_daemon.logLines().back(), lines::kExiting);
}

TEST_F(LifecycleTest, AQuitOfARemoteClientEndsIt) {
    ASSERT_NO_FATAL_FAILURE(startBoth());
    send(WireMessage(1));
    EXPECT_EQ(_daemon.waitForExit(3000), 0);
    EXPECT_EQ(_daemon.logLines().back(), lines::kExiting);
}

TEST_F(LifecycleTest, AfterAQuitTheRestOfTheSameDrainIsStillDispatched) {
    ASSERT_NO_FATAL_FAILURE(startBoth());
    settle();
    _daemon.pause();
    const int first = send(requests::open("/root/data/first", kReadWrite));
    _client.publish(_daemon.commandTopic(), WireMessage(1).encoded());
    _client.publish(_daemon.commandTopic(), WireMessage(0).encoded());
    const int last = send(requests::open("/root/data/last", kReadWrite));
    ASSERT_TRUE(_client.flush(1000));
    _client.pump(200);
    _daemon.resume();
    EXPECT_EQ(replyTo(first).format, "Sii");
    EXPECT_EQ(replyTo(last).format, "Sii");
    EXPECT_EQ(_daemon.waitForExit(3000), 0);
    EXPECT_EQ(_daemon.logCount(lines::kQuit), 1);
    EXPECT_TRUE(exists("/root/data/last"));
    ASSERT_EQ(deliveriesWaiting(), 1U);
    EXPECT_EQ(_client.deliveries.front().topic, _daemon.replyTopic());
}

TEST_F(LifecycleTest, Sigusr1EndsALongWaitAtOnceAndInOrder) {
    ASSERT_NO_FATAL_FAILURE(startBoth());
    _client.pump(2500);
    _daemon.signal(SIGUSR1);
    EXPECT_EQ(_daemon.waitForExit(500), 0);
    EXPECT_EQ(_daemon.logCount(signalLine("SIGUSR1", SIGUSR1)), 1);
    EXPECT_EQ(_daemon.logLines().back(), lines::kExiting);
}

TEST_F(LifecycleTest, SigintEndsItWithoutTheOrderlyEnd) {
    ASSERT_NO_FATAL_FAILURE(startBoth());
    _daemon.signal(SIGINT);
    EXPECT_EQ(_daemon.waitForExit(500), 0);
    EXPECT_EQ(_daemon.logLines().back(), signalLine("SIGINT", SIGINT));
    EXPECT_EQ(_daemon.logCount(lines::kExiting), 0);
}

TEST_F(LifecycleTest, SigpipeAndSigchldAreLoggedAndLivedThrough) {
    ASSERT_NO_FATAL_FAILURE(startBoth());
    _daemon.signal(SIGPIPE);
    ASSERT_TRUE(_daemon.waitForLog(signalLine("SIGPIPE", SIGPIPE) + "\n", 2000));
    _daemon.signal(SIGCHLD);
    ASSERT_TRUE(_daemon.waitForLog(signalLine("SIGCHLD", SIGCHLD) + "\n", 2000));
    EXPECT_TRUE(answersKeepAlive(2000));
    EXPECT_EQ(_daemon.log().find("sigchild waitpid loop"), std::string::npos);
}

TEST_F(LifecycleTest, AStormOfSignalsHarmsNothing) {
    writeFile("/root/data/a.txt", "hello");
    ASSERT_NO_FATAL_FAILURE(startBoth());
    const int handle = open("/root/data/a.txt", kReadOnly);
    for (int i = 0; i < 300; ++i) {
        _daemon.signal(i % 2 == 0 ? SIGPIPE : SIGCHLD);
        const WireMessage reply = ask(requests::read(handle, 0, 5));
        ASSERT_EQ(reply.format, "iiB");
        ASSERT_EQ(reply.bytes(2), "hello");
    }
}

TEST_F(LifecycleTest, OnAQuitItSaysGoodbyeToTheBroker) {
    _broker.addConfiguration("log_type all\n");
    ASSERT_NO_FATAL_FAILURE(startBoth());
    _daemon.signal(SIGUSR1);
    EXPECT_EQ(_daemon.waitForExit(3000), 0);
    EXPECT_TRUE(_broker.waitForLog("Received DISCONNECT from scada-storage-process-", 2000));
}

TEST_F(LifecycleTest, LoopIsLoggedAtMostOnceASecond) {
    writeFile("/root/data/a.txt", "hello");
    ASSERT_NO_FATAL_FAILURE(startBoth());
    const int handle = open("/root/data/a.txt", kReadOnly);
    const int before = _daemon.logCount(lines::kLoop);
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(2500);
    while (std::chrono::steady_clock::now() < end) {
        ask(requests::read(handle, 0, 5));
    }
    const int written = _daemon.logCount(lines::kLoop) - before;
    EXPECT_GE(written, 2);
    EXPECT_LE(written, 3);
}

TEST_F(LifecycleTest, UnderTheJournalEachLineBeginsWithItsPriority) {
    ASSERT_NO_FATAL_FAILURE(startBroker());
    ASSERT_NO_FATAL_FAILURE(startDaemon({.environment = {{"JOURNAL_STREAM", "8:1"}}}));
    EXPECT_TRUE(_daemon.waitForLog(std::string("<7>") + lines::kLoop + "\n", 5000));
    EXPECT_GE(_daemon.logCount(std::string("<6>") + lines::kKeepAlive), 1);
    for (const std::string& line : _daemon.logLines()) {
        EXPECT_TRUE(line.starts_with("<6>") || line == std::string("<7>") + lines::kLoop) << line;
    }
}

TEST_F(LifecycleTest, ASecondDaemonOnTheSameUnitEndsWithStatus75) {
    ASSERT_NO_FATAL_FAILURE(startBoth());
    DaemonProcess second(SCADA_STORAGE_DAEMON);
    second.start({.environment = {{"SCADA_BUS_URL", _broker.url()}}});
    EXPECT_EQ(second.waitForExit(3000), 75);
    EXPECT_EQ(second.logLines().size(), 1U) << second.log();

    writeFile("/root/data/from", "moved once");
    EXPECT_EQ(ask(requests::move("/root/data/from", "/root/data/to")).format, "SS");
    settle();
    EXPECT_EQ(deliveriesWaiting(), 0U);
    EXPECT_EQ(readFile("/root/data/to"), "moved once");
}

TEST_F(LifecycleTest, AfterAKillTheUnitIsFreeForTheNextDaemon) {
    ASSERT_NO_FATAL_FAILURE(startBoth());
    _daemon.kill();
    ASSERT_NO_FATAL_FAILURE(startDaemon());
    EXPECT_EQ(open("/root/data/a", kReadWrite), 0);
}

}  // namespace

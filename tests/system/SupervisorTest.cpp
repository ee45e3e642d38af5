#include "tests/support/Broker.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/RawBusClient.h"
#include "tests/support/WireMessage.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

namespace {

constexpr char kStarted[] = " as process ";
constexpr char kAnswers[] = " answers";

/// The service manager's end of the notification socket.
class NotifySocket {
public:
    NotifySocket() : _socket(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, kPath, sizeof address.sun_path - 1);
        unlink(kPath);
        EXPECT_EQ(bind(_socket, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    }
    ~NotifySocket() { close(_socket); }
    NotifySocket(const NotifySocket&) = delete;
    NotifySocket& operator=(const NotifySocket&) = delete;

    static constexpr char kPath[] = "/tmp/notify";

    /// How often the manager has been told `state` so far.
    int count(const std::string& state) {
        char bytes[512];
        ssize_t length = 0;
        while ((length = recv(_socket, bytes, sizeof bytes, MSG_DONTWAIT)) >= 0) {
            _states.emplace_back(bytes, static_cast<std::size_t>(length));
        }
        return static_cast<int>(std::count(_states.begin(), _states.end(), state));
    }

private:
    int _socket;
    std::vector<std::string> _states;
};

class SupervisorTest : public testing::Test {
protected:
    void startSupervisor(const std::vector<std::string>& arguments = {}) {
        ChildProcess::Options options;
        options.command = {SCADA_STORAGE_SUPERVISOR};
        options.command.insert(options.command.end(), arguments.begin(), arguments.end());
        options.environment = {{"SCADA_BUS_URL", broker.url()},
                               {"NOTIFY_SOCKET", NotifySocket::kPath},
                               {"WATCHDOG_USEC", "600000000"}};
        supervisor.start(options);
    }

    void startBoth() {
        broker.start();
        startSupervisor();
        ASSERT_TRUE(supervisor.waitForLog(kAnswers, 10'000)) << supervisor.log();
    }

    /// The process that the log named last.
    pid_t daemonPid() const {
        const std::string log = supervisor.log();
        const std::size_t place = log.rfind(kStarted);
        return place == std::string::npos ? 0 : std::stoi(log.substr(place + sizeof kStarted - 1));
    }

    std::string program(const std::string& name, const std::string& script) const {
        const std::string path = broker.folder() + "/" + name;
        std::ofstream(path) << "#!/bin/sh\n" << script << "\n";
        chmod(path.c_str(), 0755);
        return path;
    }

    static bool exists(pid_t pid) { return kill(pid, 0) == 0; }

    static bool isGoneWithin(pid_t pid, int milliseconds) {
        for (int waited = 0; exists(pid); waited += 10) {
            if (waited >= milliseconds) {
                return false;
            }
            usleep(10'000);
        }
        return true;
    }

    void expectOrderlyStop(int signal) {
        startBoth();
        const pid_t daemon = daemonPid();
        supervisor.signal(signal);
        EXPECT_EQ(supervisor.waitForExit(5'000), 0) << supervisor.log();
        EXPECT_FALSE(exists(daemon));
        EXPECT_TRUE(supervisor.waitForLog("processMessage QUIT", 0));
        EXPECT_TRUE(supervisor.waitForLog("ended: quit (status 0)", 0));
        EXPECT_EQ(manager.count("STOPPING=1"), 1);
    }

    Broker broker;
    ChildProcess supervisor;
    NotifySocket manager;
};

TEST_F(SupervisorTest, TheFirstAnswerMakesTheServiceReady) {
    startBoth();
    EXPECT_EQ(manager.count("READY=1"), 1);
    EXPECT_GE(manager.count("WATCHDOG=1"), 1);
    EXPECT_EQ(manager.count("STATUS=process " + std::to_string(daemonPid()) + " answers"), 1);
    EXPECT_EQ(manager.count("STOPPING=1"), 0);
}

TEST_F(SupervisorTest, SIGTERMHasTheDaemonQuit) {
    expectOrderlyStop(SIGTERM);
}

TEST_F(SupervisorTest, SIGINTHasTheDaemonQuit) {
    expectOrderlyStop(SIGINT);
}

TEST_F(SupervisorTest, ADaemonThatDiesIsReportedAndStartedAgain) {
    startBoth();
    const pid_t first = daemonPid();
    const std::size_t before = supervisor.log().size();
    kill(first, SIGSEGV);
    ASSERT_TRUE(supervisor.waitForLog(kAnswers, 10'000, before)) << supervisor.log();
    EXPECT_NE(daemonPid(), first);
    EXPECT_TRUE(supervisor.waitForLog("ended: signal 11 (Segmentation fault", 0, before));
    EXPECT_TRUE(supervisor.waitForLog("next start in 1 s", 0, before));
    EXPECT_EQ(manager.count("READY=1"), 1);
}

TEST_F(SupervisorTest, ADaemonThatAClientAskedToQuitIsStartedAgain) {
    startBoth();
    RawBusClient client(broker.socketPath());
    ASSERT_TRUE(client.connect(5'000));
    const std::size_t before = supervisor.log().size();
    client.publish("StorageManager/to", WireMessage(1).encoded());
    ASSERT_TRUE(client.flush(1'000));
    ASSERT_TRUE(supervisor.waitForLog(kAnswers, 10'000, before)) << supervisor.log();
    EXPECT_TRUE(supervisor.waitForLog("ended: quit (status 0)", 0, before));
}

TEST_F(SupervisorTest, AUnitThatIsTakenIsReportedAsSuch) {
    startBoth();
    ChildProcess second;
    second.start({{SCADA_STORAGE_SUPERVISOR}, {{"SCADA_BUS_URL", broker.url()}}, 0});
    EXPECT_TRUE(second.waitForLog("ended: another daemon holds this unit (status 75)", 5'000));
}

TEST_F(SupervisorTest, TheDaemonStopsInOrderWhenItsSupervisorIsKilled) {
    startBoth();
    const pid_t daemon = daemonPid();
    supervisor.signal(SIGKILL);
    EXPECT_TRUE(isGoneWithin(daemon, 5'000));
    EXPECT_TRUE(supervisor.waitForLog("SIGUSR1 exception (10)!", 0));
    EXPECT_TRUE(supervisor.waitForLog("exiting!", 0));
}

TEST_F(SupervisorTest, AProgramThatCannotBeExecutedIsTriedAgain) {
    broker.start();
    startSupervisor({"/nowhere/daemon"});
    EXPECT_TRUE(supervisor.waitForLog("it could not be started (status 127)", 5'000));
    EXPECT_TRUE(supervisor.waitForLog("next start in 2 s", 5'000));
    supervisor.signal(SIGTERM);
    EXPECT_EQ(supervisor.waitForExit(1'000), 0);
}

TEST_F(SupervisorTest, AMissingBrokerIsWaitedFor) {
    startSupervisor();
    ASSERT_TRUE(supervisor.waitForLog(kStarted, 5'000));
    EXPECT_EQ(manager.count("READY=1"), 0);
    broker.start();
    EXPECT_TRUE(supervisor.waitForLog(kAnswers, 15'000)) << supervisor.log();
    EXPECT_EQ(manager.count("READY=1"), 1);
}

TEST_F(SupervisorTest, AnUnusableBusAddressEndsItWith78) {
    supervisor.start({{SCADA_STORAGE_SUPERVISOR}, {{"SCADA_BUS_URL", "carrier-pigeon://"}}, 0});
    EXPECT_EQ(supervisor.waitForExit(5'000), 78);
    EXPECT_TRUE(supervisor.waitForLog("SCADA_BUS_URL", 0));
}

TEST_F(SupervisorTest, OnlyItsOwnProcessIdIsAnAnswer) {
    broker.start();
    startSupervisor({program("sleeper", "exec sleep 1000")});
    ASSERT_TRUE(supervisor.waitForLog(kStarted, 5'000));
    const pid_t pid = daemonPid();
    const std::string topic = "Message/ExtProc/from/" + std::to_string(pid);
    RawBusClient client(broker.socketPath());
    client.subscribe("Message/ExtProc/to/" + std::to_string(pid));
    ASSERT_TRUE(client.connect(5'000));

    const auto answer = [&](const std::string& payload) {
        client.publish(topic, payload);
        client.pump(200);
    };
    answer(WireMessage(0).integer(pid + 1).encoded());
    answer(WireMessage(0).encoded());
    answer(WireMessage(0).integer(pid).integer(pid).encoded());
    answer(WireMessage(1).integer(pid).encoded());
    answer(WireMessage(0).integer(pid).encoded().substr(0, 7));
    answer("");
    EXPECT_EQ(manager.count("READY=1"), 0);
    EXPECT_EQ(manager.count("WATCHDOG=1"), 0);
    answer(WireMessage(0).integer(pid).encoded());
    EXPECT_EQ(manager.count("READY=1"), 1);
    EXPECT_EQ(manager.count("WATCHDOG=1"), 1);
}

TEST_F(SupervisorTest, KeepalivesAreCommand0WithoutParametersFiveSecondsApart) {
    broker.start();
    RawBusClient client(broker.socketPath());
    client.subscribe("Message/ExtProc/to/+");
    ASSERT_TRUE(client.connect(5'000));
    startSupervisor({program("sleeper", "exec sleep 1000")});
    const auto arrived = [&] { return !client.deliveries.empty(); };
    ASSERT_TRUE(client.pumpUntil(arrived, 5'000));
    EXPECT_EQ(client.deliveries.front().topic, "Message/ExtProc/to/" + std::to_string(daemonPid()));
    EXPECT_EQ(client.deliveries.front().payload, WireMessage(0).encoded());
    client.deliveries.clear();
    EXPECT_FALSE(client.pumpUntil(arrived, 4'500));
    EXPECT_TRUE(client.pumpUntil(arrived, 1'000));
}

TEST_F(SupervisorTest, ADaemonThatDoesNotReactIsInterruptedAfter30SecondsAndKilled10Later) {
    broker.start();
    startSupervisor({program("stubborn",
                             "trap 'echo interrupted' USR1\n"
                             "echo deaf\n"
                             "while :; do sleep 0.1; done")});
    ASSERT_TRUE(supervisor.waitForLog("deaf", 5'000));
    const pid_t daemon = daemonPid();
    supervisor.signal(SIGTERM);
    EXPECT_FALSE(supervisor.waitForLog("interrupted", 29'000));
    EXPECT_TRUE(supervisor.waitForLog("interrupted", 3'000));
    EXPECT_FALSE(supervisor.waitForExit(9'000));
    EXPECT_EQ(supervisor.waitForExit(3'000), 0);
    EXPECT_FALSE(exists(daemon));
    EXPECT_TRUE(supervisor.waitForLog("ended: signal 9 (Killed)", 0));
}

}  // namespace

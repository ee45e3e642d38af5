#include "tools/supervisor/ServiceManager.h"

#include <gtest/gtest.h>

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <cstddef>
#include <cstring>

namespace {

/// The service manager's end of the socket. An "@" in front stands for the abstract namespace.
class Listener {
public:
    explicit Listener(const QByteArray& name) : _socket(socket(AF_UNIX, SOCK_DGRAM, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, name.constData(), static_cast<std::size_t>(name.size()));
        if (name.startsWith('@')) {
            address.sun_path[0] = '\0';
        }
        const auto length = offsetof(sockaddr_un, sun_path) + static_cast<std::size_t>(name.size());
        EXPECT_EQ(bind(_socket, reinterpret_cast<const sockaddr*>(&address),
                       static_cast<socklen_t>(length)),
                  0);
    }
    ~Listener() { close(_socket); }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    /// The next datagram; null where none is there.
    QByteArray take() {
        char bytes[512];
        const ssize_t length = recv(_socket, bytes, sizeof bytes, MSG_DONTWAIT);
        return length < 0 ? QByteArray() : QByteArray(bytes, length);
    }

private:
    int _socket;
};

class SupervisorServiceManagerTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(folder.isValid()); }
    void TearDown() override {
        qunsetenv("NOTIFY_SOCKET");
        qunsetenv("WATCHDOG_USEC");
        qunsetenv("WATCHDOG_PID");
    }
    QByteArray path() const { return QFile::encodeName(folder.filePath("notify")); }

    QTemporaryDir folder;
};

TEST_F(SupervisorServiceManagerTest, ReadyStoppingAndStatusReachASocketGivenByPath) {
    Listener listener(path());
    qputenv("NOTIFY_SOCKET", path());
    const ServiceManager manager;
    manager.ready();
    manager.status("process 7 answers");
    manager.stopping();
    EXPECT_EQ(listener.take(), "READY=1");
    EXPECT_EQ(listener.take(), "STATUS=process 7 answers");
    EXPECT_EQ(listener.take(), "STOPPING=1");
    EXPECT_TRUE(listener.take().isNull());
}

TEST_F(SupervisorServiceManagerTest, ASocketInTheAbstractNamespaceIsReached) {
    const QByteArray name = "@scada-supervisor-test-" + QByteArray::number(getpid());
    Listener listener(name);
    qputenv("NOTIFY_SOCKET", name);
    const ServiceManager manager;
    manager.ready();
    EXPECT_EQ(listener.take(), "READY=1");
}

TEST_F(SupervisorServiceManagerTest, SignsOfLifeAreSentWhereTheManagerWatches) {
    Listener listener(path());
    qputenv("NOTIFY_SOCKET", path());
    qputenv("WATCHDOG_USEC", "30000000");
    qputenv("WATCHDOG_PID", QByteArray::number(getpid()));
    const ServiceManager manager;
    manager.alive();
    EXPECT_EQ(listener.take(), "WATCHDOG=1");
}

TEST_F(SupervisorServiceManagerTest, NoSignOfLifeIsSentWhereNobodyWatches) {
    Listener listener(path());
    qputenv("NOTIFY_SOCKET", path());
    for (const char* interval : {"", "0", "soon", "-5"}) {
        qputenv("NOTIFY_SOCKET", path());
        qputenv("WATCHDOG_USEC", interval);
        const ServiceManager manager;
        manager.alive();
        EXPECT_TRUE(listener.take().isNull()) << interval;
    }
}

TEST_F(SupervisorServiceManagerTest, AWatchdogOverAnotherProcessIsNotOurs) {
    Listener listener(path());
    qputenv("NOTIFY_SOCKET", path());
    qputenv("WATCHDOG_USEC", "30000000");
    qputenv("WATCHDOG_PID", "1");
    const ServiceManager manager;
    manager.alive();
    EXPECT_TRUE(listener.take().isNull());
}

TEST_F(SupervisorServiceManagerTest, TheDaemonDoesNotInheritTheVariables) {
    qputenv("NOTIFY_SOCKET", path());
    qputenv("WATCHDOG_USEC", "30000000");
    qputenv("WATCHDOG_PID", "1");
    const ServiceManager manager;
    EXPECT_FALSE(qEnvironmentVariableIsSet("NOTIFY_SOCKET"));
    EXPECT_FALSE(qEnvironmentVariableIsSet("WATCHDOG_USEC"));
    EXPECT_FALSE(qEnvironmentVariableIsSet("WATCHDOG_PID"));
}

TEST_F(SupervisorServiceManagerTest, TellingNobodyHarmsNobody) {
    qunsetenv("NOTIFY_SOCKET");
    ServiceManager().ready();
    qputenv("NOTIFY_SOCKET", path());
    ServiceManager().ready();
    qputenv("NOTIFY_SOCKET", QByteArray(500, 'x'));
    ServiceManager().ready();
    EXPECT_TRUE(QDir(folder.path()).isEmpty());
}

TEST_F(SupervisorServiceManagerTest, AManagerThatDoesNotReadIsNotWaitedFor) {
    Listener listener(path());
    qputenv("NOTIFY_SOCKET", path());
    const ServiceManager manager;
    constexpr int kMoreThanAnyQueueHolds = 10'000;
    for (int i = 0; i < kMoreThanAnyQueueHolds; ++i) {
        manager.ready();
    }
    EXPECT_EQ(listener.take(), "READY=1");
}

}  // namespace

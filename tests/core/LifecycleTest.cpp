#include "core/Lifecycle.h"

#include "bus/FakeTransport.h"
#include "bus/ForkedChild.h"
#include "bus/PubSubInterface.h"
#include "core/RunState.h"
#include "core/ThumbnailSchedule.h"
#include "core/shared/ChildPool.h"
#include "core/shared/MessageQueue.h"
#include "core/shared/ReapedChildren.h"
#include "core/shared/Replies.h"
#include "datafile/MemoryCache.h"
#include "filesystem/Filesystem.h"
#include "history/HistoricalDataManager.h"
#include "jobs/RemoteJobManager.h"
#include "tests/core/FakeThumbnails.h"
#include "tests/core/KeptSignalHandlers.h"
#include "tests/support/FakeClock.h"
#include "tests/support/Files.h"
#include "tests/support/ForkStandIn.h"
#include "tests/support/LogCapture.h"
#include "thumbnails/ThumbnailManager.h"

#include <gtest/gtest.h>

#include <QtEndian>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <functional>

namespace {

QByteArray wire(int command) {
    Message message;
    message.construct(command, "");
    return {message.buffer(), message.length()};
}

QByteArray ownToken() {
    return "Message.ExtProc.to." + QByteArray::number(getpid());
}

class LifecycleTest : public testing::Test {
protected:
    LifecycleTest() : transport(new FakeTransport), lifecycle(takeTransport()) {}
    ~LifecycleTest() override { g_quit = false; }

    /// Runs the daemon; `inWait` is called in each wait for the bus.
    int run(std::function<void()> inWait) {
        transport->onWait = [inWait](int) { inWait(); };
        return lifecycle.run();
    }

    std::unique_ptr<Transport> takeTransport() { return std::unique_ptr<Transport>(transport); }

    void quit() { transport->deliver("StorageManager.to", wire(1)); }

    KeptSignalHandlers kept;
    FakeClock clock;
    LogCapture log;
    /// The daemon's; gone when it has left the bus.
    FakeTransport* transport;
    Lifecycle lifecycle;
};

TEST_F(LifecycleTest, AQuitCommandEndsItInOrderWithStatus0) {
    EXPECT_EQ(run([this] { quit(); }), 0);
    EXPECT_EQ(log.count("scada-storage-process: scada-storage-process: starting"), 1);
    EXPECT_EQ(log.lines().last(), "scada-storage-process: exiting!");
}

TEST_F(LifecycleTest, Sigusr1EndsItInOrderWithStatus0) {
    EXPECT_EQ(run([] { raise(SIGUSR1); }), 0);
    EXPECT_EQ(log.lines().last(), "scada-storage-process: exiting!");
}

TEST_F(LifecycleTest, TheWatchdogEndsItInOrderWithStatusMinus7) {
    EXPECT_EQ(run([this] { clock.advance(16); }), -7);
    EXPECT_EQ(log.lines().last(), "scada-storage-process: exiting!");
    EXPECT_TRUE(log.contains("scada-storage-process: no keepalive, aborting..."));
}

TEST_F(LifecycleTest, KeepalivesKeepItRunning) {
    int waits = 0;
    const int status = run([&] {
        clock.advance(10);
        transport->deliver(ownToken(), wire(0));
        if (++waits == 10) {
            quit();
        }
    });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(waits, 10);
}

TEST_F(LifecycleTest, ItWantsItsFourTokensInTheirOrder) {
    QList<QByteArray> wanted;
    run([&] {
        wanted = transport->subscriptions();
        quit();
    });
    const QByteArray own = "Message/ExtProc/to/" + QByteArray::number(getpid());
    EXPECT_EQ(wanted, (QList<QByteArray>{own, "Message/storage", "StorageManager/to",
                                         "ThumbnailManager/dayFinished"}));
}

TEST_F(LifecycleTest, TheReplyTokenNamesTheProcess) {
    run([this] { quit(); });
    EXPECT_EQ(QByteArray(g_szOurPubSubToken),
              "Message.ExtProc.from." + QByteArray::number(getpid()));
}

TEST_F(LifecycleTest, AStorageRequestIsAnsweredOnItsConnection) {
    QList<FakeTransport::Sent> sent;
    int waits = 0;
    run([&] {
        if (++waits == 2) {
            sent = transport->sent;
            quit();
            return;
        }
        QByteArray frame(4, '\0');
        qToLittleEndian<qint32>(7, frame.data());
        transport->deliver("Message.storage", frame + wire(0x1401));
    });
    ASSERT_EQ(sent.size(), 1);
    EXPECT_EQ(sent[0].token, "ConnectionManager.clientMessage");
    // Connection 7, a bare 0x1401.
    EXPECT_EQ(sent[0].payload, QByteArray::fromHex("07000000 01140000 00"));
}

TEST_F(LifecycleTest, EveryServiceIsThereWhileItRunsAndGoneAfterwards) {
    bool allThere = false;
    run([&] {
        allThere = g_memoryCache && g_ThumbnailManager && g_pubSubInterface && g_pFilesystem &&
                   g_pHistoricalDataManager && g_remoteManager;
        quit();
    });
    EXPECT_TRUE(allThere);
    EXPECT_EQ(g_memoryCache, nullptr);
    EXPECT_EQ(g_ThumbnailManager, nullptr);
    EXPECT_EQ(g_pubSubInterface, nullptr);
    EXPECT_EQ(g_pFilesystem, nullptr);
    EXPECT_EQ(g_pHistoricalDataManager, nullptr);
    EXPECT_EQ(g_remoteManager, nullptr);
}

/// Notes which services are still there when it is deleted.
class WitnessJob : public RemoteJob {
public:
    explicit WitnessJob(bool& servicesWereThere)
        : RemoteJob(g_remoteManager, 1), _servicesWereThere(servicesWereThere) {}
    ~WitnessJob() override {
        _servicesWereThere =
            g_pHistoricalDataManager && g_pFilesystem && g_pubSubInterface && g_memoryCache;
    }

private:
    bool& _servicesWereThere;
};

TEST_F(LifecycleTest, RemainingJobsAreDeletedFirst) {
    bool servicesWereThere = false;
    run([&] {
        g_remoteManager->addJob(new WitnessJob(servicesWereThere));
        quit();
    });
    EXPECT_TRUE(servicesWereThere);
}

TEST_F(LifecycleTest, TheTodoFilesDaysAreTakenAtTheStartAndBuiltFromTheFirstPassOn) {
    writeTestFile("/root/data/thumbnailTodo.txt", "a,2024-05-01\na,2024-05-02\na,2024-05-03\n");
    writeTestFile("/root/data/thumbnailsComplete.txt", "2024-05-02\n");
    QList<FakeThumbnails::Started> started;
    qsizetype waiting = -1;
    run([&] {
        started = FakeThumbnails::started;
        waiting = g_thumbnailDays.size();
        quit();
    });
    EXPECT_EQ(started, (QList<FakeThumbnails::Started>{{"a", "2024-05-01"}}));
    EXPECT_EQ(waiting, 1);
    emptyRoots();
}

TEST_F(LifecycleTest, WhenEveryDayIsFinishedBothFilesAreGoneAfterTheStart) {
    writeTestFile("/root/data/thumbnailTodo.txt", "a,2024-05-01\n");
    writeTestFile("/root/data/thumbnailsComplete.txt", "2024-05-01\n");
    run([this] { quit(); });
    EXPECT_EQ(readTestFile("/root/data/thumbnailTodo.txt"), "(missing)");
    EXPECT_EQ(readTestFile("/root/data/thumbnailsComplete.txt"), "(missing)");
    EXPECT_TRUE(FakeThumbnails::started.isEmpty());
}

TEST_F(LifecycleTest, NoThumbnailDayOutlivesTheDaemon) {
    run([this] {
        ThumbnailSchedule::request("a", "2024-05-01");
        quit();
    });
    EXPECT_TRUE(g_thumbnailDays.isEmpty());
}

TEST_F(LifecycleTest, AQuitFromBeforeTheStartIsForgotten) {
    g_quit = true;
    int waits = 0;
    run([&] {
        ++waits;
        quit();
    });
    EXPECT_EQ(waits, 1);
}

TEST_F(LifecycleTest, TheWatchdogCountsFromTheStart) {
    clock.advance(3600);
    int waits = 0;
    const int status = run([&] {
        ++waits;
        clock.advance(waits == 1 ? 15 : 1);
    });
    EXPECT_EQ(status, -7);
    EXPECT_EQ(waits, 2);
}

TEST_F(LifecycleTest, ItRunsWithNiceValue5AndIdleIOPriority) {
    // The process's I/O priority; the class stands above 13 bits of level.
    constexpr int kIOPriorityOfProcess = 1;
    constexpr int kIOClassShift = 13;
    int niceValue = -1;
    long ioClass = -1;
    run([&] {
        niceValue = getpriority(PRIO_PROCESS, 0);
        ioClass = syscall(SYS_ioprio_get, kIOPriorityOfProcess, 0) >> kIOClassShift;
        quit();
    });
    EXPECT_EQ(niceValue, 5);
    EXPECT_EQ(ioClass, 3);
}

TEST_F(LifecycleTest, ItsDescriptorsSufficeForEveryHandle) {
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    const rlimit usual{1024, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &usual);
    rlimit inside{};
    run([&] {
        getrlimit(RLIMIT_NOFILE, &inside);
        quit();
    });
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(inside.rlim_cur, std::min<rlim_t>(5120, before.rlim_max));
    EXPECT_EQ(inside.rlim_max, before.rlim_max);
}

TEST_F(LifecycleTest, UndispatchedMessagesAreFreed) {
    run([] {
        // What a dispatch queues stays for the next drain, which does not come.
        setDrainHooks({[](Message&) {
                           g_waitingMessages.append(new Message);
                           return true;
                       },
                       nullptr});
        g_waitingMessages.append(new Message);
        raise(SIGUSR1);
    });
    EXPECT_TRUE(g_waitingMessages.isEmpty());
}

TEST_F(LifecycleTest, AMissingBrokerDoesNotKeepItFromStarting) {
    transport->setBrokerPresent(false);
    const int status = run([this] {
        clock.advance(1);
        raise(SIGUSR1);
    });
    EXPECT_EQ(status, 0);
}

TEST_F(LifecycleTest, ASecondDaemonOnTheUnitEndsWithStatus75AndOneLineBeforeItJoins) {
    const int other = open("/root/data", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_EQ(flock(other, LOCK_EX | LOCK_NB), 0);
    EXPECT_EQ(run([] { FAIL() << "it waited for the bus"; }), 75);
    EXPECT_EQ(log.lines().size(), 1);
    EXPECT_EQ(transport->connects(), 0);
    EXPECT_EQ(g_pubSubInterface, nullptr);
    close(other);
}

TEST_F(LifecycleTest, TheUnitIsFreeAgainAfterTheEnd) {
    run([this] { quit(); });
    const int other = open("/root/data", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    EXPECT_EQ(flock(other, LOCK_EX | LOCK_NB), 0);
    close(other);
}

TEST_F(LifecycleTest, WorkThatStillWaitsForAChildIsForgotten) {
    ForkStandIn fork(ForkStandIn::Outcome::Works);
    int worked = 0;
    run([&] {
        fork.set(ForkStandIn::Outcome::IsBusy);
        for (int i = 0; i < 10; ++i) {
            ChildPools::g_lookupsAndListings.run([&worked] { ++worked; });
        }
        quit();
    });
    EXPECT_EQ(fork.count(), 8);
    fork.set(ForkStandIn::Outcome::EndsAtOnce);
    ChildPools::startWaiting();
    EXPECT_EQ(fork.count(), 8);
    EXPECT_EQ(worked, 0);
}

TEST(LifecycleEnvironment, AnUnusableBusUrlEndsItWithStatus78AndOneLine) {
    const KeptSignalHandlers kept;
    LogCapture log;
    setenv("SCADA_BUS_URL", "gopher://nowhere", 1);
    Lifecycle lifecycle;
    EXPECT_EQ(lifecycle.run(), 78);
    ASSERT_EQ(log.lines().size(), 1);
    EXPECT_TRUE(log.lines().first().contains("SCADA_BUS_URL"));
    EXPECT_EQ(g_pubSubInterface, nullptr);
    EXPECT_EQ(g_memoryCache, nullptr);
    unsetenv("SCADA_BUS_URL");
}

TEST_F(LifecycleTest, AChildThatWentOnInTheLoopEndsWithStatus0AndTheParentGoesOn) {
    const pid_t daemon = getpid();
    const unsigned reapedBefore = ReapedChildren::count();
    pid_t child = -1;
    int childStatus = -1;
    const int status = run([&] {
        if (child == -1) {
            child = ForkedChild::start();
        }
        if (child == 0) {
            clock.advance(16);
        } else if (ReapedChildren::find(child, reapedBefore, childStatus)) {
            quit();
        }
    });
    if (getpid() != daemon) {
        _exit(99);
    }
    EXPECT_EQ(status, 0);
    EXPECT_EQ(childStatus, 0);
}

}  // namespace

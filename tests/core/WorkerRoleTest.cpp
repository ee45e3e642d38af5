#include "core/WorkerRole.h"

#include "core/MainLoop.h"
#include "filesystem/FileProtocol.h"
#include "tests/core/DaemonFixture.h"

#include <fcntl.h>

#include <csignal>

namespace {

/// Runs and ends noisily, to show that a child drops it without a message to anyone.
class NoisyJob : public RemoteJob {
public:
    using RemoteJob::RemoteJob;
    void runSlice() override {
        Message message;
        _manager->sendMessage(connectionID(), message);
    }
};

class WorkerRoleTest : public DaemonFixture {
protected:
    WorkerRoleTest() {
        // A child has no connection, so its wait lasts its whole time.
        bus.transport().onWait = [this](int milliseconds) {
            clock.tick += static_cast<quint32>(milliseconds);
        };
    }

    int openHandle() {
        receive("Message.storage", framed(7, wire(MESSAGE_FILE_OPEN, "Si", "/root/data/a", 3)));
        processWaitingMessages();
        const QList<FakeBus::Sent> sent = bus.takeSent();
        return sent.isEmpty() ? -1 : sent[0].message.parameterAsInt32(1);
    }

    /// As `inChild`, in the worker of a replay.
    static int inWorker(const std::function<int()>& what) {
        const pid_t test = getpid();
        g_pHistoricalDataManager->beginHistoricalReplay("client", "20240501000000");
        if (getpid() != test) {
            _exit(what());
        }
        int status = -1;
        waitpid(-1, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    bool isOpen(int handle) {
        int length = 0;
        QByteArray data;
        return g_pFilesystem->readFile(handle, 0, length, data);
    }

    MainLoop loop;
    WorkerRole role;
};

TEST_F(WorkerRoleTest, AChildActsOn0And1And232And234Only) {
    for (int command = -10; command < 0x1500; ++command) {
        const bool expected = command == 0 || command == 1 || command == 232 || command == 234;
        EXPECT_EQ(WorkerRole::actsOn(command), expected) << command;
    }
}

TEST_F(WorkerRoleTest, TheDaemonItselfGivesNothingUp) {
    g_remoteManager->addJob(new RemoteJob(g_remoteManager, 1));
    const int handle = openHandle();
    receive("StorageManager.to", wire(5, ""));
    for (int pass = 0; pass < 3; ++pass) {
        EXPECT_TRUE(role.mayGoOn());
    }
    EXPECT_EQ(g_remoteManager->jobs().size(), 1);
    EXPECT_EQ(g_waitingMessages.size(), 1);
    EXPECT_TRUE(isOpen(handle));
}

TEST_F(WorkerRoleTest, AForkLeavesTheParentWhatItHas) {
    g_remoteManager->addJob(new RemoteJob(g_remoteManager, 1));
    const int handle = openHandle();
    receive("StorageManager.to", wire(5, ""));
    EXPECT_EQ(inChild([&] { return role.mayGoOn() ? 0 : 1; }), 0);
    EXPECT_TRUE(role.mayGoOn());
    EXPECT_EQ(g_remoteManager->jobs().size(), 1);
    EXPECT_EQ(g_waitingMessages.size(), 1);
    EXPECT_TRUE(isOpen(handle));
}

TEST_F(WorkerRoleTest, AChildDropsJobsHandlesAndMessagesWithoutAMessageToAnyone) {
    g_remoteManager->addJob(new NoisyJob(g_remoteManager, 1));
    g_remoteManager->addJob(new NoisyJob(g_remoteManager, 2));
    const int handle = openHandle();
    ASSERT_TRUE(isOpen(handle));
    receive("StorageManager.to", wire(5, ""));
    const int result = inChild([&] {
        log.clear();
        if (!role.mayGoOn()) {
            return 1;
        }
        if (!g_remoteManager->jobs().isEmpty() || !g_waitingMessages.isEmpty()) {
            return 2;
        }
        if (isOpen(handle)) {
            return 3;
        }
        return bus.transport().sent.isEmpty() && log.lines().isEmpty() ? 0 : 4;
    });
    EXPECT_EQ(result, 0);
}

TEST_F(WorkerRoleTest, AChildDropsTheThumbnailDaysAndTheNotificationWithoutAMessageToAnyone) {
    ThumbnailSchedule::request("a", "2024-05-01");
    ThumbnailSchedule::request("a", "2024-05-02");
    ThumbnailSchedule::runStep();
    const int id = g_thumbnailNotificationID;
    bus.takeSent();
    const int result = inChild([&] {
        loop.runPass();
        const bool dropped = g_thumbnailDays.isEmpty() && g_thumbnailDaysOutstanding == 0 &&
                             g_thumbnailNotificationID == 0;
        return dropped && FakeThumbnails::started.size() == 1 && bus.transport().sent.isEmpty() ? 0
                                                                                                : 1;
    });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(g_thumbnailDays.size(), 1);
    EXPECT_EQ(g_thumbnailDaysOutstanding, 1);
    EXPECT_EQ(g_thumbnailNotificationID, id);
}

TEST_F(WorkerRoleTest, AChildDropsThemOnceAndKeepsWhatItTakesOnItself) {
    const int result = inChild([&] {
        role.mayGoOn();
        g_remoteManager->addJob(new RemoteJob(g_remoteManager, 1));
        return role.mayGoOn() && g_remoteManager->jobs().size() == 1 ? 0 : 1;
    });
    EXPECT_EQ(result, 0);
}

TEST_F(WorkerRoleTest, AWorkerThatWasToldNothingFor600SecondsEnds) {
    const int result = inWorker([&] {
        clock.tick += 600'000;
        g_runState.noteKeepalive();
        if (!loop.runPass()) {
            return 1;
        }
        // The pass itself waited, and the clock went on.
        g_runState.noteKeepalive();
        if (loop.runPass()) {
            return 2;
        }
        return log.contains("scada-storage-process: replay worker was told nothing, ending") ? 0
                                                                                             : 3;
    });
    EXPECT_EQ(result, 0);
}

TEST_F(WorkerRoleTest, TheChildOfAnInvalidLookupIsNotOneThatWasToldNothing) {
    const int result = inChild([&] {
        clock.tick += 600'001;
        return role.mayGoOn() ? 0 : 1;
    });
    EXPECT_EQ(result, 0);
}

TEST_F(WorkerRoleTest, TheDaemonItselfIsNeverAbandoned) {
    clock.tick += 10'000'000;
    EXPECT_TRUE(role.mayGoOn());
}

TEST_F(WorkerRoleTest, AChildAnswersAKeepaliveAndHeedsAQuit) {
    const int result = inChild([&] {
        Message keepalive;
        processMessage(keepalive);
        Message quit;
        quit.construct(1, "");
        return log.contains("scada-storage-process: handled keepalive") && !processMessage(quit) &&
                       g_quit
                   ? 0
                   : 1;
    });
    EXPECT_EQ(result, 0);
}

TEST_F(WorkerRoleTest, AChildCarriesOutNoFileRequest) {
    close(creat("/root/data/from", 0644));
    const int result = inChild([&] {
        Message request;
        request.construct(MESSAGE_FILE_MOVE, "SS", "/root/data/from", "/root/data/to");
        request.setTag(7);
        processMessage(request);
        return bus.transport().sent.isEmpty() && log.lines().isEmpty() ? 0 : 1;
    });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(access("/root/data/from", F_OK), 0);
    EXPECT_EQ(unlink("/root/data/from"), 0);
}

TEST_F(WorkerRoleTest, AChildThatHearsNoKeepalivesIsEndedByTheWatchdogAsInherited) {
    clock.advance(10);
    const int result = inChild([&] {
        clock.advance(5);
        if (!loop.runPass()) {
            return 1;
        }
        clock.advance(1);
        if (loop.runPass()) {
            return 2;
        }
        return log.contains("scada-storage-process: no keepalive, aborting...") ? 0 : 3;
    });
    EXPECT_EQ(result, 0);
}

TEST_F(WorkerRoleTest, AKeepaliveThatTheParentHadQueuedDoesNotKeepItsChildAlive) {
    receive("Message.ExtProc.to.1", wire(0, ""));
    clock.advance(16);
    EXPECT_EQ(inChild([&] { return loop.runPass() ? 1 : 0; }), 0);
}

TEST_F(WorkerRoleTest, AChildsFirstPassGivesUpTheJobsBeforeTheirSlice) {
    g_remoteManager->addJob(new NoisyJob(g_remoteManager, 1));
    const int result = inChild([&] {
        loop.runPass();
        return bus.transport().sent.isEmpty() ? 0 : 1;
    });
    EXPECT_EQ(result, 0);
}

/// A grandchild of this test whose parent ends; it says over a pipe what it saw.
class Orphan {
public:
    template <typename Life>
    static int run(Life life) {
        int report[2];
        EXPECT_EQ(pipe(report), 0);
        const pid_t parent = fork();
        if (parent == 0) {
            life(report[1]);
        }
        close(report[1]);
        char result = -1;
        EXPECT_EQ(read(report[0], &result, 1), 1) << "the orphan said nothing";
        close(report[0]);
        waitpid(parent, nullptr, 0);
        return result;
    }
};

TEST_F(WorkerRoleTest, AChildEndsWhenItsParentEnded) {
    const int result = Orphan::run([this](int report) {
        // Here the pass is to find out by itself.
        signal(SIGUSR1, SIG_IGN);
        MainLoop daemon;
        int parentEnded[2];
        if (pipe(parentEnded) != 0 || ForkedChild::start() != 0) {
            _exit(0);
        }
        close(parentEnded[1]);
        char byte = 0;
        // The end of the parent closes the other end.
        while (read(parentEnded[0], &byte, 1) > 0) {
        }
        // How many passes that takes is the system's; the watchdog is to stay out of it.
        while (getppid() != 1 && daemon.runPass()) {
            g_runState.noteKeepalive();
        }
        g_runState.noteKeepalive();
        const char wentOn = daemon.runPass() ? 1 : 0;
        const char said = log.contains("scada-storage-process: parent process ended") ? 0 : 2;
        const char verdict = static_cast<char>(wentOn | said);
        _exit(write(report, &verdict, 1) == 1 ? 0 : 1);
    });
    EXPECT_EQ(result, 0);
}

TEST_F(WorkerRoleTest, AChildIsSignalledOutOfItsWaitWhenItsParentEnds) {
    const int result = Orphan::run([](int report) {
        sigset_t ends;
        sigemptyset(&ends);
        sigaddset(&ends, SIGUSR1);
        sigprocmask(SIG_BLOCK, &ends, nullptr);
        WorkerRole daemon;
        int ready[2];
        if (pipe(ready) != 0) {
            _exit(1);
        }
        char byte = 'r';
        if (ForkedChild::start() != 0) {
            _exit(read(ready[0], &byte, 1) == 1 ? 0 : 1);
        }
        daemon.mayGoOn();
        if (write(ready[1], &byte, 1) != 1) {
            _exit(1);
        }
        const timespec limit{10, 0};
        const char verdict = sigtimedwait(&ends, nullptr, &limit) == SIGUSR1 ? 0 : 1;
        _exit(write(report, &verdict, 1) == 1 ? 0 : 1);
    });
    EXPECT_EQ(result, 0);
}

}  // namespace

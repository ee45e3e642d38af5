#include "bus/ForkedChild.h"
#include "tests/jobs/LZFDownloadFixture.h"

#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr char kFile[] = "/root/data/file";

class LZFDownloadFlowTest : public LZFDownloadFixture {
protected:
    bool isWanted(const char* topic) { return bus.transport().subscriptions().contains(topic); }

    void loseConnection() {
        bus.transport().setBrokerPresent(false);
        bus.bus().takeInArrived();
    }

    void findConnectionAgain() {
        bus.transport().setBrokerPresent(true);
        clock.advance(5);
        bus.bus().takeInArrived();
        ASSERT_TRUE(bus.bus().isConnected());
    }
};

TEST_F(LZFDownloadFlowTest, ItsTypeAndItsIdsAreThoseOfTheRequest) {
    const LZFDownloadRemoteJob* job = start(kFile);
    EXPECT_EQ(job->type(), "LZFDownloadRemoteJob");
    EXPECT_EQ(job->connectionID(), kConnection);
    EXPECT_EQ(job->jobID(), kTransfer);
    EXPECT_FALSE(job->needsToClose());
}

TEST_F(LZFDownloadFlowTest, AJobWantsItsTokensAndAsksForReports) {
    start(kFile);
    EXPECT_TRUE(isWanted("ConnectionManager/status"));
    EXPECT_TRUE(isWanted("ConnectionManager/writeCount/7"));
    const QList<FakeTransport::Sent> sent = bus.transport().sent;
    ASSERT_EQ(sent.size(), 1);
    EXPECT_EQ(sent[0].token, "ConnectionManager.to");
    // Command 80, format "i", connection 7.
    EXPECT_EQ(sent[0].payload.toHex(' '), "50 00 00 00 69 00 07 00 00 00");
    EXPECT_EQ(log.lines(), QList<QByteArray>{"LZFDownloadRemoteJob: created"});
}

TEST_F(LZFDownloadFlowTest, ItsEndWantsThemNoMore) {
    delete new LZFDownloadRemoteJob(&manager, -5, 1, kFile);
    EXPECT_TRUE(bus.transport().subscriptions().isEmpty());
    EXPECT_EQ(log.lines(), (QList<QByteArray>{"LZFDownloadRemoteJob: created",
                                              "LZFDownloadRemoteJob: destroyed"}));
}

TEST_F(LZFDownloadFlowTest, TheFirstFinishedJobOfAConnectionLeavesTheSecondItsTokens) {
    LZFDownloadRemoteJob* first = start(kFile);
    start(kFile);
    manager.removeJob(first);
    delete first;
    EXPECT_TRUE(isWanted("ConnectionManager/status"));
    EXPECT_TRUE(isWanted("ConnectionManager/writeCount/7"));
}

TEST_F(LZFDownloadFlowTest, UntilTheFirstReportNothingIsSent) {
    writeTestFile(kFile, "hello");
    start(kFile);
    bus.takeSent();
    for (int second = 0; second < 30; ++second) {
        clock.advance(1);
        manager.runSlice();
    }
    EXPECT_TRUE(bus.takeSent().isEmpty());
    EXPECT_EQ(log.lines(), QList<QByteArray>{"LZFDownloadRemoteJob: created"}) << "nor begun";
}

TEST_F(LZFDownloadFlowTest, AReportOf90112LetsItSendAnd90113DoesNot) {
    for (const auto& [count, ends] : {std::pair(90112, true), {90113, false}, {1 << 30, false}}) {
        LZFDownloadRemoteJob* job = start("");
        for (int slice = 0; slice < 4 && manager.jobs().contains(job); ++slice) {
            job->handleWriteCount(count);
            manager.runSlice();
        }
        EXPECT_EQ(manager.jobs().isEmpty(), ends) << count;
    }
}

TEST_F(LZFDownloadFlowTest, ANegativeReportMeansWaitBecauseTheCountIsComparedUnsigned) {
    // KEPT: it is not taken for a drained queue.
    LZFDownloadRemoteJob* job = start("");
    bus.takeSent();
    for (const int count : {-1, -90112, std::numeric_limits<int>::min()}) {
        job->handleWriteCount(count);
        manager.runSlice();
        manager.runSlice();
    }
    EXPECT_TRUE(bus.takeSent().isEmpty());
    EXPECT_EQ(manager.jobs().size(), 1);
}

TEST_F(LZFDownloadFlowTest, ASliceThatWaitsIsActivityAndSkipsNoWait) {
    const LZFDownloadRemoteJob* job = start(kFile);
    clock.tick += 123;
    manager.runSlice();
    EXPECT_EQ(job->lastActivity(), clock.tick);
    EXPECT_FALSE(skipsWait());
}

TEST_F(LZFDownloadFlowTest, EverySliceThatSendsOrPacksOrOpensSkipsTheNextWait) {
    writeTestFile(kFile, noise(2 * kBlock));
    LZFDownloadRemoteJob* job = startDrained(QString(kFile) + "\n/root/data\n/none");
    while (!manager.jobs().isEmpty()) {
        job->handleWriteCount(0);
        clock.tick += 1;
        manager.runSlice();
        EXPECT_TRUE(skipsWait());
        EXPECT_EQ(manager.lastActivity(), clock.tick);
    }
}

TEST_F(LZFDownloadFlowTest, WhatIsSentCountsAsQueued) {
    writeTestFile(kFile, noise(500'000));
    startDrained(kFile);
    for (int slice = 0; slice < 100; ++slice) {
        manager.runSlice();
    }
    // 11 messages are 89,650 bytes, the 12th makes them 97,800.
    EXPECT_EQ(takePieces().size(), 12);
}

TEST_F(LZFDownloadFlowTest, AReportStartsItAgain) {
    writeTestFile(kFile, noise(500'000));
    LZFDownloadRemoteJob* job = startDrained(kFile);
    for (int slice = 0; slice < 100; ++slice) {
        manager.runSlice();
    }
    takePieces();
    job->handleWriteCount(kMostQueued);
    for (int slice = 0; slice < 100; ++slice) {
        manager.runSlice();
    }
    EXPECT_EQ(takePieces().size(), 1);
}

TEST_F(LZFDownloadFlowTest, ASliceSendsOneMessageOfAtMost8150Bytes) {
    writeTestFile(kFile, noise(kBlock));
    startDrained(kFile);
    manager.runSlice();  // opens
    manager.runSlice();  // packs
    EXPECT_TRUE(takePieces().isEmpty());
    for (int message = 0; message < 7; ++message) {
        manager.runSlice();
        const QList<QByteArray> pieces = takePieces();
        ASSERT_EQ(pieces.size(), 1);
        EXPECT_EQ(pieces[0].size(), 8150);
    }
    manager.runSlice();
    const QList<QByteArray> last = takePieces();
    ASSERT_EQ(last.size(), 1);
    EXPECT_EQ(last[0].size(), 3 + kBlock - 7 * 8150 + 3);
    EXPECT_TRUE(manager.jobs().isEmpty());
}

TEST_F(LZFDownloadFlowTest, ABufferOfExactlyAMessageIsSentBeforeTheNextEntryIsOpened) {
    writeTestFile(kFile, noise(8147));
    startDrained(QString(kFile) + "\n/none");
    manager.runSlice();
    manager.runSlice();
    EXPECT_TRUE(takePieces().isEmpty());
    manager.runSlice();
    EXPECT_EQ(takePieces().value(0).size(), 8150);
}

TEST_F(LZFDownloadFlowTest, TheEndIsSentWholeInItsSlice) {
    // 8,146 bytes wait; the record of the end makes them 8,149, of another Missing 8,159.
    writeTestFile(kFile, noise(8143));
    startDrained(QString(kFile) + "\n/none");
    for (int slice = 0; slice < 3; ++slice) {
        manager.runSlice();
    }
    EXPECT_TRUE(takePieces().isEmpty());
    manager.runSlice();
    EXPECT_EQ(takePieces().value(0).size(), 8150);
    manager.runSlice();
    EXPECT_EQ(takePieces().value(0).size(), 8146 + 10 - 8150 + 3);
    EXPECT_TRUE(manager.jobs().isEmpty());
}

TEST_F(LZFDownloadFlowTest, TheEndTakesAsManyMessagesAsItNeeds) {
    writeTestFile(kFile, noise(8145));
    startDrained(kFile);
    manager.runSlice();
    manager.runSlice();
    EXPECT_TRUE(takePieces().isEmpty()) << "8,148 bytes wait";
    manager.runSlice();
    const QList<QByteArray> pieces = takePieces();
    ASSERT_EQ(pieces.size(), 2);
    EXPECT_EQ(pieces[0].size(), 8150);
    EXPECT_EQ(pieces[1].toHex(' '), "00");
    EXPECT_TRUE(logged("done!"));
}

TEST_F(LZFDownloadFlowTest, ABufferWithoutRoomForAFullRecordIsSentAtOnce) {
    writeTestFile("/root/data/next", noise(kBlock));
    for (const char* next : {"/root/data/next", "/root/data"}) {
        for (const int waiting : {8147, 8148, 8149}) {
            writeTestFile(kFile, noise(waiting - 3));
            LZFDownloadRemoteJob* job = startDrained(QString(kFile) + '\n' + next);
            for (int slice = 0; slice < 3; ++slice) {
                manager.runSlice();
            }
            EXPECT_TRUE(takePieces().isEmpty());
            manager.runSlice();
            EXPECT_EQ(takePieces().value(0).size(), waiting) << next;
            manager.removeJob(job);
            delete job;
        }
    }
}

TEST_F(LZFDownloadFlowTest, ABufferOf8146BytesHasRoomForAFullRecord) {
    writeTestFile(kFile, noise(8143));
    writeTestFile("/root/data/next", noise(kBlock));
    startDrained(QString(kFile) + "\n/root/data/next");
    for (int slice = 0; slice < 4; ++slice) {
        manager.runSlice();
    }
    EXPECT_TRUE(takePieces().isEmpty());
    manager.runSlice();
    EXPECT_EQ(takePieces().value(0).size(), 8150);
}

TEST_F(LZFDownloadFlowTest, AfterFourSecondsOfSilenceASliceIsAnEmptyMessageAndNothingElse) {
    startDrained("/none");
    clock.advance(4);
    manager.runSlice();
    const QList<FakeTransport::Sent> sent = bus.transport().sent;
    ASSERT_EQ(sent.size(), 1);
    // Connection 7; command 0x14b0, format "iB", transfer 3, no byte.
    EXPECT_EQ(sent[0].payload.toHex(' '),
              "07 00 00 00 b0 14 00 00 69 42 00 03 00 00 00 00 00 00 00");
    EXPECT_FALSE(logged("pid " + QByteArray::number(getpid()) + " : move to next file: /none"));
}

TEST_F(LZFDownloadFlowTest, AfterThreeSecondsThereIsNoSignOfLife) {
    startDrained("/none");
    clock.advance(3);
    manager.runSlice();
    EXPECT_TRUE(takePieces().isEmpty());
    EXPECT_TRUE(logged("pid " + QByteArray::number(getpid()) + " : move to next file: /none"));
}

TEST_F(LZFDownloadFlowTest, WhatWaitsGoesOutAfterFourSecondsThoughItIsLittle) {
    startDrained("/none\n/none");
    manager.runSlice();
    clock.advance(4);
    manager.runSlice();
    EXPECT_EQ(takeStream(), QByteArray::fromHex("840700") + "Missing");
}

TEST_F(LZFDownloadFlowTest, AClockThatWasSetBackCountsAsSilence) {
    startDrained("/none");
    clock.wall -= 1;
    manager.runSlice();
    EXPECT_EQ(takePieces(), QList<QByteArray>{""});
    manager.runSlice();
    EXPECT_TRUE(takePieces().isEmpty()) << "once";
}

TEST_F(LZFDownloadFlowTest, A601stSecondWithoutAReportEndsAJobThatWaits) {
    start(kFile);
    clock.tick += 600'000;
    manager.runSlice();
    EXPECT_EQ(manager.jobs().size(), 1) << "600 s are not over";
    clock.tick += 1;
    manager.runSlice();
    EXPECT_TRUE(manager.jobs().isEmpty());
    EXPECT_TRUE(log.contains("RemoteJob: TIMEOUT !!! (600001 elapsed, 600000 timeout)"));
}

TEST_F(LZFDownloadFlowTest, AReportThatLetsNothingGoGivesItAnother600Seconds) {
    LZFDownloadRemoteJob* job = start(kFile);
    clock.tick += 600'000;
    job->handleWriteCount(1'000'000);
    clock.tick += 600'000;
    manager.runSlice();
    EXPECT_EQ(manager.jobs().size(), 1);
    clock.tick += 1;
    manager.runSlice();
    EXPECT_TRUE(manager.jobs().isEmpty());
}

TEST_F(LZFDownloadFlowTest, The600SecondsBeginWithTheWait) {
    writeTestFile(kFile, noise(500'000));
    startDrained(kFile);
    for (int sign = 0; sign < 200; ++sign) {
        clock.advance(4);
        manager.runSlice();
    }
    EXPECT_EQ(takeStream(), "") << "800 s of signs of life, and no report";
    for (int slice = 0; slice < 100; ++slice) {
        manager.runSlice();
    }
    EXPECT_EQ(takePieces().size(), 12);
    clock.advance(600);
    manager.runSlice();
    EXPECT_EQ(manager.jobs().size(), 1);
    clock.advance(1);
    manager.runSlice();
    EXPECT_TRUE(manager.jobs().isEmpty());
}

TEST_F(LZFDownloadFlowTest, TheLossOfTheBusConnectionEndsIt) {
    writeTestFile(kFile, noise(500'000));
    startDrained(kFile);
    for (int slice = 0; slice < 5; ++slice) {
        manager.runSlice();
    }
    loseConnection();
    manager.runSlice();
    EXPECT_TRUE(manager.jobs().isEmpty());
    EXPECT_TRUE(logged("the bus connection was lost, download ends"));
}

TEST_F(LZFDownloadFlowTest, ALossThatIsOverByTheNextSliceEndsItToo) {
    writeTestFile(kFile, noise(500'000));
    startDrained(kFile);
    for (int slice = 0; slice < 5; ++slice) {
        manager.runSlice();
    }
    takePieces();
    loseConnection();
    ASSERT_NO_FATAL_FAILURE(findConnectionAgain());
    manager.runSlice();
    EXPECT_TRUE(manager.jobs().isEmpty());
    EXPECT_TRUE(takePieces().isEmpty());
    EXPECT_TRUE(bus.transport().subscriptions().isEmpty());
}

TEST_F(LZFDownloadFlowTest, AJobThatWaitsForItsFirstReportEndsWithItsConnection) {
    start(kFile);
    loseConnection();
    ASSERT_NO_FATAL_FAILURE(findConnectionAgain());
    manager.runSlice();
    EXPECT_TRUE(manager.jobs().isEmpty());
}

TEST_F(LZFDownloadFlowTest, AnEarlierLossDoesNotConcernANewJob) {
    loseConnection();
    ASSERT_NO_FATAL_FAILURE(findConnectionAgain());
    EXPECT_EQ(downloadOne("/none").bytes, "Missing");
}

TEST_F(LZFDownloadFlowTest, AJobMadeWhileThereIsNoConnectionEnds) {
    loseConnection();
    start(kFile);
    manager.runSlice();
    EXPECT_TRUE(manager.jobs().isEmpty());
}

TEST_F(LZFDownloadFlowTest, AJobThatIsOverDoesNothingMore) {
    LZFDownloadRemoteJob job(&manager, kConnection, kTransfer, "/none");
    job.handleWriteCount(0);
    while (!job.needsToClose()) {
        job.runSlice();
    }
    bus.takeSent();
    clock.advance(10);
    job.runSlice();
    EXPECT_TRUE(bus.takeSent().isEmpty());
}

TEST_F(LZFDownloadFlowTest, AForkedChildThatDropsItTellsNobodyAndTheParentKeepsItsTokens) {
    LZFDownloadRemoteJob* job = start(kFile);
    bus.takeSent();
    const pid_t child = ForkedChild::start();
    if (child == 0) {
        manager.removeJob(job);
        delete job;
        const bool isSilent = bus.transport().sent.isEmpty() && bus.transport().connects() == 1;
        const bool isForgotten = bus.bus().findToken("ConnectionManager.writeCount.7") < 0;
        _exit(isSilent && isForgotten ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(isWanted("ConnectionManager/status"));
    EXPECT_TRUE(isWanted("ConnectionManager/writeCount/7"));
}

TEST_F(LZFDownloadFlowTest, WithoutABusClientItEndsAtOnce) {
    PubSubInterface* const client = std::exchange(g_pubSubInterface, nullptr);
    start(kFile);
    manager.runSlice();
    EXPECT_TRUE(manager.jobs().isEmpty());
    g_pubSubInterface = client;
}

}  // namespace

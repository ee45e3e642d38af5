#include "datafile/MemoryCache.h"
#include "filesystem/FileProtocol.h"
#include "tests/core/DaemonFixture.h"
#include "tests/support/Files.h"
#include "tests/support/ForkObserver.h"
#include "tests/support/ForkStandIn.h"
#include "tests/support/RecordedSource.h"

#include <new>
#include <stdexcept>

namespace {

class DispatchTest : public DaemonFixture {
protected:
    template <typename... Values>
    static Message message(int tag, int command, const char* format, Values... values) {
        Message result;
        result.construct(command, format, values...);
        result.setTag(tag);
        return result;
    }

    bool process(Message request) { return processMessage(request); }
};

[[noreturn]] bool runOutOfMemory(Message&) {
    throw std::bad_alloc();
}

TEST_F(DispatchTest, AKeepaliveIsAnsweredWithTheProcessId) {
    EXPECT_TRUE(process(message(9, 0, "")));
    const QList<FakeBus::Sent> sent = bus.takeSent();
    ASSERT_EQ(sent.size(), 1);
    EXPECT_EQ(sent[0].token, "Message.ExtProc.from.1");
    EXPECT_EQ(sent[0].message.command(), 0);
    EXPECT_STREQ(sent[0].message.formatString(), "i");
    EXPECT_EQ(sent[0].message.parameterAsInt32(0), getpid());
    EXPECT_EQ(log.lines(), QList<QByteArray>{"scada-storage-process: handled keepalive"});
}

TEST_F(DispatchTest, AKeepaliveMovesTheWatchdogAhead) {
    clock.advance(15);
    process(message(0, 0, ""));
    clock.advance(15);
    EXPECT_FALSE(g_runState.isKeepaliveOverdue());
    clock.advance(1);
    EXPECT_TRUE(g_runState.isKeepaliveOverdue());
}

TEST_F(DispatchTest, AQuitSetsTheFlagAndIsTheOnlyCommandThatReturnsFalse) {
    EXPECT_FALSE(process(message(0, 1, "")));
    EXPECT_TRUE(g_quit);
    EXPECT_EQ(
        log.lines(),
        QList<QByteArray>{"scada-storage-process: scada-storage-process: processMessage QUIT"});
    EXPECT_TRUE(bus.takeSent().isEmpty());
    const ForkStandIn fork(ForkStandIn::Outcome::EndsAtOnce);
    for (const int command : {0, 2, 80, 220, 230, 231, 232, 234, 0x1401, -1}) {
        EXPECT_TRUE(process(message(0, command, ""))) << command;
    }
}

TEST_F(DispatchTest, TheFormatOfADaemonCommandIsNotChecked) {
    EXPECT_TRUE(process(message(0, 0, "iS", 5, "more")));
    EXPECT_EQ(bus.takeSent().size(), 1);
    EXPECT_FALSE(process(message(0, 1, "i", 5)));
    EXPECT_TRUE(g_quit);
}

TEST_F(DispatchTest, AfterAQuitTheRestOfTheDrainIsStillDispatched) {
    receive("StorageManager.to", wire(1, ""));
    receive("StorageManager.to", wire(0, ""));
    processWaitingMessages();
    EXPECT_TRUE(g_quit);
    EXPECT_EQ(bus.takeSent().size(), 1) << "the keep-alive behind the quit was not answered";
}

TEST_F(DispatchTest, AWriteCountIsRoutedByItsFirstParameterAndNotByItsTag) {
    EXPECT_EQ(fileServiceConnection(message(7, 80, "ii", 42, 100)), 42);
    EXPECT_EQ(fileServiceConnection(message(7, 80, "")), 0);
}

TEST_F(DispatchTest, AnyOtherCodeIsRoutedByItsTag) {
    EXPECT_EQ(fileServiceConnection(message(7, 0x1401, "i", 42)), 7);
    EXPECT_EQ(fileServiceConnection(message(7, 79, "i", 42)), 7);
    EXPECT_EQ(fileServiceConnection(message(-1, 99, "i", 42)), -1);
}

TEST_F(DispatchTest, AFileRequestIsAnsweredByTheFileServiceOnItsTagsConnection) {
    EXPECT_TRUE(process(message(7, MESSAGE_FILE_CLOSE, "i", 12345)));
    const QList<FakeBus::Sent> sent = bus.takeSent();
    ASSERT_EQ(sent.size(), 1);
    EXPECT_EQ(sent[0].connection, 7);
    EXPECT_EQ(sent[0].message.command(), MESSAGE_FILE_CLOSE);
    EXPECT_EQ(sent[0].message.parameterCount(), 0);
}

TEST_F(DispatchTest, AWriteCountIsAnsweredByNobody) {
    process(message(7, 80, "ii", 42, 100));
    EXPECT_TRUE(bus.takeSent().isEmpty());
    EXPECT_TRUE(log.lines().isEmpty());
}

TEST_F(DispatchTest, AThumbnailDayIsAppendedWithItsJobAndItsDateAndNotFromTheFile) {
    EXPECT_TRUE(process(message(7, 220, "SS", "well7", "2024-05-01")));
    EXPECT_TRUE(process(message(0, 220, "SS", "br\xc3\xb8nn", "2024-05-02")));
    ASSERT_EQ(g_thumbnailDays.size(), 2);
    EXPECT_EQ(g_thumbnailDays[0].job, "well7");
    EXPECT_EQ(g_thumbnailDays[0].date, "2024-05-01");
    EXPECT_FALSE(g_thumbnailDays[0].fromFile);
    EXPECT_EQ(g_thumbnailDays[1].job, QString::fromUtf8("br\xc3\xb8nn"));
    EXPECT_TRUE(bus.takeSent().isEmpty());
    EXPECT_TRUE(log.lines().isEmpty());
}

TEST_F(DispatchTest, AThumbnailDayWithoutItsParametersIsAnEmptyDay) {
    EXPECT_TRUE(process(message(7, 220, "ii", 1, 2)));
    ASSERT_EQ(g_thumbnailDays.size(), 1);
    EXPECT_EQ(g_thumbnailDays[0].job, "");
    EXPECT_EQ(g_thumbnailDays[0].date, "");
}

TEST_F(DispatchTest, ALookupIsGivenItsSixParametersInTheirOrder) {
    ForkObserver children(bus);
    MemoryCache cache(false);
    g_memoryCache = &cache;
    const ChildReport report = children.run([this] {
        process(message(7, 230, "SiiSSS", "br\xc3\xb8nn", 3, 99, "2024-05-01", "10:00:01", "A\nB"));
    });
    g_memoryCache = nullptr;
    EXPECT_EQ(report.status, 0);
    ASSERT_EQ(report.sent.size(), 3);
    EXPECT_EQ(report.sent[1].token, "HistoricalData.gaugeData");
    EXPECT_EQ(report.sent[1].message.parameterAsInt32(0), 1);
    EXPECT_EQ(report.sent[1].message.parameterAsInt32(1), 3);
    EXPECT_EQ(report.sent[1].message.parameterAsInt32(2), 99);
    EXPECT_EQ(report.sent[2].message.parameterAsInt32(2), 1'714'557'601);
    EXPECT_TRUE(bus.takeSent().isEmpty());
}

TEST_F(DispatchTest, ALookupWithoutItsParametersIsAnInvalidOneAndSendsNothing) {
    ForkObserver children(bus);
    const ChildReport report = children.run([this] { process(message(7, 230, "")); });
    EXPECT_EQ(report.status, ForkObserver::kWentOn);
    EXPECT_TRUE(report.sent.isEmpty());
}

TEST_F(DispatchTest, ABeginOfAReplayMakesAWorkerThatTellsItsJob) {
    ForkObserver children(bus);
    const ChildReport report =
        children.run([this] { process(message(7, 231, "SS", "client", "20240501000000")); });
    EXPECT_EQ(report.status, ForkObserver::kWentOn);
    ASSERT_EQ(report.sent.size(), 1);
    EXPECT_EQ(report.sent[0].token, "Message.ExtProc.from.1");
    EXPECT_EQ(report.sent[0].message.command(), 232);
    EXPECT_EQ(report.sent[0].message.parameterAsInt32(0), 1);
}

TEST_F(DispatchTest, AContinueIsLoggedByTheDaemonWhichHasNoJob) {
    EXPECT_TRUE(process(message(7, 232, "iS", 5, "a=1")));
    EXPECT_TRUE(process(message(7, 232, "")));
    EXPECT_EQ(log.lines(), (QList<QByteArray>{"HistoricalDataManager: Failed to find jobID 5",
                                              "HistoricalDataManager: Failed to find jobID 0"}));
    EXPECT_TRUE(bus.takeSent().isEmpty());
}

TEST_F(DispatchTest, ContinueAndAcknowledgementReachTheJobOfAWorker) {
    writeTestFile("/root/data/system/2024-05-01/systemData.gdf",
                  RecordedSource().at(5).record(254, QByteArray(12, 'x')).bytes);
    ForkObserver children(bus);
    const ChildReport report = children.run([this] {
        process(message(7, 231, "SS", "client", "20240501000000"));
        if (!g_pHistoricalDataManager->isWorkerThread()) {
            return;
        }
        int waits = 0;
        bus.transport().onWait = [this, waits](int) mutable {
            const int command = ++waits == 1 ? 233 : 234;
            bus.transport().deliver("StorageManager.to", wire(command, "ii", 1, 1));
        };
        process(message(7, 232, "iS", 1, ""));
    });
    EXPECT_EQ(report.status, 0) << "the replay did not come to its end";
    EXPECT_EQ(report.sent.size(), 2);
    emptyRoots();
}

TEST_F(DispatchTest, BlocksOfAReplayAreNoCommand) {
    EXPECT_TRUE(process(message(7, 233, "iiiB", 1, 1, 0, 0, nullptr)));
    EXPECT_TRUE(bus.takeSent().isEmpty());
    EXPECT_TRUE(log.lines().isEmpty());
}

TEST_F(DispatchTest, AnAcknowledgementOutsideAWorkerHasNoEffect) {
    process(message(7, 234, "ii", 1, 1));
    EXPECT_TRUE(bus.takeSent().isEmpty());
    EXPECT_TRUE(log.lines().isEmpty());
}

TEST_F(DispatchTest, UnknownAndMalformedCommandsAreIgnored) {
    for (const int command : {-1, 2, 79, 81, 219, 233, 235, 0x13ff, 0x7fffffff}) {
        process(message(7, command, ""));
    }
    EXPECT_TRUE(bus.takeSent().isEmpty());
    EXPECT_TRUE(log.lines().isEmpty());
}

TEST_F(DispatchTest, ARequestThatRunsOutOfMemoryGetsABareReplyAndTheDaemonLives) {
    Message request = message(7, MESSAGE_FILE_READ, "iii", 1, 0, 1000);
    EXPECT_TRUE(handleGuarded(runOutOfMemory, request));
    const QList<FakeBus::Sent> sent = bus.takeSent();
    ASSERT_EQ(sent.size(), 1);
    EXPECT_EQ(sent[0].connection, 7);
    EXPECT_EQ(sent[0].message.command(), MESSAGE_FILE_READ);
    EXPECT_EQ(sent[0].message.parameterCount(), 0);
    EXPECT_TRUE(log.contains("scada-storage-process: command 5122 failed"));
}

TEST_F(DispatchTest, AnOpenThatRunsOutOfMemoryGetsItsOwnFailureForm) {
    Message request = message(7, MESSAGE_FILE_OPEN, "Si", "/root/data/a", 1);
    EXPECT_TRUE(handleGuarded(runOutOfMemory, request));
    const QList<FakeBus::Sent> sent = bus.takeSent();
    ASSERT_EQ(sent.size(), 1);
    EXPECT_EQ(sent[0].connection, 7);
    EXPECT_STREQ(sent[0].message.formatString(), "Sii");
    EXPECT_STREQ(sent[0].message.parameterAsString(0), "/root/data/a");
    EXPECT_EQ(sent[0].message.parameterAsInt32(1), -1);
    EXPECT_EQ(sent[0].message.parameterAsInt32(2), -1);
}

TEST_F(DispatchTest, AnArchiveThatRunsOutOfMemoryGetsItsOwnFailureForm) {
    for (const int command : {MESSAGE_CONFIG_BACKUP, MESSAGE_CONFIG_RESTORE}) {
        Message request = message(7, command, "SS", "site", "a.configBackup");
        EXPECT_TRUE(handleGuarded(runOutOfMemory, request));
        const QList<FakeBus::Sent> sent = bus.takeSent();
        ASSERT_EQ(sent.size(), 1);
        EXPECT_EQ(sent[0].connection, 7);
        EXPECT_EQ(sent[0].message.command(), command);
        EXPECT_STREQ(sent[0].message.formatString(), "c");
        EXPECT_EQ(sent[0].message.parameterAsByte(0), 0);
    }
}

TEST_F(DispatchTest, ADaemonCommandThatFailsIsAnsweredByNobody) {
    for (const int command : {0, 1, 80, 220, 230, 231, 232, 234}) {
        Message request = message(7, command, "");
        EXPECT_TRUE(handleGuarded(runOutOfMemory, request)) << command;
    }
    EXPECT_TRUE(bus.takeSent().isEmpty());
}

TEST_F(DispatchTest, AnyExceptionIsCaught) {
    Message request = message(7, MESSAGE_FILE_CLOSE, "i", 1);
    handleGuarded([](Message&) -> bool { throw std::runtime_error("what"); }, request);
    handleGuarded([](Message&) -> bool { throw 5; }, request);
    EXPECT_EQ(bus.takeSent().size(), 2);
}

TEST_F(DispatchTest, AHandlersOwnResultIsPassedOn) {
    Message request = message(7, 5, "");
    EXPECT_TRUE(handleGuarded([](Message&) { return true; }, request));
    EXPECT_FALSE(handleGuarded([](Message&) { return false; }, request));
}

}  // namespace

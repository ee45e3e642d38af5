#include "tests/history/ReplayFixture.h"
#include "tests/support/ForkStandIn.h"

#include <QDir>

#include <sys/resource.h>
#include <sys/syscall.h>

#include <ctime>

namespace {

class ReplayTest : public ReplayFixture {
protected:
    /// A folder of days as it stands in the order of preparation.
    struct Folder {
        const char* path;
        const char* file;
        int type;
        QByteArray payload;
        QByteArray lastItem;
    };
};

TEST_F(ReplayTest, AWorkerAnnouncesItsJobOnTheReplyTokenAndGoesOn) {
    const ChildReport report = worker("20240501000000", [] {});
    EXPECT_EQ(report.status, ForkObserver::kWentOn);
    ASSERT_EQ(report.sent.size(), 1);
    EXPECT_EQ(report.sent[0].token, "Message.ExtProc.from.1");
    EXPECT_EQ(report.sent[0].message.command(), 232);
    EXPECT_STREQ(report.sent[0].message.formatString(), "i");
    EXPECT_EQ(report.sent[0].message.parameterAsInt32(0), 1);
    EXPECT_EQ(report.lines, QList<QByteArray>{kLaunched});
}

TEST_F(ReplayTest, OnlyTheWorkerIsOne) {
    const ChildReport report =
        worker("", [this] { DebugText::plain(manager.isWorkerThread() ? "a worker" : "none"); });
    EXPECT_TRUE(report.lines.contains("a worker"));
    EXPECT_FALSE(manager.isWorkerThread());
    EXPECT_TRUE(bus.takeSent().isEmpty());
    EXPECT_TRUE(children.lines().isEmpty());
}

TEST_F(ReplayTest, EveryFreshWorkersJobIsNumber1) {
    for (int i = 0; i < 3; ++i) {
        const ChildReport report = worker("", [] {});
        ASSERT_EQ(report.sent.size(), 1);
        EXPECT_EQ(report.sent[0].message.parameterAsInt32(0), 1);
    }
}

TEST_F(ReplayTest, AWorkerHearsTheBusOverAConnectionOfItsOwn) {
    const ChildReport report = worker("", [this] {
        const bool hears = bus.transport().subscriptions().contains("StorageManager/to");
        DebugText::plain("%d connects, %s", bus.transport().connects(), hears ? "hears" : "deaf");
    });
    EXPECT_TRUE(report.lines.contains("2 connects, hears"));
}

TEST_F(ReplayTest, AWorkerLowersItsPriority) {
    const ChildReport report = worker("", [] {
        DebugText::plain("nice %d, class %ld", getpriority(PRIO_PROCESS, 0),
                         syscall(SYS_ioprio_get, 1, 0) >> 13);
    });
    EXPECT_TRUE(report.lines.contains("nice 15, class 3"));
}

TEST_F(ReplayTest, AFailedForkSendsNothingAndMakesNoWorker) {
    const ForkStandIn fork(ForkStandIn::Outcome::Fails);
    const ChildReport report = worker("", [] {});
    EXPECT_EQ(report.status, ForkObserver::kNoChild);
    EXPECT_TRUE(bus.takeSent().isEmpty());
    EXPECT_FALSE(manager.isWorkerThread());
    EXPECT_EQ(children.lines(),
              QList<QByteArray>{"scada-storage-process: no child, request dropped"});
}

TEST_F(ReplayTest, TheDaemonItselfFindsNoJob) {
    manager.continueHistoricalReplay(1, "a=1");
    manager.continueHistoricalReplay(-7, "");
    EXPECT_EQ(children.lines(),
              (QList<QByteArray>{"HistoricalDataManager: Failed to find jobID 1",
                                 "HistoricalDataManager: Failed to find jobID -7"}));
    EXPECT_TRUE(bus.takeSent().isEmpty());
}

TEST_F(ReplayTest, AWorkerTellsAnUnknownJobAndGoesOn) {
    putGauge("1", {100});
    const ChildReport report = worker("20240501000000", [this] { continueJob(2, "1=1"); });
    EXPECT_EQ(report.status, ForkObserver::kWentOn);
    EXPECT_EQ(report.lines.last(), "HistoricalDataManager: Failed to find jobID 2");
    EXPECT_TRUE(blocksOf(report).isEmpty());
}

TEST_F(ReplayTest, AnInvalidStartIsIgnoredAndTheWorkerGoesOn) {
    putGauge("1", {100});
    for (const char* start : {"", "20240501", "2024-05-01 00:00:00", "20240230000000",
                              "20240501250000", "20240501006000", "202405010000001", "now"}) {
        const ChildReport report = worker(start, [this] {
            continueJob(1, "1=1");
            continueJob(1, "1=1");
        });
        EXPECT_EQ(report.status, ForkObserver::kWentOn) << start;
        EXPECT_EQ(report.sent.size(), 1) << start;
        EXPECT_EQ(report.lines, QList<QByteArray>{kLaunched}) << start;
    }
}

TEST_F(ReplayTest, WithoutAnyDayTheWorkerEndsAtOnce) {
    const ChildReport report = replay("1=1");
    EXPECT_EQ(report.status, 0);
    EXPECT_EQ(report.sent.size(), 1);
}

TEST_F(ReplayTest, ABlockTellsItsJobItsNumberAndTheStart) {
    putGauge("1", {100});
    const ChildReport report = replay("1=1");
    ASSERT_EQ(report.sent.size(), 2);
    EXPECT_EQ(report.sent[1].token, "Message.ExtProc.from.1");
    const Message& block = report.sent[1].message;
    EXPECT_EQ(block.command(), 233);
    EXPECT_STREQ(block.formatString(), "iiiB");
    EXPECT_EQ(block.parameterAsInt32(0), 1);
    EXPECT_EQ(block.parameterAsInt32(1), 1);
    EXPECT_EQ(block.parameterAsInt32(2), 1'714'521'600);
    EXPECT_EQ(report.status, 0);
}

TEST_F(ReplayTest, TheStartIsTheUnitsLocalTime) {
    setenv("TZ", "Asia/Tokyo", 1);
    tzset();
    putGauge("1", {100});
    const ChildReport report = replay("1=1");
    ASSERT_EQ(report.sent.size(), 2);
    EXPECT_EQ(report.sent[1].message.parameterAsInt32(2), 1'714'521'600 - 9 * 3600);
    unsetenv("TZ");
    tzset();
}

TEST_F(ReplayTest, AnOptionWithoutAnEqualsSignIsIgnored) {
    putGauge("1234", {100});
    putGauge("abc", {200});
    const ChildReport report = replay("1234=3|abc");
    EXPECT_EQ(blocksOf(report), QList<QByteArray>{padded(statusItem(3, 1), 32)});
}

TEST_F(ReplayTest, OptionsAreReadAsTheyStand) {
    putGauge("a", {100});
    const std::pair<const char*, int> cases[] = {
        {"a=7", 7},          {"|a=7|", 7},      {"||a=7", 7},     {"a= 7\t", 7},
        {"a=1|a=7", 7},      {"a=-7", -7},      {"a=seven", 0},   {"a=", 0},
        {"a=7=8", 0},        {"a=0x7", 0},      {"a=07", 7},      {"a=2147483647", 2147483647},
        {"a=2147483648", 0}, {"=5|a=7|b=9", 7}, {"b|a=7|=|c", 7},
    };
    for (const auto& [options, channel] : cases) {
        const QByteArray item = statusItem(channel, 1);
        const QList<QByteArray> blocks = blocksOf(replay(options));
        ASSERT_EQ(blocks.size(), 1) << options;
        EXPECT_EQ(blocks[0].left(item.size()), item) << options;
    }
}

TEST_F(ReplayTest, NamesOfOptionsAreNotTrimmed) {
    putGauge("a", {100});
    putGauge(" b", {100});
    EXPECT_TRUE(blocksOf(replay(" a=7|a =7")).isEmpty());
    EXPECT_EQ(blocksOf(replay(" b=7")).size(), 1);
}

TEST_F(ReplayTest, AGaugeFolderThatIsNotNamedIsNotReplayed) {
    putGauge("a", {100});
    putGauge("b", {200});
    EXPECT_EQ(blocksOf(replay("a=1")), QList<QByteArray>{padded(statusItem(1, 1), 32)});
    EXPECT_TRUE(blocksOf(replay("")).isEmpty());
    EXPECT_TRUE(blocksOf(replay("c=1")).isEmpty());
}

TEST_F(ReplayTest, TheSystemIsReplayedWithoutBeingNamed) {
    put("/root/data/system", kDay, "systemData.gdf",
        RecordedSource().at(100).record(254, QByteArray(12, '\x01')));
    EXPECT_EQ(blocksOf(replay("")).size(), 1);
}

TEST_F(ReplayTest, AFolderThatIsNoDateOrBeforeTheStartIsIgnored) {
    for (const char* day : {"2024-04-30", "1999-01-01", "2024-5-1", "2024-02-30", "thumbnails",
                            "2024-05-01x", "20240501", ".2024-05-01"}) {
        putGauge("1", {100}, day);
    }
    EXPECT_TRUE(blocksOf(replay("1=1")).isEmpty());
    putGauge("1", {100}, "2024-05-01");
    EXPECT_EQ(blocksOf(replay("1=1")).size(), 1);
}

TEST_F(ReplayTest, DaysAreReplayedInAscendingOrderEachInBlocksOfItsOwn) {
    putGauge("1", {300, 301, 302}, "2024-05-10");
    putGauge("1", {200, 201}, "2024-05-02");
    putGauge("1", {100}, "2025-01-01");
    put("/mmc/gauges", "2024-05-09", "1/calcData.gdf", RecordedSource().at(1).record(5, gauge(9)));
    EXPECT_EQ(blocksOf(replay("1=1")),
              (QList<QByteArray>{padded(statusItem(1, 2), 64), padded(statusItem(1, 9), 32),
                                 padded(statusItem(1, 3), 96), padded(statusItem(1, 1), 32)}));
}

TEST_F(ReplayTest, ADayOnBothStoragesIsReplayedOnceWithTheFilesOfBoth) {
    put("/mmc/gauges", kDay, "1/calcData.gdf", RecordedSource().at(50).record(5, gauge(9)));
    putGauge("1", {100});
    EXPECT_EQ(blocksOf(replay("1=1")), QList<QByteArray>{padded(statusItem(1, 1), 64)});
}

TEST_F(ReplayTest, KeptAStartSelectsWholeDaysAndEveryRecordPasses) {
    putGauge("1", {5, 100, 1'714'521'601});
    const ChildReport report = replay(
        "1=1", [this] { acknowledgeLast(); }, QStringLiteral("20240501235959"));
    EXPECT_EQ(blocksOf(report), QList<QByteArray>{padded(statusItem(1, 3), 96)});
}

TEST_F(ReplayTest, KeptNeitherTheRequesterNorALookupNamesTheFolder) {
    const RecordedSource source = RecordedSource().at(100).record(5, gauge(1));
    for (const char* folder : {"/root/data/well/gauges", "/root/data/client/gauges"}) {
        put(folder, kDay, "1/calcData.gdf", source);
    }
    children.run([&] { manager.lookup("well", 0, 0, kDay, "00:00:00", "1"); });
    EXPECT_TRUE(blocksOf(replay("1=1")).isEmpty());
    put("/root/data/gauges", kDay, "1/calcData.gdf", source);
    EXPECT_EQ(blocksOf(replay("1=1")).size(), 1);
}

TEST_F(ReplayTest, ADayThatIsAFileOrALinkToNothingIsPassedBy) {
    writeTestFile("/root/data/gauges/2024-05-01", "no folder");
    ASSERT_TRUE(QDir().mkpath("/root/data/system"));
    ASSERT_EQ(symlink("nowhere", "/root/data/system/2024-05-02"), 0);
    const ChildReport report = replay("1=1");
    EXPECT_EQ(report.status, 0);
    EXPECT_EQ(report.sent.size(), 1);
}

TEST_F(ReplayTest, FilesArePreparedInTheOrderOfTheSixFolders) {
    const QByteArray card = QByteArray(8, '\0');
    const auto cardItem = [](float value) { return QByteArray("\1LC\0", 4) + floatBytes(value); };
    const QByteArray status = QByteArray(16, '\0');
    const auto systemItem = [](char count) {
        return QByteArray("\0Sconnections\0", 14) +
               DataFileBytes::littleEndian(static_cast<quint8>(count));
    };
    const Folder folders[] = {
        {"/mmc/system", "systemData.gdf", 255, status + '\x0a', systemItem(10)},
        {"/mmc/gauges", "g/calcData.gdf", 5, gauge(20), statusItem(1, 20)},
        {"/mmc/gaugecards", "c/rawData.gdf", 90, card + floatBytes(30), cardItem(30)},
        {"/root/data/system", "systemData.gdf", 255, status + '\x0b', systemItem(11)},
        {"/root/data/gauges", "g/calcData.gdf", 5, gauge(21), statusItem(1, 21)},
        {"/root/data/gaugecards", "c/rawData.gdf", 90, card + floatBytes(31), cardItem(31)},
    };
    for (const Folder& first : folders) {
        for (const Folder* second = &first + 1; second != std::end(folders); ++second) {
            emptyRoots();
            for (const Folder* folder : {&first, second}) {
                put(folder->path, kDay, folder->file,
                    RecordedSource().at(100).record(folder->type, folder->payload));
            }
            const QList<QByteArray> blocks = blocksOf(replay("g=1|c=2"));
            ASSERT_EQ(blocks.size(), 1);
            EXPECT_EQ(blocks[0].left(second->lastItem.size()), second->lastItem)
                << first.path << " and " << second->path;
        }
    }
}

TEST_F(ReplayTest, OfEqualTimesTheFilePreparedFirstGoesFirst) {
    putGauge("b", {100});
    putGauge("a", {100});
    putGauge("C", {100});
    EXPECT_EQ(blocksOf(replay("a=1|b=2|C=3")), QList<QByteArray>{padded(statusItem(2, 1), 96)})
        << "capitals are sorted before small letters, so b is the last";
}

TEST_F(ReplayTest, TheSmallestTimeGoesFirstWhateverTheOrderOfPreparation) {
    putGauge("a", {200});
    putGauge("b", {100});
    EXPECT_EQ(blocksOf(replay("a=1|b=2")), QList<QByteArray>{padded(statusItem(1, 1), 64)});
    putGauge("b", {100, 150, 199, 200});
    EXPECT_EQ(blocksOf(replay("a=1|b=2")), QList<QByteArray>{padded(statusItem(2, 4), 160)});
    putGauge("b", {0xFFFFFFFF});
    EXPECT_EQ(blocksOf(replay("a=1|b=2")), QList<QByteArray>{padded(statusItem(2, 1), 64)})
        << "times are unsigned";
}

TEST_F(ReplayTest, ATimeThatStepsBackHoldsNothingUp) {
    putGauge("a", {500, 100, 500});
    putGauge("b", {300});
    EXPECT_EQ(blocksOf(replay("a=1|b=2")), QList<QByteArray>{padded(statusItem(1, 3), 128)});
}

TEST_F(ReplayTest, KeptTimesCountFrom0AndNotFromTheHeader) {
    RecordedSource steps;
    DataFileBytes::setField(steps.bytes, 4, 1'714'521'600);
    steps.shortStep(-1).record(5, gauge(1));
    put("/root/data/gauges", kDay, "a/calcData.gdf", steps);
    putGauge("b", {254});
    EXPECT_EQ(blocksOf(replay("a=1|b=2")), QList<QByteArray>{padded(statusItem(1, 1), 64)})
        << "the short step is 255";
    putGauge("b", {256});
    EXPECT_EQ(blocksOf(replay("a=1|b=2")), QList<QByteArray>{padded(statusItem(2, 1), 64)});
}

TEST_F(ReplayTest, ALongStepIsSigned) {
    put("/root/data/gauges", kDay, "a/calcData.gdf",
        RecordedSource().at(1000).step(-500).record(5, gauge(1)));
    putGauge("b", {499});
    EXPECT_EQ(blocksOf(replay("a=1|b=2")), QList<QByteArray>{padded(statusItem(1, 1), 64)});
    putGauge("b", {501});
    EXPECT_EQ(blocksOf(replay("a=1|b=2")), QList<QByteArray>{padded(statusItem(2, 1), 64)});
}

}  // namespace

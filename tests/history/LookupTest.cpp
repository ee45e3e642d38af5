#include "tests/history/LookupFixture.h"
#include "tests/support/FailingSeek.h"
#include "tests/support/ForkStandIn.h"

#include <QDir>

#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <ctime>
#include <limits>

namespace {

using LookupTest = LookupFixture;

TEST_F(LookupTest, EachGaugeIsAnsweredInOrderAndThenTheEnd) {
    record(samples(kTen, 60, 3), kDate, "A");
    record(samples(kTen, 60, 2), kDate, "B");
    const ChildReport report = lookup("B\nA", "10:00:00", 5);
    ASSERT_EQ(report.sent.size(), 3);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(report.sent[i].token, "HistoricalData.gaugeData");
        EXPECT_EQ(report.sent[i].message.command(), 1);
        EXPECT_STREQ(report.sent[i].message.formatString(), "iiiB");
        EXPECT_EQ(report.sent[i].message.parameterAsInt32(0), i);
        EXPECT_EQ(report.sent[i].message.parameterAsInt32(1), 5);
        EXPECT_EQ(report.sent[i].message.parameterAsInt32(2), 77);
    }
    EXPECT_EQ(minutesOf(report.sent[0].message), (Minutes{-1, -2}));
    EXPECT_EQ(minutesOf(report.sent[1].message), (Minutes{-1, -2, -3}));
    EXPECT_EQ(report.status, 0);
}

TEST_F(LookupTest, TheEndReplyComesAfterAllGaugesAndTellsTheStart) {
    const ChildReport report = lookup("A\nB\nC", "10:00:00", -3);
    ASSERT_EQ(report.sent.size(), 4);
    const Message& end = report.sent[3].message;
    EXPECT_EQ(report.sent[3].token, "HistoricalData.gaugeData");
    EXPECT_EQ(end.command(), 0);
    EXPECT_STREQ(end.formatString(), "iii");
    EXPECT_EQ(end.parameterAsInt32(0), -3);
    EXPECT_EQ(end.parameterAsInt32(1), 77);
    EXPECT_EQ(end.parameterAsInt32(2), static_cast<int>(kTen));
}

TEST_F(LookupTest, AnAnswerByteForByte) {
    record(samples(kTen, 60, 2));
    const ChildReport report = lookup("G", "10:00:00", 0);
    ASSERT_EQ(report.sent.size(), 2);
    const Message& answer = report.sent[0].message;
    EXPECT_EQ(QByteArray(answer.buffer(), answer.length()).toHex(' '),
              QByteArray("01 00 00 00 "     // command 1
                         "69 69 69 42 00 "  // "iiiB"
                         "00 00 00 00 "     // gauge 0
                         "00 00 00 00 "     // selector 0
                         "4d 00 00 00 "     // tag 77
                         "08 00 00 00 "     // 8 bytes follow
                         "00 00 80 3f "     // 1.0
                         "00 00 00 40"));   // 2.0
}

TEST_F(LookupTest, NothingIsSentByTheParentWhichDoesNotWait) {
    record(samples(kTen, 60, 3));
    EXPECT_EQ(lookup("G").sent.size(), 2);
    EXPECT_TRUE(bus.takeSent().isEmpty());
    EXPECT_TRUE(children.lines().isEmpty());
    EXPECT_FALSE(manager.isWorkerThread());
}

TEST_F(LookupTest, TheChildLowersItsPriorityAndSaysThatItIsLaunched) {
    int nice = 0;
    long ioClass = 0;
    const ChildReport report = children.run([&] {
        manager.lookup("well", 0, 0, "no date", "10:00:00", "G");
        nice = getpriority(PRIO_PROCESS, 0);
        ioClass = syscall(SYS_ioprio_get, 1, 0) >> 13;
        DebugText::plain("nice %d, class %ld", nice, ioClass);
    });
    EXPECT_EQ(report.lines, (QList<QByteArray>{kLaunched, "nice 15, class 3"}));
}

TEST_F(LookupTest, EachSampleIsLoggedUnderTheNameThatItsReadersKnowKept) {
    record(samples(kTen, 60, 2), kDate, "A");
    record(samples(kTen + 7, 60, 1), kDate, "B");
    EXPECT_EQ(lookup("A\nB").lines,
              (QList<QByteArray>{kLaunched, "MODBUSManager: G1 TS 1714557600 value 1.000000",
                                 "MODBUSManager: G1 TS 1714557660 value 2.000000",
                                 "MODBUSManager: G2 TS 1714557607 value 1.000000"}));
}

TEST_F(LookupTest, AnInvalidDateOrTimeSendsNothingAndTheChildGoesOnKept) {
    record(samples(kTen, 60, 3));
    const std::pair<const char*, const char*> invalid[] = {
        {"2024-02-30", "10:00:00"},
        {"", "10:00:00"},
        {"2024-5-1", "10:00:00"},
        {"no date", "10:00:00"},
        {"2024-05-01 ", "10:00:00"},
        {"20240501", "10:00:00"},
        {kDate, "24:00:00"},
        {kDate, ""},
        {kDate, "10:00"},
        {kDate, "10:60:00"},
        {kDate, "1:00:00"},
        {kDate, "10:00:00.5"},
    };
    for (const auto& [date, time] : invalid) {
        const ChildReport report = lookup("G", time, 0, date);
        EXPECT_EQ(report.status, ForkObserver::kWentOn) << date << " " << time;
        EXPECT_TRUE(report.sent.isEmpty()) << date << " " << time;
        EXPECT_EQ(report.lines, QList<QByteArray>{kLaunched}) << date << " " << time;
    }
}

TEST_F(LookupTest, TheChildOfAnInvalidLookupIsNoReplayWorker) {
    const ChildReport report = children.run([&] {
        manager.lookup("well", 0, 0, "no date", "10:00:00", "G");
        DebugText::plain(manager.isWorkerThread() || manager.isAbandoned() ? "worker" : "none");
    });
    EXPECT_TRUE(report.lines.contains("none"));
}

TEST_F(LookupTest, AFailedForkSendsNothing) {
    record(samples(kTen, 60, 3));
    const ForkStandIn fork(ForkStandIn::Outcome::Fails);
    for (const char* date : {kDate, "no date"}) {
        const ChildReport report = lookup("G", "10:00:00", 0, date);
        EXPECT_EQ(report.status, ForkObserver::kNoChild);
        EXPECT_TRUE(report.sent.isEmpty());
    }
    EXPECT_EQ(fork.count(), 2);
    EXPECT_TRUE(bus.takeSent().isEmpty());
    EXPECT_EQ(children.lines(),
              (QList<QByteArray>(2, "scada-storage-process: no child, request dropped")));
}

TEST_F(LookupTest, AFailedForkLeavesRoomForTheNextLookups) {
    {
        const ForkStandIn fork(ForkStandIn::Outcome::Fails);
        for (int i = 0; i < 100; ++i) {
            lookup("G");
        }
    }
    EXPECT_EQ(lookup("G").sent.size(), 2);
}

TEST_F(LookupTest, AStartAt2345ReadsTheDayToItsEndAndThenTheNextDay) {
    const quint32 start = kMidnight + 85'500;
    record(samples(start, 60, 15), kDate);
    record(samples(start + 900, 60, 60), kNextDate);
    const Minutes answer = minutes("23:45:00");
    ASSERT_EQ(answer.size(), 30);
    for (int i = 0; i < 30; ++i) {
        EXPECT_EQ(answer[i], static_cast<float>(i % 15 + 1)) << i;
    }
}

TEST_F(LookupTest, TheNextDayIsTheCalendars) {
    for (const auto& [date, next, start] :
         {std::tuple{"2024-02-28", "2024-02-29", 1'709'164'740U},
          std::tuple{"2023-02-28", "2023-03-01", 1'677'628'740U},
          std::tuple{"2024-12-31", "2025-01-01", 1'735'689'540U}}) {
        record(samples(start + 60, 60, 2), next);
        record(samples(start, 60, 1), date);
        const ChildReport report = lookup("G", "23:59:00", 0, date);
        ASSERT_EQ(report.sent.size(), 2);
        EXPECT_EQ(minutesOf(report.sent[0].message), (Minutes{1, 1, 2})) << date;
    }
}

TEST_F(LookupTest, NoThirdDayIsRead) {
    record(samples(kMidnight, 60, 1), kDate);
    record(samples(kMidnight, 60, 1), kNextDate);
    record(samples(kTen, 60, 3), "2024-05-03");
    EXPECT_EQ(minutes(), Minutes{});
}

TEST_F(LookupTest, TheNextDayIsNotReadWhereTheFirstFills30Minutes) {
    record(samples(kTen, 60, 30), kDate);
    writeTestFile(path("/root/data", kNextDate, "G"), "short");
    const ChildReport report = lookup("G");
    EXPECT_EQ(minutesOf(report.sent[0].message).size(), 30);
    EXPECT_FALSE(report.lines.contains("Data file is smaller than a valid header size!"));
}

TEST_F(LookupTest, AMissingFirstDayIsTheEndEvenIfTheNextDayIsThere) {
    record(samples(kTen, 60, 3), kNextDate);
    EXPECT_EQ(minutes(), Minutes{});
}

TEST_F(LookupTest, AnEmptyLineInTheMiddleIsAGaugeOfItsOwnWithoutValues) {
    record(samples(kTen, 60, 1), kDate, "A");
    record(samples(kTen, 60, 2), kDate, "B");
    const ChildReport report = lookup("A\n\nB");
    ASSERT_EQ(report.sent.size(), 4);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(report.sent[i].message.parameterAsInt32(0), i);
    }
    EXPECT_EQ(minutesOf(report.sent[0].message), Minutes{1});
    EXPECT_EQ(minutesOf(report.sent[1].message), Minutes{});
    EXPECT_EQ(minutesOf(report.sent[2].message), (Minutes{1, 2}));
}

TEST_F(LookupTest, AnEmptyListIsOneEmptyGauge) {
    EXPECT_EQ(lookup("").sent.size(), 2);
    EXPECT_EQ(lookup("\n").sent.size(), 3);
}

TEST_F(LookupTest, AGaugeThatIsOnTheMemoryCardOnlyIsReadFromThere) {
    record(samples(kTen, 60, 4), kDate, "G", "/mmc");
    EXPECT_EQ(minutes(), (Minutes{1, 2, 3, 4}));
}

TEST_F(LookupTest, InternalStorageComesBeforeTheMemoryCard) {
    record(samples(kTen, 60, 4), kDate, "G", "/mmc");
    record(samples(kTen, 60, 2), kDate, "G", "/root/data");
    EXPECT_EQ(minutes(), (Minutes{1, 2}));
}

TEST_F(LookupTest, EachDayIsLookedForOnBothStorages) {
    const quint32 start = kMidnight + 86'340;
    record(samples(start, 60, 1), kDate, "G", "/mmc");
    record(samples(start + 60, 60, 2), kNextDate, "G", "/root/data");
    EXPECT_EQ(minutes("23:59:00"), (Minutes{1, 1, 2}));
}

TEST_F(LookupTest, AFileThatDoesNotOpenEndsTheDaysAndIsNotLookedForOnTheOtherStorage) {
    writeTestFile(path("/root/data", kDate, "G"), "short");
    record(samples(kTen, 60, 4), kDate, "G", "/mmc");
    record(samples(kTen, 60, 4), kNextDate, "G");
    const ChildReport report = lookup("G");
    ASSERT_EQ(report.sent.size(), 2);
    EXPECT_EQ(minutesOf(report.sent[0].message), Minutes{});
    EXPECT_TRUE(report.lines.contains("Data file is smaller than a valid header size!"));
}

TEST_F(LookupTest, ANextDayThatDoesNotOpenLeavesWhatTheFirstGave) {
    record(samples(kTen, 60, 4), kDate);
    writeTestFile(path("/root/data", kNextDate, "G"), QByteArray(80, '\0'));
    EXPECT_EQ(minutes(), (Minutes{1, 2, 3, 4}));
}

TEST_F(LookupTest, AFolderOrAPipeInTheFilesPlaceHoldsNothingUp) {
    ASSERT_TRUE(QDir().mkpath(path("/root/data", kDate, "G")));
    EXPECT_EQ(minutes(), Minutes{});
    emptyRoots();
    ASSERT_TRUE(QDir().mkpath("/root/data/well/gauges/2024-05-01/G"));
    ASSERT_EQ(mkfifo("/root/data/well/gauges/2024-05-01/G/calcData.gdf", 0600), 0);
    EXPECT_EQ(minutes(), Minutes{});
}

TEST_F(LookupTest, NamesArePutIntoThePathAsTheyStand) {
    record(samples(kTen, 60, 2), kDate, "%1%2%3");
    const ChildReport report = lookup("%1%2%3\nsome/../%1%2%3");
    EXPECT_EQ(minutesOf(report.sent[0].message), (Minutes{1, 2}));
    EXPECT_EQ(minutesOf(report.sent[1].message), Minutes{}) << "there is no folder \"some\"";
}

TEST_F(LookupTest, AGaugeBesideABadOneIsAnsweredAllTheSame) {
    writeTestFile(path("/root/data", kDate, "A"), QByteArray(5000, '\xff'));
    record(samples(kTen, 60, 2), kDate, "B");
    const ChildReport report = lookup("A\nB\nC");
    ASSERT_EQ(report.sent.size(), 4);
    EXPECT_EQ(minutesOf(report.sent[1].message), (Minutes{1, 2}));
}

TEST_F(LookupTest, AFileThatCannotBeSoughtIsLoggedAndTheNextDayIsStillTried) {
    record(samples(kTen, 60, 2), kDate);
    record(samples(kTen, 60, 2), kNextDate);
    const FailingSeek seek;
    const ChildReport report = lookup("G");
    EXPECT_EQ(report.lines.count("HistoricalDataManager: FAILED TO SEEK TO FIRST RECORD!"), 2);
    ASSERT_EQ(report.sent.size(), 2);
    EXPECT_EQ(minutesOf(report.sent[0].message), Minutes{});
}

TEST_F(LookupTest, StartsAtTheEdgesOfTheTimesAreAnswered) {
    const std::pair<const char*, quint32> edges[] = {
        {"1970-01-01", 0},
        {"2038-01-19", 2'147'472'000},
        {"2106-02-07", 4'294'944'000},
        {"1969-12-31", static_cast<quint32>(-86'400)},
        {"9999-12-31", static_cast<quint32>(253'402'214'400)},
    };
    for (const auto& [date, midnight] : edges) {
        record(samples(midnight, 60, 2), date);
        const ChildReport report = lookup("G", "00:00:00", 0, date);
        ASSERT_EQ(report.sent.size(), 2) << date;
        EXPECT_EQ(minutesOf(report.sent[0].message), (Minutes{1, 2})) << date;
        EXPECT_EQ(report.sent[1].message.parameterAsInt32(2), static_cast<int>(midnight));
    }
}

TEST_F(LookupTest, DateAndTimeAreUtcWhereverTheUnitIs) {
    setenv("TZ", "Asia/Tokyo", 1);
    tzset();
    record(samples(kTen, 60, 1));
    EXPECT_EQ(minutes(), Minutes{1});
    unsetenv("TZ");
    tzset();
}

TEST_F(LookupTest, TheBufferGoesBackToTheCache) {
    record(samples(kMidnight, 60, 1), kDate);
    record(samples(kMidnight, 60, 1), kNextDate);
    void* const buffer = cache.acquireBuffer(65536);
    cache.releaseBuffer(buffer);
    const ForkStandIn played(ForkStandIn::Outcome::IsPlayed);
    EXPECT_THROW(manager.lookup("well", 0, 0, kDate, "10:00:00", "G\nG"), ForkStandIn::EndOfChild);
    EXPECT_EQ(cache.acquireBuffer(65536), buffer);
    EXPECT_EQ(bus.takeSent().size(), 3);
}

TEST_F(LookupTest, OneLookupKnowsNothingOfAnother) {
    record(samples(kTen, 60, 3));
    EXPECT_EQ(minutes().size(), 3);
    const ChildReport other = lookup("none", "11:00:00", 4);
    EXPECT_EQ(minutesOf(other.sent[0].message), Minutes{});
    EXPECT_EQ(minutes(), (Minutes{1, 2, 3}));
}

}  // namespace

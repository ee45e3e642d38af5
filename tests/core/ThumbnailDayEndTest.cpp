#include "core/ThumbnailSchedule.h"

#include "tests/core/ThumbnailScheduleFixture.h"

#include <sys/stat.h>

namespace {

class ThumbnailDayEndTest : public ThumbnailScheduleFixture {};

TEST_F(ThumbnailDayEndTest, AFinishedDayIsLoggedWithTheNewCount) {
    g_thumbnailDaysOutstanding = 3;
    finish("2024-05-01");
    EXPECT_EQ(g_thumbnailDaysOutstanding, 2);
    EXPECT_EQ(log.lines(),
              QList<QByteArray>{"scada-storage-process: ThumbnailManager dayFinished 2024-05-01 "
                                "(outstanding 2)"});
}

TEST_F(ThumbnailDayEndTest, TwoDeliveriesWithNothingOutstandingLeaveTheCountAt0) {
    finish("2024-05-01");
    finish("2024-05-01");
    EXPECT_EQ(g_thumbnailDaysOutstanding, 0);
    EXPECT_EQ(log.count("scada-storage-process: ThumbnailManager dayFinished 2024-05-01 "
                        "(outstanding 0)"),
              2);
}

TEST_F(ThumbnailDayEndTest, ADayThatWasNeverStartedStillLowersTheCountAndIsRecorded) {
    g_thumbnailDays = {{"2024-05-01", "a", true}};
    ThumbnailSchedule::runStep();
    finish("1999-01-01");
    EXPECT_EQ(g_thumbnailDaysOutstanding, 0);
    EXPECT_EQ(readTestFile(kFinished), "1999-01-01\n");
}

TEST_F(ThumbnailDayEndTest, DaysOfTheTodoFileAreRecordedOneALine) {
    g_thumbnailDays = {{"2024-05-01", "a", true}, {"2024-05-02", "a", true}};
    ThumbnailSchedule::runStep();
    finish("2024-05-01");
    ThumbnailSchedule::runStep();
    finish("2024-05-02");
    EXPECT_EQ(readTestFile(kFinished), "2024-05-01\n2024-05-02\n");
}

TEST_F(ThumbnailDayEndTest, DaysOfACommandAreNotRecorded) {
    ThumbnailSchedule::request("a", "2024-05-01");
    ThumbnailSchedule::runStep();
    finish("2024-05-01");
    EXPECT_EQ(readTestFile(kFinished), kMissing);
}

TEST_F(ThumbnailDayEndTest, ARecordedDateIsFoundAgainAfterARestart) {
    const QByteArray todo = "a,\xc3\xb8\n";
    writeTestFile(kTodo, todo);
    ThumbnailSchedule::load();
    ThumbnailSchedule::runStep();
    finish("\xf8");
    EXPECT_EQ(readTestFile(kFinished), "\xc3\xb8\n");
    ThumbnailSchedule::forget();
    ThumbnailSchedule::load();
    EXPECT_TRUE(g_thumbnailDays.isEmpty());
    EXPECT_EQ(readTestFile(kTodo), kMissing);
}

TEST_F(ThumbnailDayEndTest, A40BytePayloadIsLoggedAndRecordedAsItsFirst31Bytes) {
    g_thumbnailDayFromFile = true;
    receive("ThumbnailManager.dayFinished", "0123456789abcdefghijklmnopqrstuvwxyzABCD");
    EXPECT_EQ(log.lines(), QList<QByteArray>{"scada-storage-process: ThumbnailManager dayFinished "
                                             "0123456789abcdefghijklmnopqrstu (outstanding 0)"});
    EXPECT_EQ(readTestFile(kFinished), "0123456789abcdefghijklmnopqrstu\n");
}

TEST_F(ThumbnailDayEndTest, ADateOf31BytesIsWholeAndOneOf32IsCut) {
    g_thumbnailDayFromFile = true;
    finish(QByteArray(31, 'x'));
    finish(QByteArray(32, 'y'));
    EXPECT_EQ(readTestFile(kFinished), QByteArray(31, 'x') + "\n" + QByteArray(31, 'y') + "\n");
}

TEST_F(ThumbnailDayEndTest, KEPTTheLastByteOfAPayloadWithoutANulIsLost) {
    g_thumbnailDayFromFile = true;
    receive("ThumbnailManager.dayFinished", "2024-05-01");
    EXPECT_EQ(readTestFile(kFinished), "2024-05-0\n");
}

TEST_F(ThumbnailDayEndTest, TheDateEndsAtTheFirstNul) {
    g_thumbnailDayFromFile = true;
    receive("ThumbnailManager.dayFinished", QByteArray("2024\0-05-01\0", 12));
    EXPECT_EQ(readTestFile(kFinished), "2024\n");
}

TEST_F(ThumbnailDayEndTest, AnEmptyPayloadIsAnEmptyDate) {
    g_thumbnailDaysOutstanding = 2;
    g_thumbnailDayFromFile = true;
    receive("ThumbnailManager.dayFinished", {});
    EXPECT_EQ(log.lines(), QList<QByteArray>{"scada-storage-process: ThumbnailManager dayFinished "
                                             " (outstanding 1)"});
    EXPECT_EQ(readTestFile(kFinished), "\n");
    ThumbnailSchedule::handleDayFinished(nullptr, 0);
    EXPECT_EQ(g_thumbnailDaysOutstanding, 0);
}

TEST_F(ThumbnailDayEndTest, AFinishedFileThatCannotBeOpenedIsSilent) {
    ASSERT_EQ(mkdir(kFinished, 0755), 0);
    g_thumbnailDayFromFile = true;
    finish("2024-05-01");
    EXPECT_EQ(log.lines().size(), 1) << "more than the day's own line";
}

TEST_F(ThumbnailDayEndTest, ADayWhoseChildRunsIsWaitedForWithoutEnd) {
    ThumbnailSchedule::request("a", "2024-05-01");
    for (int hour = 0; hour < 24; ++hour) {
        ThumbnailSchedule::runStep();
        clock.advance(3600);
    }
    EXPECT_EQ(g_thumbnailDaysOutstanding, 1);
}

TEST_F(ThumbnailDayEndTest, AChildThatEndedUnheardLowersTheCount10SecondsAfterItsEnd) {
    childrenExit(0);
    g_thumbnailDays = {{"2024-05-01", "a", true}};
    ThumbnailSchedule::runStep();
    ReapedChildren::reap();
    clock.tick += 60'000;
    ThumbnailSchedule::runStep();
    clock.tick += 9'999;
    ThumbnailSchedule::runStep();
    EXPECT_EQ(g_thumbnailDaysOutstanding, 1);
    clock.tick += 1;
    EXPECT_EQ(tokensOfStep(), QList<QByteArray>{"Notification.delete"});
    EXPECT_EQ(g_thumbnailDaysOutstanding, 0);
    EXPECT_EQ(readTestFile(kFinished), kMissing) << "a lost day was recorded";
    EXPECT_TRUE(
        log.contains("scada-storage-process: thumbnail day 2024-05-01: its child ended "
                     "(status 0x0000) unheard"));
}

TEST_F(ThumbnailDayEndTest, TheWallClockHasNoPartInThat) {
    childrenExit(0);
    ThumbnailSchedule::request("a", "2024-05-01");
    ThumbnailSchedule::runStep();
    ReapedChildren::reap();
    ThumbnailSchedule::runStep();
    clock.wall += 100'000;
    ThumbnailSchedule::runStep();
    EXPECT_EQ(g_thumbnailDaysOutstanding, 1);
}

TEST_F(ThumbnailDayEndTest, AChildThatEndedWith0UnheardIsNotBuiltAgain) {
    childrenExit(0);
    ThumbnailSchedule::request("a", "2024-05-01");
    ThumbnailSchedule::request("a", "2024-05-02");
    ThumbnailSchedule::runStep();
    loseChild();
    EXPECT_EQ(FakeThumbnails::started, (QList<Started>{{"a", "2024-05-01"}, {"a", "2024-05-02"}}));
    EXPECT_TRUE(g_thumbnailDays.isEmpty());
}

TEST_F(ThumbnailDayEndTest, ADayWhoseChildWasKilledIsBuiltAgainAfterTheOthers) {
    childrenAreKilled();
    g_thumbnailDays = {{"2024-05-01", "a", true}, {"2024-05-02", "b", false}};
    ThumbnailSchedule::runStep();
    FakeThumbnails::child = [] { return FakeThumbnails::kNobody; };
    loseChild();
    EXPECT_EQ(FakeThumbnails::started.last(), (Started{"b", "2024-05-02"}));
    ASSERT_EQ(waiting(), (QList<Started>{{"a", "2024-05-01"}}));
    EXPECT_TRUE(g_thumbnailDays[0].fromFile);
    EXPECT_EQ(g_thumbnailDaysOutstanding, 1);
    EXPECT_TRUE(
        log.contains("scada-storage-process: thumbnail day 2024-05-01: its child ended "
                     "(status 0x0009) unheard"));
    finish("2024-05-02");
    ThumbnailSchedule::runStep();
    finish("2024-05-01");
    EXPECT_EQ(readTestFile(kFinished), "2024-05-01\n");
    EXPECT_EQ(tokensOfStep(), QList<QByteArray>{"Notification.delete"});
}

TEST_F(ThumbnailDayEndTest, ADayWhoseChildEndedWithAnotherStatusIsBuiltAgain) {
    childrenExit(3);
    ThumbnailSchedule::request("a", "2024-05-01");
    ThumbnailSchedule::runStep();
    loseChild();
    EXPECT_EQ(FakeThumbnails::started.size(), 2);
    EXPECT_TRUE(
        log.contains("scada-storage-process: thumbnail day 2024-05-01: its child ended "
                     "(status 0x0300) unheard"));
}

TEST_F(ThumbnailDayEndTest, TheNotificationStaysOpenWhileALostDayIsBuiltAgain) {
    childrenAreKilled();
    ThumbnailSchedule::request("a", "2024-05-01");
    ThumbnailSchedule::runStep();
    ReapedChildren::reap();
    EXPECT_TRUE(tokensOfStep().isEmpty());
    clock.tick += 10'000;
    EXPECT_EQ(tokensOfStep(), QList<QByteArray>{"Notification.update"});
}

TEST_F(ThumbnailDayEndTest, ADayIsGivenUpWhenItsFifthChildWasKilled) {
    childrenAreKilled();
    ThumbnailSchedule::request("a", "2024-05-01");
    ThumbnailSchedule::runStep();
    for (int i = 0; i < 10; ++i) {
        loseChild();
    }
    EXPECT_EQ(FakeThumbnails::started.size(), 5);
    EXPECT_EQ(log.count("scada-storage-process: thumbnail day 2024-05-01: given up after 5 "
                        "attempts"),
              1);
    EXPECT_TRUE(g_thumbnailDays.isEmpty());
    EXPECT_EQ(g_thumbnailDaysOutstanding, 0);
    EXPECT_EQ(g_thumbnailNotificationID, 0);
}

TEST_F(ThumbnailDayEndTest, AGivenUpDayMayBeAskedForAgain) {
    childrenAreKilled();
    ThumbnailSchedule::request("a", "2024-05-01");
    ThumbnailSchedule::runStep();
    for (int i = 0; i < 5; ++i) {
        loseChild();
    }
    ThumbnailSchedule::request("a", "2024-05-01");
    ThumbnailSchedule::runStep();
    loseChild();
    EXPECT_EQ(FakeThumbnails::started.size(), 7);
}

TEST_F(ThumbnailDayEndTest, ADayThatSucceededStartsItsAttemptsAfresh) {
    ThumbnailSchedule::request("a", "2024-05-01");
    for (int round = 0; round < 3; ++round) {
        childrenAreKilled();
        ThumbnailSchedule::runStep();
        for (int i = 0; i < 3; ++i) {
            loseChild();
        }
        FakeThumbnails::child = [] { return FakeThumbnails::kNobody; };
        loseChild();
        ThumbnailSchedule::request("a", "2024-05-01");
        finish("2024-05-01");
    }
    EXPECT_EQ(FakeThumbnails::started.size(), 15);
}

TEST_F(ThumbnailDayEndTest, TheAttemptsOfDifferentJobsDoNotAddUp) {
    childrenAreKilled();
    ThumbnailSchedule::request("a", "2024-05-01");
    ThumbnailSchedule::request("b", "2024-05-01");
    ThumbnailSchedule::runStep();
    for (int i = 0; i < 12; ++i) {
        loseChild();
    }
    EXPECT_EQ(FakeThumbnails::started.size(), 10);
    EXPECT_EQ(FakeThumbnails::started.count({"a", "2024-05-01"}), 5);
    EXPECT_EQ(FakeThumbnails::started.count({"b", "2024-05-01"}), 5);
}

TEST_F(ThumbnailDayEndTest, AWordThatComesBetweenTheEndAndTheTimeLimitCounts) {
    childrenAreKilled();
    g_thumbnailDays = {{"2024-05-01", "a", true}};
    ThumbnailSchedule::runStep();
    ReapedChildren::reap();
    ThumbnailSchedule::runStep();
    clock.tick += 9'999;
    finish("2024-05-01");
    clock.tick += 10'000;
    ThumbnailSchedule::runStep();
    EXPECT_EQ(FakeThumbnails::started.size(), 1);
    EXPECT_EQ(readTestFile(kFinished), "2024-05-01\n");
}

TEST_F(ThumbnailDayEndTest, ALateWordLowersTheCountOfTheNextDayAsAnyDeliveryDoes) {
    childrenExit(0);
    ThumbnailSchedule::request("a", "2024-05-01");
    ThumbnailSchedule::request("a", "2024-05-02");
    ThumbnailSchedule::request("a", "2024-05-03");
    ThumbnailSchedule::runStep();
    FakeThumbnails::child = [] { return FakeThumbnails::kNobody; };
    loseChild();
    EXPECT_EQ(g_thumbnailDaysOutstanding, 1);
    finish("2024-05-01");
    EXPECT_EQ(g_thumbnailDaysOutstanding, 0);
    ThumbnailSchedule::runStep();
    EXPECT_EQ(FakeThumbnails::started.last(), (Started{"a", "2024-05-03"}));
    EXPECT_EQ(g_thumbnailDaysOutstanding, 1);
}

TEST_F(ThumbnailDayEndTest, AChildThatAStrangersWordHasCountedIsNotCountedAgainWhenItIsLost) {
    childrenAreKilled();
    ThumbnailSchedule::request("a", "2024-05-01");
    ThumbnailSchedule::request("a", "2024-05-02");
    ThumbnailSchedule::runStep();
    finish("1999-01-01");
    FakeThumbnails::child = [] { return FakeThumbnails::kNobody; };
    ThumbnailSchedule::runStep();
    EXPECT_EQ(FakeThumbnails::started.size(), 2);
    loseChild();
    EXPECT_EQ(g_thumbnailDaysOutstanding, 1) << "the second day's child still runs";
    EXPECT_EQ(waiting(), (QList<Started>{{"a", "2024-05-01"}}));
}

TEST_F(ThumbnailDayEndTest, ADateLongerThanItsReportIsRecognisedInIt) {
    childrenAreKilled();
    const QByteArray date(40, 'x');
    ThumbnailSchedule::request("a", QString(date));
    ThumbnailSchedule::runStep();
    finish(date);
    loseChild();
    EXPECT_EQ(FakeThumbnails::started.size(), 1);
}

TEST_F(ThumbnailDayEndTest, AnEarlierChildWithTheSamePidIsNotTakenForIt) {
    childrenExit(0);
    const pid_t earlier = FakeThumbnails::child();
    ReapedChildren::reap();
    FakeThumbnails::child = [earlier] { return earlier; };
    ThumbnailSchedule::request("a", "2024-05-01");
    ThumbnailSchedule::runStep();
    loseChild();
    EXPECT_EQ(g_thumbnailDaysOutstanding, 1);
}

TEST_F(ThumbnailDayEndTest, AFailedForkLeavesTheDayInFrontAndTriesAgainASecondLater) {
    FakeThumbnails::child = [] { return -1; };
    ThumbnailSchedule::request("a", "2024-05-01");
    ThumbnailSchedule::request("a", "2024-05-02");
    g_thumbnailDayFromFile = true;
    EXPECT_EQ(tokensOfStep(), QList<QByteArray>{"Notification.add"});
    EXPECT_EQ(waiting(), (QList<Started>{{"a", "2024-05-01"}, {"a", "2024-05-02"}}));
    EXPECT_EQ(g_thumbnailDaysOutstanding, 0);
    EXPECT_TRUE(g_thumbnailDayFromFile) << "no day was started";
    EXPECT_EQ(log.lines(), QList<QByteArray>{"scada-storage-process: no child for thumbnail day "
                                             "2024-05-01 yet"});
    FakeThumbnails::child = [] { return FakeThumbnails::kNobody; };
    clock.tick += 999;
    EXPECT_TRUE(tokensOfStep().isEmpty());
    EXPECT_EQ(FakeThumbnails::started.size(), 1);
    clock.tick += 1;
    EXPECT_EQ(tokensOfStep(), QList<QByteArray>{"Notification.update"});
    EXPECT_EQ(FakeThumbnails::started, (QList<Started>{{"a", "2024-05-01"}, {"a", "2024-05-01"}}));
    EXPECT_EQ(g_thumbnailDaysOutstanding, 1);
    EXPECT_FALSE(g_thumbnailDayFromFile);
}

TEST_F(ThumbnailDayEndTest, FailedForksAreTriedAgainWithoutEnd) {
    FakeThumbnails::child = [] { return -1; };
    ThumbnailSchedule::request("a", "2024-05-01");
    for (int i = 0; i < 20; ++i) {
        ThumbnailSchedule::runStep();
        clock.tick += 1'000;
    }
    EXPECT_EQ(FakeThumbnails::started.size(), 20);
    EXPECT_EQ(g_thumbnailDays.size(), 1);
}

TEST_F(ThumbnailDayEndTest, AFailedForkLongAgoDoesNotHoldTheNextDayUp) {
    FakeThumbnails::child = [] { return -1; };
    ThumbnailSchedule::request("a", "2024-05-01");
    ThumbnailSchedule::runStep();
    FakeThumbnails::child = [] { return FakeThumbnails::kNobody; };
    clock.tick += 1'000;
    ThumbnailSchedule::runStep();
    finish("2024-05-01");
    // 25 days, from where on a time span of the monotonic clock reads as negative.
    clock.tick += 0x8100'0000U;
    ThumbnailSchedule::request("a", "2024-05-02");
    ThumbnailSchedule::runStep();
    EXPECT_EQ(FakeThumbnails::started.last(), (Started{"a", "2024-05-02"}));
}

TEST_F(ThumbnailDayEndTest, ForgettingDropsEverythingWithoutAMessage) {
    childrenAreKilled();
    g_thumbnailDays = {{"2024-05-01", "a", true}, {"2024-05-02", "a", true}};
    ThumbnailSchedule::runStep();
    bus.takeSent();
    ThumbnailSchedule::forget();
    EXPECT_TRUE(g_thumbnailDays.isEmpty());
    EXPECT_EQ(g_thumbnailDaysOutstanding, 0);
    EXPECT_FALSE(g_thumbnailDayFromFile);
    EXPECT_EQ(g_thumbnailNotificationID, 0);
    loseChild();
    EXPECT_TRUE(bus.takeSent().isEmpty());
    EXPECT_TRUE(g_thumbnailDays.isEmpty());
}

}  // namespace

#include "core/ThumbnailSchedule.h"

#include "core/shared/Notification.h"
#include "tests/core/ThumbnailScheduleFixture.h"

#include <sys/stat.h>

#include <new>

namespace {

class ThumbnailScheduleTest : public ThumbnailScheduleFixture {};

TEST_F(ThumbnailScheduleTest, ALineOfTwoPartsIsAJobAndADate) {
    writeTestFile(kTodo, "well7,2024-05-01\nwell8,2024-05-02\n");
    ThumbnailSchedule::load();
    EXPECT_EQ(waiting(), (QList<Started>{{"well7", "2024-05-01"}, {"well8", "2024-05-02"}}));
    EXPECT_TRUE(g_thumbnailDays[0].fromFile);
    EXPECT_TRUE(g_thumbnailDays[1].fromFile);
    EXPECT_TRUE(log.lines().isEmpty());
}

TEST_F(ThumbnailScheduleTest, ATodoLineWithThreePartsIsIgnored) {
    writeTestFile(kTodo, "a,b,c\nwell7,2024-05-01,\n,,\nwell7,2024-05-02\n");
    ThumbnailSchedule::load();
    EXPECT_EQ(waiting(), (QList<Started>{{"well7", "2024-05-02"}}));
    EXPECT_TRUE(log.lines().isEmpty());
}

TEST_F(ThumbnailScheduleTest, ATodoLineWithNoCommaIsIgnored) {
    writeTestFile(kTodo, "2024-05-01\n\n   \nwell7;2024-05-01\n");
    ThumbnailSchedule::load();
    EXPECT_TRUE(g_thumbnailDays.isEmpty());
    EXPECT_TRUE(log.lines().isEmpty());
}

TEST_F(ThumbnailScheduleTest, WhiteSpaceAroundALineIsTrimmedAndWithinItIsKept) {
    writeTestFile(kTodo, " \twell 7 , 2024-05-01 \r\nwell8,2024-05-02");
    ThumbnailSchedule::load();
    EXPECT_EQ(waiting(), (QList<Started>{{"well 7 ", " 2024-05-01"}, {"well8", "2024-05-02"}}));
}

TEST_F(ThumbnailScheduleTest, EmptyPartsCount) {
    writeTestFile(kTodo, ",\n,2024-05-01\nwell7,\n");
    ThumbnailSchedule::load();
    EXPECT_EQ(waiting(), (QList<Started>{{"", ""}, {"", "2024-05-01"}, {"well7", ""}}));
}

TEST_F(ThumbnailScheduleTest, TodoTextIsUtf8) {
    writeTestFile(kTodo, "br\xc3\xb8nn,2024-05-01\n");
    ThumbnailSchedule::load();
    EXPECT_EQ(waiting(), (QList<Started>{{u"br\u00f8nn"_qs, "2024-05-01"}}));
}

TEST_F(ThumbnailScheduleTest, BytesThatAreNoTextDoNotHarm) {
    QByteArray bytes;
    for (int byte = 0; byte < 256; ++byte) {
        bytes += static_cast<char>(byte);
    }
    writeTestFile(kTodo, bytes + "\na,b\n");
    writeTestFile(kFinished, bytes);
    ThumbnailSchedule::load();
    EXPECT_EQ(waiting().last(), (Started{"a", "b"}));
}

TEST_F(ThumbnailScheduleTest, WithoutATodoFileNothingIsLoadedAndTheFinishedDaysStay) {
    writeTestFile(kFinished, "2024-05-01\n");
    ThumbnailSchedule::load();
    EXPECT_TRUE(g_thumbnailDays.isEmpty());
    EXPECT_EQ(readTestFile(kFinished), "2024-05-01\n");
    EXPECT_TRUE(log.lines().isEmpty());
}

TEST_F(ThumbnailScheduleTest, ATodoFileWithoutADayIsNoBatchAndStays) {
    writeTestFile(kTodo, "nothing\n");
    writeTestFile(kFinished, "2024-05-01\n");
    ThumbnailSchedule::load();
    EXPECT_EQ(readTestFile(kTodo), "nothing\n");
    EXPECT_EQ(readTestFile(kFinished), "2024-05-01\n");
}

TEST_F(ThumbnailScheduleTest, AnUnreadableTodoFileIsSkippedSilently) {
    ASSERT_EQ(mkdir(kTodo, 0755), 0);
    ASSERT_EQ(mkfifo(kFinished, 0644), 0);
    ThumbnailSchedule::load();
    EXPECT_TRUE(g_thumbnailDays.isEmpty());
    EXPECT_TRUE(log.lines().isEmpty());
}

TEST_F(ThumbnailScheduleTest, AnUnreadableFinishedFileLeavesEveryDay) {
    writeTestFile(kTodo, "a,2024-05-01\n");
    ASSERT_EQ(mkfifo(kFinished, 0644), 0);
    ThumbnailSchedule::load();
    EXPECT_EQ(g_thumbnailDays.size(), 1);
    EXPECT_TRUE(log.lines().isEmpty());
}

TEST_F(ThumbnailScheduleTest, FinishedDaysAreLeftOutAndBothFilesStay) {
    writeTestFile(kTodo, "a,2024-05-01\na,2024-05-02\na,2024-05-03\n");
    writeTestFile(kFinished, "2024-05-02\n\n 2024-05-03 \n2024-06-01\n");
    ThumbnailSchedule::load();
    EXPECT_EQ(waiting(), (QList<Started>{{"a", "2024-05-01"}}));
    EXPECT_NE(readTestFile(kTodo), kMissing);
    EXPECT_NE(readTestFile(kFinished), kMissing);
}

TEST_F(ThumbnailScheduleTest, AFinishedFileThatListsEveryDateDeletesBothFilesAndStartsNoWork) {
    writeTestFile(kTodo, "a,2024-05-01\na,2024-05-02\n");
    writeTestFile(kFinished, "2024-05-02\n2024-05-01\n");
    ThumbnailSchedule::load();
    EXPECT_EQ(readTestFile(kTodo), kMissing);
    EXPECT_EQ(readTestFile(kFinished), kMissing);
    EXPECT_TRUE(tokensOfStep().isEmpty());
    EXPECT_TRUE(FakeThumbnails::started.isEmpty());
}

TEST_F(ThumbnailScheduleTest, ADateListedTwiceAndFinishedOnceIsBuiltOnce) {
    writeTestFile(kTodo, "first,2024-05-01\nsecond,2024-05-01\n");
    writeTestFile(kFinished, "2024-05-01\n");
    ThumbnailSchedule::load();
    EXPECT_EQ(waiting(), (QList<Started>{{"second", "2024-05-01"}}));
}

TEST_F(ThumbnailScheduleTest, AnEmptyFinishedLineStandsForNoDay) {
    writeTestFile(kTodo, "a,\n");
    writeTestFile(kFinished, "\n\n");
    ThumbnailSchedule::load();
    EXPECT_EQ(waiting(), (QList<Started>{{"a", ""}}));
}

TEST_F(ThumbnailScheduleTest, AFileThatIsTooLongIsIgnoredSoThatTheDaemonStarts) {
    makeSparseFile(kTodo, ThumbnailSchedule::kMaximumFileBytes + 1);
    ThumbnailSchedule::load();
    EXPECT_TRUE(g_thumbnailDays.isEmpty());
    EXPECT_EQ(log.lines(), QList<QByteArray>{"scada-storage-process: /root/data/thumbnailTodo.txt "
                                             "is too long, ignored"});
}

TEST_F(ThumbnailScheduleTest, TheLongestFilesAreMatchedAtOnce) {
    QByteArray todo;
    QByteArray finished;
    for (int line = 0; todo.size() < ThumbnailSchedule::kMaximumFileBytes - 16; ++line) {
        todo += "a," + QByteArray::number(line) + "\n";
        finished += QByteArray::number(line) + "\n";
    }
    writeTestFile(kTodo, todo);
    writeTestFile(kFinished, finished);
    ThumbnailSchedule::load();
    EXPECT_TRUE(g_thumbnailDays.isEmpty());
    EXPECT_EQ(readTestFile(kTodo), kMissing);
}

TEST_F(ThumbnailScheduleTest, WithNothingToDoAStepDoesNothing) {
    EXPECT_TRUE(tokensOfStep().isEmpty());
    EXPECT_TRUE(FakeThumbnails::started.isEmpty());
    EXPECT_TRUE(log.lines().isEmpty());
}

TEST_F(ThumbnailScheduleTest, TheOldestDayIsStartedWithItsJob) {
    ThumbnailSchedule::request("a", "2024-05-02");
    ThumbnailSchedule::request("b", "2024-05-01");
    ThumbnailSchedule::runStep();
    EXPECT_EQ(FakeThumbnails::started, (QList<Started>{{"a", "2024-05-02"}}));
    EXPECT_EQ(waiting(), (QList<Started>{{"b", "2024-05-01"}}));
    EXPECT_EQ(g_thumbnailDaysOutstanding, 1);
    EXPECT_FALSE(g_thumbnailDayFromFile);
}

TEST_F(ThumbnailScheduleTest, AtMostOneDayIsInProgress) {
    ThumbnailSchedule::request("a", "2024-05-01");
    ThumbnailSchedule::request("a", "2024-05-02");
    for (int pass = 0; pass < 5; ++pass) {
        ThumbnailSchedule::runStep();
        clock.advance(60);
    }
    EXPECT_EQ(FakeThumbnails::started.size(), 1);
    finish("2024-05-01");
    ThumbnailSchedule::runStep();
    EXPECT_EQ(FakeThumbnails::started, (QList<Started>{{"a", "2024-05-01"}, {"a", "2024-05-02"}}));
}

TEST_F(ThumbnailScheduleTest, TheFlagIsThatOfTheDayStartedLast) {
    g_thumbnailDays = {{"2024-05-01", "a", true}, {"2024-05-02", "a", false}};
    ThumbnailSchedule::runStep();
    EXPECT_TRUE(g_thumbnailDayFromFile);
    finish("2024-05-01");
    EXPECT_TRUE(g_thumbnailDayFromFile);
    ThumbnailSchedule::runStep();
    EXPECT_FALSE(g_thumbnailDayFromFile);
}

TEST_F(ThumbnailScheduleTest, TheFirstDayOpensANotification) {
    const int id = g_nextNotificationID;
    ThumbnailSchedule::request("a", "2024-05-01");
    ThumbnailSchedule::runStep();
    const QList<FakeBus::Sent> sent = bus.takeSent();
    ASSERT_EQ(sent.size(), 1);
    EXPECT_EQ(sent[0].token, "Notification.add");
    const Message& message = sent[0].message;
    EXPECT_EQ(message.command(), 0);
    EXPECT_STREQ(message.formatString(), "iiiSSiiiii");
    EXPECT_EQ(message.parameterAsInt32(0), getpid());
    EXPECT_EQ(message.parameterAsInt32(1), id);
    EXPECT_EQ(message.parameterAsInt32(2), 1'700'000'000);
    EXPECT_STREQ(message.parameterAsString(3), "Updating thumbnails");
    EXPECT_STREQ(message.parameterAsString(4), "Updating thumbnails for date 2024-05-01");
    EXPECT_EQ(message.parameterAsInt32(5), 0);
    EXPECT_EQ(message.parameterAsInt32(6), 0);
    EXPECT_EQ(message.parameterAsInt32(7), 0);
    EXPECT_EQ(message.parameterAsInt32(8), 3600);
    EXPECT_EQ(message.parameterAsInt32(9), 0);
    EXPECT_EQ(g_thumbnailNotificationID, id);
    EXPECT_EQ(g_nextNotificationID, id + 1);
}

TEST_F(ThumbnailScheduleTest, EachFurtherDayUpdatesTheSameNotification) {
    ThumbnailSchedule::request("a", "2024-05-01");
    ThumbnailSchedule::request("a", "2024-05-02");
    ThumbnailSchedule::runStep();
    const QList<FakeBus::Sent> added = bus.takeSent();
    finish("2024-05-01");
    clock.advance(7);
    ThumbnailSchedule::runStep();
    const QList<FakeBus::Sent> updated = bus.takeSent();
    ASSERT_EQ(added.size(), 1);
    ASSERT_EQ(updated.size(), 1);
    EXPECT_EQ(updated[0].token, "Notification.update");
    EXPECT_STREQ(updated[0].message.formatString(), "iiiSSiiiii");
    EXPECT_EQ(updated[0].message.parameterAsInt32(0), getpid());
    EXPECT_EQ(updated[0].message.parameterAsInt32(1), added[0].message.parameterAsInt32(1));
    EXPECT_EQ(updated[0].message.parameterAsInt32(2), 1'700'000'007);
    EXPECT_STREQ(updated[0].message.parameterAsString(4),
                 "Updating thumbnails for date 2024-05-02");
    EXPECT_EQ(updated[0].message.parameterAsInt32(8), 3600);
}

TEST_F(ThumbnailScheduleTest, TheNotificationsTextIsLatin1) {
    ThumbnailSchedule::request("a", u"\u00f8\u4e00"_qs);
    ThumbnailSchedule::runStep();
    EXPECT_STREQ(bus.takeSent().at(0).message.parameterAsString(4),
                 "Updating thumbnails for date \xf8?");
}

TEST_F(ThumbnailScheduleTest, ThePassAfterTheLastDayDeletesTheNotification) {
    ThumbnailSchedule::request("a", "2024-05-01");
    ThumbnailSchedule::runStep();
    const int id = g_thumbnailNotificationID;
    bus.takeSent();
    finish("2024-05-01");
    EXPECT_TRUE(bus.takeSent().isEmpty());
    ThumbnailSchedule::runStep();
    const QList<FakeBus::Sent> sent = bus.takeSent();
    ASSERT_EQ(sent.size(), 1);
    EXPECT_EQ(sent[0].token, "Notification.delete");
    EXPECT_EQ(sent[0].message.command(), 0);
    EXPECT_STREQ(sent[0].message.formatString(), "ii");
    EXPECT_EQ(sent[0].message.parameterAsInt32(0), getpid());
    EXPECT_EQ(sent[0].message.parameterAsInt32(1), id);
    EXPECT_EQ(g_thumbnailNotificationID, 0);
    EXPECT_TRUE(tokensOfStep().isEmpty());
}

TEST_F(ThumbnailScheduleTest, ANewDayAfterThatOpensANewNotificationWithANewId) {
    ThumbnailSchedule::request("a", "2024-05-01");
    ThumbnailSchedule::runStep();
    const int first = g_thumbnailNotificationID;
    finish("2024-05-01");
    ThumbnailSchedule::runStep();
    ThumbnailSchedule::request("a", "2024-05-02");
    EXPECT_EQ(tokensOfStep(), QList<QByteArray>{"Notification.add"});
    EXPECT_EQ(g_thumbnailNotificationID, first + 1);
}

TEST_F(ThumbnailScheduleTest, ADayThatComesBeforeThatPassKeepsTheNotification) {
    ThumbnailSchedule::request("a", "2024-05-01");
    ThumbnailSchedule::runStep();
    finish("2024-05-01");
    ThumbnailSchedule::request("a", "2024-05-02");
    EXPECT_EQ(tokensOfStep(), QList<QByteArray>{"Notification.update"});
}

TEST_F(ThumbnailScheduleTest, ADayRequestedWhileOneIsInProgressWaitsAtTheEnd) {
    ThumbnailSchedule::request("a", "2024-05-01");
    ThumbnailSchedule::runStep();
    ThumbnailSchedule::request("a", "2024-05-02");
    ThumbnailSchedule::request("a", "2024-05-02");
    EXPECT_TRUE(tokensOfStep().isEmpty());
    EXPECT_EQ(waiting(), (QList<Started>{{"a", "2024-05-02"}, {"a", "2024-05-02"}}));
}

TEST_F(ThumbnailScheduleTest, AFailureOfAStepEndsThereAndTheDayStays) {
    FakeThumbnails::child = []() -> pid_t { throw std::bad_alloc(); };
    ThumbnailSchedule::request("a", "2024-05-01");
    ThumbnailSchedule::runStep();
    EXPECT_TRUE(log.contains("scada-storage-process: thumbnail scheduling failed"));
    EXPECT_EQ(g_thumbnailDays.size(), 1);
    EXPECT_EQ(g_thumbnailDaysOutstanding, 0);
}

TEST_F(ThumbnailScheduleTest, ARequestIsNotFromTheFile) {
    ThumbnailSchedule::request("a", "2024-05-01");
    ASSERT_EQ(g_thumbnailDays.size(), 1);
    EXPECT_EQ(g_thumbnailDays[0].job, "a");
    EXPECT_EQ(g_thumbnailDays[0].date, "2024-05-01");
    EXPECT_FALSE(g_thumbnailDays[0].fromFile);
}

TEST_F(ThumbnailScheduleTest, RequestsAreRefusedAboveTheLimit) {
    for (int i = 0; i < ThumbnailSchedule::kMaximumWaitingDays + 5; ++i) {
        ThumbnailSchedule::request("a", "2024-05-01");
    }
    EXPECT_EQ(g_thumbnailDays.size(), ThumbnailSchedule::kMaximumWaitingDays);
    EXPECT_EQ(log.count("scada-storage-process: thumbnail day refused (10000 waiting)"), 5);
}

TEST_F(ThumbnailScheduleTest, RequestsWithEndlessTextsAreRefused) {
    const QString longest(ThumbnailSchedule::kMaximumTextLength, 'x');
    ThumbnailSchedule::request(longest, longest);
    EXPECT_EQ(g_thumbnailDays.size(), 1);
    ThumbnailSchedule::request(longest + 'x', "2024-05-01");
    ThumbnailSchedule::request("a", longest + 'x');
    EXPECT_EQ(g_thumbnailDays.size(), 1);
    EXPECT_EQ(log.count("scada-storage-process: thumbnail day refused (1 waiting)"), 2);
}

}  // namespace

#include "tests/tools/StoragectlFixture.h"
#include "tools/storagectl/ThumbsProgress.h"

#include <QJsonArray>
#include <QJsonDocument>

namespace {

using storagectl::ThumbsProgress;

constexpr int kProcess = 321;

QByteArray bytesOf(const Message& message) {
    return QByteArray(message.buffer(), message.length());
}

QByteArray announcement(const char* date, int number = 7) {
    Message message;
    message.construct(0, "iiiSSiiiii", kProcess, number, 1'714'521'600, "Updating thumbnails",
                      (QByteArray("Updating thumbnails for date ") + date).constData(), 0, 0, 0,
                      3600, 0);
    return bytesOf(message);
}

QByteArray closing(int number = 7) {
    Message message;
    message.construct(0, "ii", kProcess, number);
    return bytesOf(message);
}

QByteArray dayDone(const char* job, const char* date) {
    Message message;
    message.construct(221, "SS", job, date);
    return bytesOf(message);
}

/// thumbs build against a daemon that finishes the days that `builds` allows.
class ThumbsBuildTest : public StoragectlFixture {
protected:
    ThumbsBuildTest() {
        daemon.files["/mmc/north/gauges/x"];
        daemon.onOther = [this](const FakeTransport::Sent& sent) { take(sent); };
    }

    void take(const FakeTransport::Sent& sent) {
        Message request;
        request.construct(sent.payload.constData(), static_cast<int>(sent.payload.size()));
        if (sent.token != "StorageManager.to" || request.command() != 220) {
            return;
        }
        ASSERT_STREQ(request.formatString(), "SS");
        const QByteArray job = request.parameterAsString(0);
        const QByteArray date = request.parameterAsString(1);
        requested.append(job + ' ' + date);
        deliver("Notification.add", announcement(date));
        if (!lost.contains(date)) {
            deliver("ConnectionManager.to", dayDone(job, date));
            deliver("ThumbnailManager.dayFinished", date + '\0');
        }
        if (date == lastDate) {
            deliver("Notification.delete", closing());
        }
    }

    void deliver(const char* token, const QByteArray& payload) {
        daemon.transport().deliver(token, payload);
    }

    QByteArrayList requested;
    QByteArrayList lost;
    QByteArray lastDate = "2024-05-02";
};

TEST_F(ThumbsBuildTest, EveryDayIsAskedForAndReportedWhenItIsFinished) {
    EXPECT_EQ(run({"thumbs", "build", "north", "2024-04-30..2024-05-02"}), 0);
    EXPECT_EQ(requested,
              QByteArrayList({"north 2024-04-30", "north 2024-05-01", "north 2024-05-02"}));
    EXPECT_EQ(data, "2024-04-30 finished\n2024-05-01 finished\n2024-05-02 finished\n");
    EXPECT_TRUE(talk.startsWith("storagectl: 3 of 3 days finished in ")) << talk.toStdString();
}

TEST_F(ThumbsBuildTest, OneDayIsARangeToo) {
    EXPECT_EQ(run({"--json", "thumbs", "build", "north", "2024-05-02"}), 0);
    const QList<QByteArray> lines = data.trimmed().split('\n');
    ASSERT_EQ(lines.size(), 2);
    EXPECT_EQ(QJsonDocument::fromJson(lines[0])["day"], "2024-05-02");
    EXPECT_EQ(QJsonDocument::fromJson(lines[1])["finishedDays"], 1);
    EXPECT_EQ(talk, "");
}

TEST_F(ThumbsBuildTest, ADayThatTheDaemonGaveUpIsNotFinished) {
    lost = {"2024-05-01"};
    EXPECT_EQ(run({"thumbs", "build", "north", "2024-04-30..2024-05-02"}), 3);
    EXPECT_EQ(data, "2024-04-30 finished\n2024-05-02 finished\n");
    EXPECT_TRUE(talk.endsWith("not finished: 2024-05-01: the daemon has no day left to do\n"))
        << talk.toStdString();
}

TEST_F(ThumbsBuildTest, WithoutNewsTheRestCountsAsUnfinishedAfterTheWait) {
    lost = {"2024-05-01"};
    lastDate.clear();
    const quint32 before = clock.tick;
    EXPECT_EQ(run({"--json", "thumbs", "build", "north", "2024-05-01", "--wait", "60"}), 1);
    EXPECT_GE(clock.tick - before, 60'000U);
    EXPECT_LT(clock.tick - before, 65'000U);
    EXPECT_TRUE(data.contains("\"unfinished\":[\"2024-05-01\"]"));
    EXPECT_TRUE(data.contains("no news of any day for 60 s"));
}

TEST_F(ThumbsBuildTest, ManyUnfinishedDaysAreNotAllNamed) {
    daemon.onOther = nullptr;
    EXPECT_EQ(run({"thumbs", "build", "north", "2024-01-01..2024-01-31", "--wait", "1"}), 1);
    EXPECT_TRUE(talk.contains("2024-01-20 and 11 more: no news")) << talk.toStdString();
}

TEST_F(ThumbsBuildTest, AnInterruptSaysThatTheDaemonGoesOn) {
    daemon.onOther = [](const FakeTransport::Sent&) { storagectl::Interrupt::request(); };
    EXPECT_EQ(run({"thumbs", "build", "north", "2024-05-01"}), 130);
    EXPECT_TRUE(talk.contains("the daemon goes on with what it was asked for"));
}

TEST_F(ThumbsBuildTest, ALostBrokerEndsIt) {
    daemon.onOther = [this](const FakeTransport::Sent&) {
        daemon.transport().setBrokerPresent(false);
    };
    EXPECT_EQ(run({"thumbs", "build", "north", "2024-05-01"}), 10);
    EXPECT_TRUE(talk.contains("not finished: 2024-05-01: the connection to the broker is lost"));
}

TEST_F(ThumbsBuildTest, WithoutADaemonNothingIsAskedFor) {
    daemon.fate = [](const Message&) { return FakeDaemon::Fate::LostRequest; };
    EXPECT_EQ(run({"thumbs", "build", "north", "2024-05-01"}), 11);
    EXPECT_TRUE(requested.isEmpty());
}

TEST_F(ThumbsBuildTest, AJobThatTheCardDoesNotHaveIsSaid) {
    EXPECT_EQ(run({"thumbs", "build", "south", "2024-05-02"}), 0);
    EXPECT_TRUE(
        talk.contains("/mmc/south does not exist: the days will finish with nothing built"));
}

TEST_F(ThumbsBuildTest, WrongJobsAndDaysAreWrongUsage) {
    for (const char* days : {"", "2024-05-01..", "..2024-05-01", "2024-5-1", "2024-02-30",
                             "2024-05-02..2024-05-01", "2024-05-01..2024-05-02..2024-05-03",
                             "1900-01-01..2024-05-01", "2024-05-01,2024-05-02"}) {
        EXPECT_EQ(run({"thumbs", "build", "north", days}), 2) << days;
    }
    for (const char* job : {"", "..", ".", "a/b"}) {
        EXPECT_EQ(run({"thumbs", "build", job, "2024-05-01"}), 2) << job;
    }
    EXPECT_TRUE(requested.isEmpty());
}

bool take(ThumbsProgress& progress, const char* token, const QByteArray& payload) {
    return progress.take(token, payload.constData(), static_cast<int>(payload.size()));
}

ThumbsProgress threeDays() {
    return ThumbsProgress("north", QDate(2024, 4, 30), QDate(2024, 5, 2));
}

TEST(ThumbsProgressTest, OnlyDaysOfItsJobCount) {
    ThumbsProgress progress = threeDays();
    take(progress, "ConnectionManager.to", dayDone("south", "2024-05-01"));
    take(progress, "ConnectionManager.to", dayDone("north", "2024-05-03"));
    EXPECT_EQ(progress.finishedCount(), 0);
    take(progress, "ConnectionManager.to", dayDone("north", "2024-05-01"));
    take(progress, "ConnectionManager.to", dayDone("north", "2024-05-01"));
    EXPECT_EQ(progress.takeFinished(), QByteArrayList({"2024-05-01"}));
    EXPECT_EQ(progress.unfinished(), QByteArrayList({"2024-04-30", "2024-05-02"}));
}

TEST(ThumbsProgressTest, AJobOfOtherLettersIsRecognisedAsTheDaemonSendsIt) {
    ThumbsProgress progress("n\xC3\xB6rd", QDate(2024, 5, 1), QDate(2024, 5, 1));
    take(progress, "ConnectionManager.to", dayDone("n\xF6rd", "2024-05-01"));
    EXPECT_EQ(progress.finishedCount(), 1);
}

TEST(ThumbsProgressTest, TheDayFinishedTokenAloneIsNewsAndNoFinishedDay) {
    ThumbsProgress progress = threeDays();
    EXPECT_TRUE(take(progress, "ThumbnailManager.dayFinished", QByteArray("2024-05-01\0", 11)));
    EXPECT_EQ(progress.finishedCount(), 0);
}

TEST(ThumbsProgressTest, OnlyTheClosingOfTheThumbnailsNotificationIsIdle) {
    ThumbsProgress progress = threeDays();
    EXPECT_FALSE(take(progress, "Notification.delete", closing()));
    EXPECT_TRUE(take(progress, "Notification.add", announcement("2024-05-01")));
    EXPECT_EQ(progress.current(), "2024-05-01");
    EXPECT_FALSE(take(progress, "Notification.delete", closing(8)));
    EXPECT_FALSE(progress.isIdle());
    EXPECT_TRUE(take(progress, "Notification.delete", closing()));
    EXPECT_TRUE(progress.isIdle());
    EXPECT_TRUE(take(progress, "Notification.update", announcement("2024-05-02", 9)));
    EXPECT_FALSE(progress.isIdle());
}

TEST(ThumbsProgressTest, OtherNotificationsAndMalformedOnesAreNobodys) {
    ThumbsProgress progress = threeDays();
    Message message;
    message.construct(0, "iiiSSiiii", kProcess, 7, 0, "Listing files", "Listing files", 0, 0, 0, 0);
    EXPECT_FALSE(take(progress, "Notification.add", bytesOf(message)));
    message.construct(80, "ii", 3, 4);
    EXPECT_FALSE(take(progress, "ConnectionManager.to", bytesOf(message)));
    const QByteArray whole = announcement("2024-05-01");
    for (qsizetype length = 0; length < whole.size(); ++length) {
        EXPECT_FALSE(take(progress, "Notification.add", whole.first(length)));
    }
    EXPECT_FALSE(progress.take("ConnectionManager.to", nullptr, 0));
    EXPECT_EQ(progress.current(), "");
}

}  // namespace

#include "tests/tools/StoragectlFixture.h"

#include <QDateTime>
#include <QJsonDocument>
#include <QJsonObject>

namespace {

using Fate = FakeDaemon::Fate;

constexpr char kListing[] = "/root/data/user1/.files..mmc";
constexpr char kCardText[] =
    "Creating file listings for card storage : data availability may be out of date";

QByteArray notification(int process, const char* text, int total, int done) {
    Message message;
    message.construct(0, "iiiSSiiii", process, 7, 1'714'521'600, "title", text, 0, total, done,
                      3600);
    return QByteArray(message.buffer(), message.length());
}

class ListingCommandTest : public StoragectlFixture {
protected:
    ListingCommandTest() {
        daemon.files["/mmc/a/one"] = {"11", 1'714'521'600};
        daemon.files["/mmc/two"] = {"222", 1'714'521'601};
    }

    /// Every listing request is carried out and answered after so many milliseconds without
    /// anything; every `newsEvery` of them a notification comes.
    void answerLate(quint32 after, quint32 newsEvery) {
        daemon.fate = [this](const Message& request) {
            const bool isListing = request.command() == MESSAGE_GENERATE_LISTING;
            if (isListing) {
                _asked = clock.tick;
                daemon.transport().deliver("Notification.add", notification(3, kCardText, 0, 0));
            }
            return isListing ? Fate::LostReply : Fate::Answered;
        };
        daemon.onIdle = [this, after, newsEvery] {
            const quint32 waited = clock.tick - _asked;
            if (newsEvery > 0 && waited / newsEvery > _news) {
                _news = waited / newsEvery;
                daemon.transport().deliver("Notification.update",
                                           notification(3, kCardText, 100, int(_news)));
            }
            if (waited >= after && !_isAnswered) {
                _isAnswered = true;
                Message reply;
                reply.construct(MESSAGE_LISTING_FINISHED, "SS", "/mmc", kListing);
                daemon.reply(reply);
            }
        };
    }

    QJsonObject lastObject() const {
        return QJsonDocument::fromJson(data.trimmed().split('\n').last()).object();
    }

private:
    quint32 _asked = 0;
    quint32 _news = 0;
    bool _isAnswered = false;
};

TEST_F(ListingCommandTest, CreateSaysWhereAndHowMuch) {
    EXPECT_EQ(run({"listing", "create", "user1", "/mmc"}), 0) << talk.constData();
    EXPECT_EQ(data, QByteArray(kListing) + '\n');
    EXPECT_TRUE(talk.contains("2 files, 5 bytes")) << talk.constData();
}

TEST_F(ListingCommandTest, CreateAsAnObject) {
    EXPECT_EQ(run({"--json", "listing", "create", "user1", "/mmc"}), 0);
    EXPECT_EQ(lastObject()["listing"], kListing);
    EXPECT_EQ(lastObject()["files"], 2);
    EXPECT_EQ(lastObject()["bytes"], 5);
}

TEST_F(ListingCommandTest, SlashesTooManyAreNotSent) {
    EXPECT_EQ(run({"listing", "create", "user1", "//mmc/"}), 0);
    EXPECT_EQ(data, QByteArray(kListing) + '\n');
}

TEST_F(ListingCommandTest, AFolderThatIsNoNameIsRefusedBeforeAnythingIsSent) {
    for (const char* const name : {"", ".", "..", "a/b", "../config", "\xFF"}) {
        EXPECT_EQ(run({"listing", "create", name, "/mmc"}), 2) << name;
    }
    for (const char* const root : {"", "mmc", "/mmc/../etc", "/mmc/.", "/mmc/a\nb"}) {
        EXPECT_EQ(run({"listing", "create", "user1", root}), 2) << root;
    }
    EXPECT_TRUE(daemon.requests.empty());
}

TEST_F(ListingCommandTest, ARootThatIsMissingIsNotFound) {
    EXPECT_EQ(run({"listing", "create", "user1", "/mmc/missing"}), 4);
    EXPECT_TRUE(talk.contains("/mmc/missing: not found")) << talk.constData();
}

TEST_F(ListingCommandTest, ARootThatIsAFileIsSaidToBeOne) {
    EXPECT_EQ(run({"listing", "create", "user1", "/mmc/two"}), 1);
    EXPECT_TRUE(talk.contains("is a file")) << talk.constData();
}

TEST_F(ListingCommandTest, AFolderThatCannotBeWrittenIsAClearFailure) {
    daemon.spoil = [](const Message& request, Message& reply) {
        if (request.command() == MESSAGE_GENERATE_LISTING) {
            reply.construct(MESSAGE_LISTING_FINISHED, "SS", "/mmc", "");
        }
    };
    EXPECT_EQ(run({"listing", "create", "user1", "/mmc"}), 1);
    EXPECT_TRUE(talk.contains("/root/data/user1 is no folder that it can write"))
        << talk.constData();
}

TEST_F(ListingCommandTest, AnAnswerAboutAnotherRootDoesNotFit) {
    daemon.spoil = [](const Message& request, Message& reply) {
        if (request.command() == MESSAGE_GENERATE_LISTING) {
            reply.construct(MESSAGE_LISTING_FINISHED, "SS", "/other", kListing);
        }
    };
    EXPECT_EQ(run({"listing", "create", "user1", "/mmc"}), 1);
    EXPECT_TRUE(talk.contains("does not fit")) << talk.constData();
}

TEST_F(ListingCommandTest, ALongWalkIsNoTimeOutAsLongAsTheDaemonAnswers) {
    answerLate(300'000, 0);
    EXPECT_EQ(run({"listing", "create", "user1", "/mmc"}), 0) << talk.constData();
}

TEST_F(ListingCommandTest, WithoutAWordOfItAListingCountsAsLostAfterTheWait) {
    answerLate(1'000'000, 0);
    const quint32 begun = clock.tick;
    EXPECT_EQ(run({"listing", "create", "user1", "/mmc", "--wait", "60"}), 1);
    EXPECT_TRUE(talk.contains("no word of it for 60 s")) << talk.constData();
    EXPECT_GE(clock.tick - begun, 60'000u);
    EXPECT_LT(clock.tick - begun, 90'000u);
}

TEST_F(ListingCommandTest, NotificationsKeepTheWaitGoing) {
    answerLate(1'000'000, 30'000);
    EXPECT_EQ(run({"listing", "create", "user1", "/mmc", "--wait", "60"}), 0) << talk.constData();
}

TEST_F(ListingCommandTest, NotificationsOfAnotherListingDoNot) {
    answerLate(1'000'000, 0);
    daemon.onIdle = [this] {
        daemon.transport().deliver(
            "Notification.update",
            notification(4, "Generating file listings for /media/usb", 100, 1));
        daemon.transport().deliver("Notification.update", notification(4, kCardText, 100, 1));
        daemon.transport().deliver("Notification.update", "no message");
        clock.tick += 1000;
    };
    EXPECT_EQ(run({"listing", "create", "user1", "/mmc", "--wait", "60"}), 1) << talk.constData();
}

TEST_F(ListingCommandTest, ADaemonThatGoesWhileItListsIsNoticedAfterTheTimeOut) {
    daemon.fate = [this](const Message& request) {
        const bool isListing = request.command() == MESSAGE_GENERATE_LISTING;
        return isListing || daemon.count(MESSAGE_GENERATE_LISTING) > 0 ? Fate::LostRequest
                                                                       : Fate::Answered;
    };
    const quint32 begun = clock.tick;
    EXPECT_EQ(run({"listing", "create", "user1", "/mmc"}), 11);
    EXPECT_LT(clock.tick - begun, 30'000u);
}

TEST_F(ListingCommandTest, WithoutADaemonNothingIsAskedFor) {
    daemon.fate = [](const Message&) { return Fate::LostRequest; };
    EXPECT_EQ(run({"listing", "create", "user1", "/mmc"}), 11);
    EXPECT_EQ(daemon.count(MESSAGE_GENERATE_LISTING), 0);
}

TEST_F(ListingCommandTest, AnInterruptEndsTheWaitAtOnce) {
    answerLate(1'000'000, 0);
    daemon.onIdle = [] { storagectl::Interrupt::request(); };
    EXPECT_EQ(run({"listing", "create", "user1", "/mmc"}), 130);
    EXPECT_TRUE(talk.contains("the daemon goes on with the listing")) << talk.constData();
}

TEST_F(ListingCommandTest, ShowPrintsTheListingAsItIs) {
    const QByteArray listing = "1,2,/mmc/m\xE4rz\nnonsense\n3,4,/mmc/b\n";
    daemon.files[kListing] = {listing};
    EXPECT_EQ(run({"listing", "show", "user1", "/mmc"}), 0);
    EXPECT_EQ(data, listing);
    EXPECT_EQ(daemon.count(MESSAGE_GENERATE_LISTING), 0);
}

TEST_F(ListingCommandTest, ShowLongPrintsSizesAndTimesInUtf8) {
    daemon.files[kListing] = {"2048,1714521600,/mmc/m\xE4rz\nnonsense\n"};
    EXPECT_EQ(run({"listing", "show", "user1", "/mmc", "-l", "-h"}), 0);
    EXPECT_TRUE(data.contains("2.0 KB")) << data.constData();
    EXPECT_TRUE(data.endsWith("  /mmc/m\u00E4rz\n")) << data.constData();
    EXPECT_TRUE(talk.contains("1 lines are no files")) << talk.constData();
}

TEST_F(ListingCommandTest, ShowWithoutAListingSaysHowToMakeOne) {
    EXPECT_EQ(run({"listing", "show", "user1", "/mmc"}), 4);
    EXPECT_TRUE(talk.contains("listing create makes one")) << talk.constData();
}

TEST_F(ListingCommandTest, DiffShowsWhatChangedSinceTheListingBefore) {
    daemon.files["/mmc/a/gone"] = {"gone"};
    daemon.files["/mmc/a/touched"] = {"same size", 1'714'521'600};
    ASSERT_EQ(run({"listing", "create", "user1", "/mmc"}), 0);
    daemon.files.remove("/mmc/a/gone");
    daemon.files["/mmc/a/new"] = {"new"};
    daemon.files["/mmc/a/one"].contents = "111";
    daemon.files["/mmc/a/touched"].modified += 1;
    EXPECT_EQ(run({"listing", "diff", "user1", "/mmc"}), 1);
    EXPECT_EQ(data,
              "-           4  /mmc/a/gone\n"
              "+           3  /mmc/a/new\n"
              "*           3  /mmc/a/one (was 2)\n"
              "*           9  /mmc/a/touched (time)\n");
    EXPECT_TRUE(talk.contains("1 new, 1 gone, 2 changed, 1 as before")) << talk.constData();
    EXPECT_EQ(run({"listing", "diff", "user1", "/mmc"}), 0) << "the one before is that of now";
    EXPECT_EQ(data, "");
}

TEST_F(ListingCommandTest, DiffReadsAListingSavedEarlier) {
    ASSERT_EQ(run({"listing", "create", "user1", "/mmc"}), 0);
    ASSERT_EQ(run({"listing", "show", "user1", "/mmc"}), 0);
    writeLocal("saved", data + "1,2,/etc/passwd\n");
    daemon.files["/mmc/two"].contents = "2222";
    const std::string saved = local("saved").toStdString();
    EXPECT_EQ(run({"--json", "listing", "diff", "user1", "/mmc", saved}), 1);
    EXPECT_EQ(lastObject()["file"], "/mmc/two");
    EXPECT_EQ(lastObject()["change"], "changed");
    EXPECT_EQ(lastObject()["sizeBefore"], 3);
    EXPECT_EQ(run({"listing", "diff", "user1", "/mmc", saved}), 1);
    EXPECT_TRUE(talk.contains("1 lines are no files")) << talk.constData();
    EXPECT_EQ(run({"listing", "diff", "user1", "/mmc", local("none").toStdString()}), 6);
}

}  // namespace

#include "tests/tools/FakeDownloads.h"
#include "tests/tools/StoragectlFixture.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using Fate = FakeDaemon::Fate;

constexpr int kTime = 1'714'521'600;

/// mirror and check of "/mmc/job" against a daemon in memory that makes listings.
class MirrorTest : public StoragectlFixture {
protected:
    int mirror(const std::vector<std::string>& more = {}) { return command("mirror", more); }
    int check(const std::vector<std::string>& more = {}) { return command("check", more); }

    void onUnit(const QByteArray& name, const QByteArray& contents) {
        daemon.files["/mmc/job/" + name] = {contents, kTime};
    }
    void here(const QByteArray& name, const QByteArray& contents, qint64 modified = kTime) {
        QDir(folder.path()).mkpath("./" + QString::fromUtf8(name).section('/', 0, -2));
        writeLocal(name, contents);
        const timespec times[2] = {{0, UTIME_OMIT}, {modified, 0}};
        ASSERT_EQ(utimensat(AT_FDCWD, local(name).constData(), times, 0), 0);
    }
    /// What the next listings hold, whatever the daemon has.
    void pretendListing(const QByteArray& lines) {
        daemon.fate = [this, lines](const Message& request) {
            if (request.command() == MESSAGE_FILE_OPEN) {
                daemon.files["/root/data/user1/.files..mmc.job"].contents = lines;
            }
            return Fate::Answered;
        };
    }
    QJsonObject lastObject() const {
        return QJsonDocument::fromJson(data.trimmed().split('\n').last()).object();
    }

private:
    int command(const char* name, const std::vector<std::string>& more) {
        std::vector<std::string> arguments{name, "/mmc/job", folder.path().toStdString(),
                                           "--folder", "user1"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return run(arguments);
    }
};

TEST_F(MirrorTest, ADryRunShowsTheCostAndChangesNothing) {
    onUnit("day/new", "12345");
    onUnit("day/grown", "1234567");
    onUnit("day/shorter", "1");
    onUnit("day/touched", "abc");
    onUnit("day/same", "same");
    here("day/grown", "123");
    here("day/shorter", "12");
    here("day/touched", "abc", kTime - 1);
    here("day/same", "same");
    here("extra", "extra");
    EXPECT_EQ(mirror({"-n"}), 0) << talk.constData();
    EXPECT_EQ(data,
              "*           7  day/grown (was 3)\n"
              "+           5  day/new\n"
              "*           1  day/shorter (was 2)\n"
              "*           3  day/touched (time)\n"
              "-           5  extra\n");
    EXPECT_TRUE(talk.contains("1 new, 1 grown, 2 changed, 1 the same, 1 only here"))
        << talk.constData();
    EXPECT_TRUE(talk.contains("64 bytes at most, 55 if what is here")) << talk.constData();
    EXPECT_FALSE(existsLocal("day/new"));
    EXPECT_EQ(readLocal("day/grown"), "123");
}

TEST_F(MirrorTest, ADryRunTellsTheTimeAtTheLimit) {
    onUnit("file", QByteArray(300 * 1024 - 100, 'x'));
    EXPECT_EQ(mirror({"-n", "--bwlimit", "10K"}), 0);
    EXPECT_TRUE(talk.contains("30 s at 10.0 KB/s, the limit")) << talk.constData();
    EXPECT_EQ(mirror({"-n", "--bwlimit", "0"}), 2);
    EXPECT_EQ(mirror({"-n", "--bwlimit", "fast"}), 2);
}

TEST_F(MirrorTest, ADryRunSaysWhereNothingIsToBeSent) {
    onUnit("same", "same");
    here("same", "same");
    EXPECT_EQ(mirror({"-n"}), 0);
    EXPECT_TRUE(talk.endsWith("storagectl: nothing to be sent\n")) << talk.constData();
}

TEST_F(MirrorTest, ADryRunDoesNotMakeTheDirectory) {
    onUnit("file", "1");
    EXPECT_EQ(run({"mirror", "/mmc/job", local("new").toStdString(), "--folder", "user1", "-n"}),
              0);
    EXPECT_FALSE(existsLocal("new"));
}

TEST_F(MirrorTest, ADryRunOfWhichSomeIsRefusedEndsAsTheMirrorWould) {
    onUnit("file", "1");
    onUnit("barred", "2");
    here("barred/extra", "");
    EXPECT_EQ(mirror({"-n"}), 3);
    EXPECT_EQ(mirror(), 3);
}

TEST_F(MirrorTest, ADirectoryThatCannotBeMadeIsToldOnce) {
    onUnit("a", "1");
    onUnit("b/c", "2");
    EXPECT_EQ(run({"mirror", "/mmc/job", local("no/such").toStdString(), "--folder", "user1"}), 6);
    EXPECT_EQ(talk.count("cannot be made"), 1) << talk.constData();
    EXPECT_TRUE(talk.contains("2 failed")) << talk.constData();
}

TEST_F(MirrorTest, AFileThatGrewSinceItsListingIsToldAsItArrived) {
    onUnit("file", "123456");
    pretendListing("4,1714521600,/mmc/job/file\n");
    EXPECT_EQ(mirror(), 0) << talk.constData();
    EXPECT_EQ(data, "+           6  file\n");
}

TEST_F(MirrorTest, WhatIsTheSameIsNotAskedFor) {
    onUnit("same", "same");
    here("same", "same");
    EXPECT_EQ(mirror(), 0);
    EXPECT_EQ(data, "");
    EXPECT_EQ(daemon.count(MESSAGE_LZF_DOWNLOAD), 0);
}

TEST_F(MirrorTest, WhatIsOnlyHereIsNamedAndLeftAlone) {
    onUnit("same", "same");
    here("same", "same");
    here("day/extra", "extra");
    EXPECT_EQ(mirror(), 0);
    EXPECT_EQ(data, "-           5  day/extra\n");
    EXPECT_TRUE(talk.contains("1 only here, left alone (--delete removes files)"))
        << talk.constData();
    EXPECT_TRUE(existsLocal("day/extra"));
}

TEST_F(MirrorTest, DeleteRemovesWhatTheUnitDoesNotHave) {
    const FakeDownloads downloads(daemon);
    onUnit("same", "same");
    here("same", "same");
    here("old/day/extra", "extra");
    here(".hidden", "hidden");
    ASSERT_EQ(symlink("same", local("link").constData()), 0);
    EXPECT_EQ(mirror({"--delete"}), 0) << talk.constData();
    EXPECT_FALSE(existsLocal("old")) << "nothing is left in it";
    EXPECT_TRUE(existsLocal("same"));
    EXPECT_TRUE(existsLocal(".hidden"));
    EXPECT_TRUE(QFileInfo(local("link")).isSymLink());
    EXPECT_TRUE(talk.contains("1 removed")) << talk.constData();
}

TEST_F(MirrorTest, ADryRunDeletesNothing) {
    onUnit("same", "same");
    here("same", "same");
    here("extra", "extra");
    EXPECT_EQ(mirror({"--delete", "-n"}), 0);
    EXPECT_TRUE(existsLocal("extra"));
}

TEST_F(MirrorTest, AFileThatTheListingLacksButTheUnitHasIsNotRemoved) {
    onUnit("same", "same");
    onUnit("late", "late");
    here("same", "same");
    here("late", "late");
    pretendListing("4,1714521600,/mmc/job/same\n");
    EXPECT_EQ(mirror({"--delete"}), 3);
    EXPECT_TRUE(existsLocal("late"));
    EXPECT_TRUE(talk.contains("cannot say that it is gone")) << talk.constData();
}

TEST_F(MirrorTest, NothingIsRemovedAfterAnEmptyListing) {
    const FakeDownloads downloads(daemon);
    onUnit("same", "same");
    here("extra", "extra");
    pretendListing("");
    EXPECT_EQ(mirror({"--delete"}), 0);
    EXPECT_TRUE(existsLocal("extra"));
    EXPECT_TRUE(talk.contains("nothing is removed")) << talk.constData();
}

TEST_F(MirrorTest, NothingIsRemovedAfterAFailure) {
    const FakeDownloads downloads(daemon);
    onUnit("same", "same");
    onUnit("barred/file", "x");
    here("same", "same");
    here("barred", "a file");
    here("extra", "extra");
    EXPECT_EQ(mirror({"--delete"}), 3);
    EXPECT_TRUE(existsLocal("extra"));
    EXPECT_EQ(readLocal("barred"), "a file");
    EXPECT_TRUE(talk.contains("barred stands in the way, and is left alone")) << talk.constData();
}

TEST_F(MirrorTest, AFileWhosePartialFileIsAFileOfTheUnitIsRefused) {
    onUnit("file", "new");
    onUnit("file.part", "theirs");
    here("file.part", "theirs");
    EXPECT_EQ(mirror({"-n"}), 3);
    EXPECT_TRUE(talk.contains("the unit has a file of that name too")) << talk.constData();
    EXPECT_EQ(data, "");
}

TEST_F(MirrorTest, AFileTooLargeForTheWireIsRefused) {
    onUnit("same", "same");
    here("same", "same");
    pretendListing("3000000000,1,/mmc/job/large\n4,1714521600,/mmc/job/same\n");
    for (const std::vector<std::string>& more : {std::vector<std::string>{}, {"-n"}}) {
        EXPECT_EQ(mirror(more), 3);
        EXPECT_TRUE(talk.contains("larger than 2147483647 bytes")) << talk.constData();
    }
}

TEST_F(MirrorTest, HiddenFilesOfTheUnitAreLeftOut) {
    onUnit("same", "same");
    here("same", "same");
    pretendListing("1,1,/mmc/job/.hidden\n1,1,/mmc/job/.git/file\n4,1714521600,/mmc/job/same\n");
    EXPECT_EQ(mirror({"-n"}), 0);
    EXPECT_EQ(data, "");
}

TEST_F(MirrorTest, AnObjectPerFileAndOneAtTheEnd) {
    onUnit("file", "12345");
    EXPECT_EQ(mirror({"-n", "--json"}), 0);
    const QJsonObject first = QJsonDocument::fromJson(data.split('\n').first()).object();
    EXPECT_EQ(first["file"], "/mmc/job/file");
    EXPECT_EQ(first["change"], "new");
    EXPECT_EQ(lastObject()["mostBytes"], 17);
}

TEST_F(MirrorTest, WithoutADaemonThatIsSaid) {
    daemon.fate = [](const Message&) { return Fate::LostRequest; };
    EXPECT_EQ(mirror(), 11);
    EXPECT_EQ(check(), 11);
}

TEST_F(MirrorTest, AFolderIsOneName) {
    EXPECT_EQ(run({"mirror", "/mmc/job", "here", "--folder", "a/b"}), 2);
    EXPECT_EQ(run({"mirror", "job", "here"}), 2);
    EXPECT_EQ(run({"check", "/mmc/../etc", "here"}), 2);
    EXPECT_TRUE(daemon.requests.empty());
}

TEST_F(MirrorTest, TheFolderOfARootBelowDataIsItsFirstName) {
    daemon.files["/root/data/north/day/file"] = {"1", kTime};
    EXPECT_EQ(run({"mirror", "/root/data/north/day", folder.path().toStdString(), "-n"}), 0);
    EXPECT_TRUE(daemon.files.contains("/root/data/north/.files..root.data.north.day"));
    EXPECT_EQ(data, "+           1  file\n");
}

TEST_F(MirrorTest, CheckOfTheSameEndsInZero) {
    onUnit("same", "same");
    here("same", "same");
    EXPECT_EQ(check(), 0);
    EXPECT_EQ(data, "");
    EXPECT_EQ(check({"--all"}), 0);
    EXPECT_EQ(data, "= same\n");
}

TEST_F(MirrorTest, CheckSaysWhatDiffersAndWhy) {
    onUnit("day/larger", "12345");
    onUnit("day/new", "1");
    onUnit("day/touched", "abc");
    here("day/larger", "123");
    here("day/touched", "abc", kTime + 60);
    here("extra", "x");
    EXPECT_EQ(check(), 1);
    EXPECT_TRUE(
        data.startsWith("* day/larger (size: 5 there, 3 here)\n+ day/new\n"
                        "* day/touched (time: "))
        << data.constData();
    EXPECT_TRUE(data.endsWith("- extra\n")) << data.constData();
    EXPECT_EQ(readLocal("day/larger"), "123");
}

TEST_F(MirrorTest, CheckByHashComparesContentsAndNotTimes) {
    onUnit("other", "abc");
    onUnit("touched", "abc");
    onUnit("empty", "");
    here("other", "abd");
    here("touched", "abc", kTime + 60);
    here("empty", "");
    EXPECT_EQ(check({"--hash", "-v"}), 1);
    EXPECT_TRUE(data.contains("= empty\n* other (contents)\n= touched\n")) << data.constData();
}

TEST_F(MirrorTest, CheckByHashOfAFileThatVanishedSaysSo) {
    onUnit("file", "abc");
    here("file", "abc");
    pretendListing("3,1714521600,/mmc/job/file\n3,1714521600,/mmc/job/vanished\n");
    here("vanished", "abc");
    EXPECT_EQ(check({"--hash"}), 3);
    EXPECT_TRUE(data.contains("! vanished (/mmc/job/vanished: not found)\n")) << data.constData();
}

TEST_F(MirrorTest, CheckCannotCompareWhatIsSomethingElseHere) {
    onUnit("file", "abc");
    ASSERT_EQ(symlink("/etc/passwd", local("file").constData()), 0);
    EXPECT_EQ(check(), 3);
    EXPECT_TRUE(data.startsWith("! file (here file is something else)\n")) << data.constData();
    EXPECT_EQ(lastObject(), QJsonObject());
    EXPECT_EQ(check({"--json"}), 3);
    EXPECT_EQ(lastObject()["incomparable"], 1);
}

}  // namespace

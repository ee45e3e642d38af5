#include "tests/tools/FakeDownloads.h"
#include "tests/tools/StoragectlFixture.h"

#include <QDir>
#include <QFileInfo>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using Fate = FakeDaemon::Fate;

constexpr int kTime = 1'714'521'600;
constexpr char kListing[] = "/root/data/user1/.files..mmc.job";

/// mirror against a daemon that has downloads: what it fetches and what it removes, while both
/// sides change under it.
class MirrorChangesTest : public StoragectlFixture {
protected:
    MirrorChangesTest() { QDir().mkpath(path("mirror")); }

    int mirror(const std::vector<std::string>& more = {}) {
        std::vector<std::string> arguments{"mirror", "/mmc/job", path("mirror").toStdString(),
                                           "--folder", "user1"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return run(arguments);
    }
    QString path(const QByteArray& name) const { return QString::fromUtf8(local(name)); }

    void onUnit(const QByteArray& name, const QByteArray& contents, int modified = kTime) {
        daemon.files["/mmc/job/" + name] = {contents, modified};
    }
    void here(const QByteArray& name, const QByteArray& contents, qint64 modified = kTime) {
        QDir().mkpath(path("mirror/" + name).section('/', 0, -2));
        writeLocal("mirror/" + name, contents);
        const timespec times[2] = {{0, UTIME_OMIT}, {modified, 0}};
        ASSERT_EQ(utimensat(AT_FDCWD, local("mirror/" + name).constData(), times, 0), 0);
    }
    QByteArray read(const QByteArray& name) const { return readLocal("mirror/" + name); }
    qint64 timeOf(const QByteArray& name) const {
        return QFileInfo(path("mirror/" + name)).lastModified().toSecsSinceEpoch();
    }
    /// Once, when the listing is asked for: both trees were or are being read.
    void whileListing(const std::function<void()>& change) { at(MESSAGE_GENERATE_LISTING, change); }
    void at(int command, const std::function<void()>& change) {
        daemon.fate = [command, change, isDone = false](const Message& request) mutable {
            if (request.command() == command && !std::exchange(isDone, true)) {
                change();
            }
            return Fate::Answered;
        };
    }
    /// The directory goes elsewhere, and a link to it stands in its place.
    void replaceByLink(const QByteArray& name) {
        ASSERT_TRUE(QDir().rename(path("mirror/" + name), path("elsewhere")));
        ASSERT_EQ(symlink("../elsewhere", local("mirror/" + name).constData()), 0);
    }
    void expectNothingRemoved(const char* why) {
        EXPECT_EQ(mirror({"--delete"}), 3) << talk.constData();
        EXPECT_EQ(read("day/extra"), "extra");
        EXPECT_TRUE(talk.contains("not removed, the daemon cannot say that it is gone there"))
            << talk.constData();
        EXPECT_TRUE(talk.contains(why)) << talk.constData();
    }

    FakeDownloads downloads{daemon};
};

}  // namespace

TEST_F(MirrorChangesTest, WhatIsNewGrownOrChangedIsFetchedWithItsTime) {
    const QByteArray day = someBytes(300'000);
    onUnit("day/new", "new", kTime + 1);
    onUnit("day/grown", day, kTime + 2);
    onUnit("day/rewritten", "other", kTime + 3);
    onUnit("day/touched", "same", kTime + 4);
    here("day/grown", day.left(200'000));
    here("day/rewritten", "wrong and longer");
    here("day/touched", "same");
    EXPECT_EQ(mirror({"--json"}), 0) << talk.constData();
    EXPECT_EQ(read("day/new"), "new");
    EXPECT_TRUE(read("day/grown") == day);
    EXPECT_EQ(read("day/rewritten"), "other");
    EXPECT_EQ(timeOf("day/grown"), kTime + 2);
    EXPECT_EQ(timeOf("day/touched"), kTime + 4);
    EXPECT_TRUE(data.contains("\"fetched\":4")) << data.constData();
    EXPECT_TRUE(data.contains("\"keptBytes\":200004")) << data.constData();
    const std::size_t requests = downloads.requests.size();
    EXPECT_EQ(mirror(), 0);
    EXPECT_EQ(downloads.requests.size(), requests) << "nothing is left to fetch";
}

TEST_F(MirrorChangesTest, AFileThatVanishesBeforeItIsFetchedIsSaidAndTheRestGoesOn) {
    onUnit("a", "a");
    onUnit("b", "b");
    at(MESSAGE_LZF_DOWNLOAD, [this] { daemon.files.remove("/mmc/job/a"); });
    EXPECT_EQ(mirror(), 3);
    EXPECT_TRUE(talk.contains("/mmc/job/a: not found")) << talk.constData();
    EXPECT_EQ(read("a"), "<none>");
    EXPECT_EQ(read("b"), "b");
}

TEST_F(MirrorChangesTest, ADirectoryThatTheDaemonCannotReadRemovesNothing) {
    onUnit("same", "same");
    here("same", "same");
    here("day/extra", "extra");
    downloads.failures["/mmc/job/day/."] = "Open error";
    expectNothingRemoved("could not list it (Open error)");
}

TEST_F(MirrorChangesTest, ARootThatIsGoneMeanwhileRemovesNothing) {
    onUnit("same", "same");
    here("same", "same");
    here("day/extra", "extra");
    at(MESSAGE_FILE_OPEN, [this] { daemon.files.remove("/mmc/job/same"); });
    expectNothingRemoved("/mmc/job: is gone by now");
}

TEST_F(MirrorChangesTest, ARootThatIsEmptyMeanwhileRemovesNothing) {
    onUnit("same", "same");
    here("same", "same");
    here("day/extra", "extra");
    downloads.spoil = [this](QByteArray& stream) {
        if (downloads.requests.back().front() == "/mmc/job/.") {
            stream = FakeDownloads::record(13) + FakeDownloads::record(4);
        }
    };
    expectNothingRemoved("/mmc/job: is empty by now");
}

TEST_F(MirrorChangesTest, WhatCameToTheUnitMeanwhileIsNotRemoved) {
    onUnit("day/same", "same");
    here("day/same", "same");
    here("day/extra", "extra");
    at(MESSAGE_OPEN_DIRECTORY, [this] { onUnit("day/extra", "extra"); });
    expectNothingRemoved("/mmc/job/day/extra: is there");
}

TEST_F(MirrorChangesTest, WhatWasThereAMomentAgoIsNotRemoved) {
    onUnit("day/same", "same");
    here("day/same", "same");
    here("day/extra", "extra");
    at(MESSAGE_FILE_OPEN, [this] { onUnit("day/extra", "extra"); });
    downloads.onMessage = [this](int) {
        at(MESSAGE_OPEN_DIRECTORY, [this] { daemon.files.remove("/mmc/job/day/extra"); });
        return true;
    };
    expectNothingRemoved("/mmc/job/day/extra: is there");
}

TEST_F(MirrorChangesTest, ADirectoryWithNamesThatCannotBeToldRemovesNothing) {
    onUnit("day/same", "same");
    here("day/same", "same");
    here("day/extra", "extra");
    daemon.files["/mmc/job/day/../x"] = {};
    expectNothingRemoved("/mmc/job/day: not all of it could be listed");
}

TEST_F(MirrorChangesTest, ATreeThatCouldNotBeReadAsAWholeRemovesNothing) {
    onUnit("same", "same");
    onUnit("day/file", "x");
    here("same", "same");
    here("extra", "extra");
    downloads.failures["/mmc/job/day/."] = "Open error";
    EXPECT_EQ(run({"mirror", "/mmc/job", path("mirror").toStdString(), "--delete"}), 3);
    EXPECT_EQ(read("extra"), "extra");
    EXPECT_TRUE(talk.contains("nothing is removed: not every file of the unit could be listed"))
        << talk.constData();
}

TEST_F(MirrorChangesTest, CheckOfATreeThatCouldNotBeReadAsAWholeSaysSo) {
    onUnit("same", "same");
    onUnit("day/file", "x");
    here("same", "same");
    downloads.failures["/mmc/job/day/."] = "Open error";
    EXPECT_EQ(run({"check", "/mmc/job", path("mirror").toStdString()}), 3);
    EXPECT_TRUE(talk.contains("could not list it")) << talk.constData();
}

TEST_F(MirrorChangesTest, CheckByHashOfAFileThatGrewSinceItsListingFindsThat) {
    onUnit("file", "abc");
    here("file", "abc");
    at(MESSAGE_FILE_OPEN, [this] { onUnit("file", "abcd"); });
    EXPECT_EQ(
        run({"check", "/mmc/job", path("mirror").toStdString(), "--folder", "user1", "--hash"}), 1);
    EXPECT_EQ(data, "* file (contents)\n");
}

TEST_F(MirrorChangesTest, ManyFilesOfADirectoryAreAskedForWithOneListing) {
    onUnit("day/same", "same");
    here("day/same", "same");
    for (int i = 0; i < 20; ++i) {
        here("day/extra-" + QByteArray::number(i), "x");
    }
    EXPECT_EQ(mirror({"--delete"}), 0) << talk.constData();
    EXPECT_TRUE(talk.contains("20 removed")) << talk.constData();
    EXPECT_EQ(downloads.requests.size(), 1U);
    EXPECT_EQ(read("day/same"), "same");
}

TEST_F(MirrorChangesTest, AFileThatChangedHereMeanwhileIsNotRemoved) {
    onUnit("same", "same");
    here("same", "same");
    here("day/extra", "extra");
    whileListing([this] { here("day/extra", "somebody writes it"); });
    EXPECT_EQ(mirror({"--delete"}), 3);
    EXPECT_EQ(read("day/extra"), "somebody writes it");
    EXPECT_TRUE(talk.contains("not removed, it was changed meanwhile")) << talk.constData();
}

TEST_F(MirrorChangesTest, ALinkInTheDirectorysPlaceIsNotFollowedToRemove) {
    onUnit("same", "same");
    here("same", "same");
    here("day/extra", "extra");
    whileListing([this] { replaceByLink("day"); });
    EXPECT_EQ(mirror({"--delete"}), 3);
    EXPECT_EQ(readLocal("elsewhere/extra"), "extra");
}

TEST_F(MirrorChangesTest, ALinkInTheDirectorysPlaceIsNotFollowedToFetch) {
    onUnit("day/new", "new");
    here("day/old", "old");
    whileListing([this] { replaceByLink("day"); });
    EXPECT_EQ(mirror(), 6) << talk.constData();
    EXPECT_FALSE(existsLocal("elsewhere/new"));
    EXPECT_FALSE(existsLocal("elsewhere/new.part"));
}

TEST_F(MirrorChangesTest, AListingThatOnlyStayedIsNotTakenForANewOne) {
    onUnit("same", "same");
    onUnit("new", "new");
    here("same", "same");
    daemon.files[kListing].contents = "4,1714521600,/mmc/job/same\n";
    // A full storage: the daemon answers as ever, and no new one is there.
    std::optional<FakeDaemon::File> before;
    daemon.fate = [&](const Message& request) {
        if (request.command() == MESSAGE_GENERATE_LISTING && daemon.files.contains(kListing)) {
            before = daemon.files[kListing];
        }
        return Fate::Answered;
    };
    daemon.spoil = [&](const Message& request, Message&) {
        if (request.command() == MESSAGE_GENERATE_LISTING) {
            daemon.files.remove(kListing);
            if (before) {
                daemon.files[kListing] = *before;
            }
        }
    };
    EXPECT_EQ(mirror(), 0) << talk.constData();
    EXPECT_TRUE(talk.contains("its storage may be full; the tree is read directory by directory"))
        << talk.constData();
    EXPECT_EQ(read("new"), "new");
}

TEST_F(MirrorChangesTest, AListingWithLinesThatAreNoneIsNotUsed) {
    onUnit("same", "same");
    onUnit("new", "new");
    here("same", "same");
    at(MESSAGE_FILE_OPEN, [this] {
        daemon.files[kListing].contents = "1,1,/etc/passwd\n4,1714521600,/mmc/job/same\n";
    });
    EXPECT_EQ(mirror(), 0) << talk.constData();
    EXPECT_TRUE(talk.contains("1 lines of the listing are no files below the root; the tree is"))
        << talk.constData();
    EXPECT_EQ(read("new"), "new");
}

TEST_F(MirrorChangesTest, AListingThatNamesAFileTwiceRemovesNothing) {
    onUnit("same", "same");
    here("same", "same");
    here("extra", "extra");
    at(MESSAGE_FILE_OPEN, [this] {
        const QByteArray line = "4,1714521600,/mmc/job/same\n";
        daemon.files[kListing].contents = line + line;
    });
    EXPECT_EQ(mirror({"--delete"}), 3);
    EXPECT_EQ(read("extra"), "extra");
}

TEST_F(MirrorChangesTest, ARootRightBelowDataIsItsOwnFolder) {
    daemon.files["/root/data/north/file"] = {"1", kTime};
    EXPECT_EQ(run({"mirror", "/root/data/north", path("mirror").toStdString()}), 0)
        << talk.constData();
    EXPECT_EQ(daemon.count(MESSAGE_GENERATE_LISTING), 1);
    EXPECT_EQ(read("file"), "1");
}

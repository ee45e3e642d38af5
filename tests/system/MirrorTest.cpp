#include "tests/system/SystemTest.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <csignal>
#include <filesystem>
#include <map>
#include <random>

namespace {

namespace fs = std::filesystem;

constexpr time_t kTime = 1'714'521'600;

struct ToolRun {
    int status = -1;
    std::string output;  ///< data and talk
};

/// A file's bytes and modification time.
using Contents = std::pair<std::string, time_t>;

/// storagectl's listing, mirror and check against the real daemon.
class MirrorTest : public SystemTest {
protected:
    void SetUp() override {
        SystemTest::SetUp();
        fs::create_directory("/root/data/user1");
        ASSERT_NO_FATAL_FAILURE(startBoth());
    }

    void startTool(ChildProcess& tool, std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), STORAGECTL_PROGRAM);
        ChildProcess::Options options;
        options.command = arguments;
        options.environment = {{"SCADA_BUS_URL", _broker.url()}};
        tool.start(options);
    }
    ToolRun run(const std::vector<std::string>& arguments) {
        ChildProcess tool;
        startTool(tool, arguments);
        const std::optional<int> status = tool.waitForExit(60'000);
        EXPECT_TRUE(answersKeepAlive(5000));
        return {status.value_or(-1000), tool.log()};
    }
    ToolRun mirror(std::vector<std::string> more = {}) {
        more.insert(more.begin(), {"mirror", kUnit, here(), "--folder", "user1"});
        return run(more);
    }
    ToolRun check(std::vector<std::string> more = {}) {
        more.insert(more.begin(), {"check", kUnit, here(), "--folder", "user1"});
        return run(more);
    }
    /// The last line that a run with --json printed.
    static QJsonObject lastObject(const ToolRun& run) {
        const QByteArray lines = QByteArray::fromStdString(run.output).trimmed();
        return QJsonDocument::fromJson(lines.mid(lines.lastIndexOf('\n') + 1)).object();
    }

    std::string here() const { return _folder.filePath("mirror").toStdString(); }

    static void writeOnUnit(const std::string& name, const std::string& contents,
                            time_t modified = kTime) {
        const std::string path = std::string(kUnit) + '/' + name;
        fs::create_directories(fs::path(path).parent_path());
        writeFile(path, contents);
        const timespec times[2] = {{0, UTIME_OMIT}, {modified, 0}};
        ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    }
    /// Half of it repeats.
    static std::string recording(int length, unsigned seed) {
        std::mt19937 random(seed);
        std::string bytes(static_cast<std::size_t>(length), '\0');
        for (std::size_t i = 0; i < bytes.size(); i += 2) {
            bytes[i] = static_cast<char>(random());
        }
        return bytes;
    }
    static std::map<std::string, Contents> treeOf(const std::string& root) {
        std::map<std::string, Contents> tree;
        for (const fs::directory_entry& entry : fs::recursive_directory_iterator(root)) {
            struct stat status = {};
            if (entry.is_regular_file() && ::stat(entry.path().c_str(), &status) == 0) {
                tree[entry.path().string().substr(root.size())] = {readFile(entry.path()),
                                                                   status.st_mtim.tv_sec};
            }
        }
        return tree;
    }
    void expectSameTrees() const { EXPECT_TRUE(treeOf(here()) == treeOf(kUnit)); }

    static constexpr char kUnit[] = "/mmc/job";
    QTemporaryDir _folder;
};

TEST_F(MirrorTest, AMirrorIsByteExactAndTheSecondRunFetchesNothing) {
    for (int i = 0; i < 200; ++i) {
        writeOnUnit("day-" + std::to_string(i % 7) + "/file-" + std::to_string(i),
                    recording(i * 500, static_cast<unsigned>(i)), kTime + i);
    }
    const ToolRun first = mirror({"--json"});
    EXPECT_EQ(first.status, 0) << first.output;
    EXPECT_EQ(lastObject(first)["fetched"], 200);
    expectSameTrees();
    const ToolRun second = mirror({"--json"});
    EXPECT_EQ(second.status, 0);
    EXPECT_EQ(lastObject(second)["fetched"], 0);
    EXPECT_EQ(lastObject(second)["same"], 200);
    EXPECT_EQ(lastObject(second)["wireBytes"], 0);
    EXPECT_EQ(check().status, 0);
    EXPECT_EQ(check({"--hash"}).status, 0);
}

TEST_F(MirrorTest, OnlyTheEndOfAGrownFileTravels) {
    const std::string day = recording(2'000'000, 1);
    writeOnUnit("day", day.substr(0, 1'500'000));
    ASSERT_EQ(mirror().status, 0);
    writeOnUnit("day", day, kTime + 60);
    const ToolRun run = mirror({"--json"});
    EXPECT_EQ(run.status, 0) << run.output;
    EXPECT_EQ(lastObject(run)["keptBytes"], 1'500'000);
    EXPECT_LT(lastObject(run)["wireBytes"].toInt(), 550'000);
    expectSameTrees();
}

TEST_F(MirrorTest, AFileOfAnotherTimeAndTheSameContentsIsProvedAndNotSent) {
    writeOnUnit("file", recording(500'000, 2));
    ASSERT_EQ(mirror().status, 0);
    writeOnUnit("file", recording(500'000, 2), kTime + 60);
    const ToolRun run = mirror({"--json"});
    EXPECT_EQ(run.status, 0) << run.output;
    EXPECT_LT(lastObject(run)["wireBytes"].toInt(), 1000);
    expectSameTrees();
}

TEST_F(MirrorTest, AFileThatWasRewrittenIsFetchedAnew) {
    writeOnUnit("larger", "old");
    writeOnUnit("smaller", recording(100'000, 3));
    writeOnUnit("same-size", "abc");
    ASSERT_EQ(mirror().status, 0);
    writeOnUnit("larger", recording(100'000, 4), kTime + 1);
    writeOnUnit("smaller", "new", kTime + 1);
    writeOnUnit("same-size", "abd", kTime + 1);
    EXPECT_EQ(check().status, 1);
    EXPECT_EQ(mirror().status, 0);
    expectSameTrees();
    EXPECT_EQ(check({"--hash"}).status, 0);
}

TEST_F(MirrorTest, NamesThatAListingCarries) {
    for (const char* const name :
         {"a,b", "m\u00E4rz/\u00FC", "two words", "*", "[x]", "a|b", "-n"}) {
        writeOnUnit(name, name);
    }
    const ToolRun run = mirror();
    EXPECT_EQ(run.status, 0) << run.output;
    EXPECT_EQ(run.output.find("directory by directory"), std::string::npos) << run.output;
    expectSameTrees();
}

TEST_F(MirrorTest, NamesThatAListingCannotCarryAreAskedForOtherwise) {
    for (const char* const name : {"\u65E5\u672C/\u8A9E", "a?b", "plain"}) {
        writeOnUnit(name, name);
    }
    const ToolRun run = mirror();
    EXPECT_EQ(run.status, 0) << run.output;
    EXPECT_NE(run.output.find("directory by directory"), std::string::npos) << run.output;
    expectSameTrees();
}

TEST_F(MirrorTest, WithoutAFolderTheTreeIsReadDirectoryByDirectory) {
    writeOnUnit("a/b/c", "c");
    writeOnUnit("d", "d");
    const ToolRun run = this->run({"mirror", kUnit, here()});
    EXPECT_EQ(run.status, 0) << run.output;
    EXPECT_NE(run.output.find("directory by directory"), std::string::npos) << run.output;
    expectSameTrees();
}

TEST_F(MirrorTest, AFolderThatCannotBeWrittenIsSaidAndDoesNotStopIt) {
    writeOnUnit("file", "x");
    const ToolRun run = this->run({"mirror", kUnit, here(), "--folder", "missing"});
    EXPECT_EQ(run.status, 0) << run.output;
    EXPECT_NE(run.output.find("made no listing"), std::string::npos) << run.output;
    expectSameTrees();
}

TEST_F(MirrorTest, ADirectoryThatIsMissingIsNotFound) {
    EXPECT_EQ(mirror().status, 4);
    EXPECT_FALSE(fs::exists(here()));
}

TEST_F(MirrorTest, DeleteMakesBothSidesTheSame) {
    writeOnUnit("keep", "keep");
    writeOnUnit("old/gone", "gone");
    ASSERT_EQ(mirror().status, 0);
    fs::remove_all(std::string(kUnit) + "/old");
    EXPECT_EQ(mirror().status, 0);
    EXPECT_TRUE(fs::exists(here() + "/old/gone"));
    EXPECT_EQ(mirror({"--delete"}).status, 0);
    EXPECT_FALSE(fs::exists(here() + "/old"));
    expectSameTrees();
}

TEST_F(MirrorTest, ALinkHereIsNeverWrittenThrough) {
    writeOnUnit("dir/file", "from the unit");
    fs::create_directories(here());
    fs::create_directories(_folder.filePath("outside").toStdString());
    fs::create_symlink("../outside", here() + "/dir");
    const ToolRun run = mirror();
    EXPECT_EQ(run.status, 7) << run.output;
    EXPECT_TRUE(fs::is_empty(_folder.filePath("outside").toStdString()));
}

TEST_F(MirrorTest, ARunThatIsKilledLeavesWholeFilesAndTheSameCommandGoesOn) {
    for (int i = 0; i < 60; ++i) {
        writeOnUnit("old/file-" + std::to_string(i), recording(20'000, static_cast<unsigned>(i)));
    }
    ASSERT_EQ(mirror().status, 0);
    const std::map<std::string, Contents> before = treeOf(kUnit);
    for (int i = 0; i < 60; ++i) {
        writeOnUnit("old/file-" + std::to_string(i),
                    recording(300'000, static_cast<unsigned>(1000 + i)), kTime + 1);
    }
    const std::map<std::string, Contents> after = treeOf(kUnit);
    std::mt19937 random(7);
    int cut = 0;
    for (int i = 0; i < 8; ++i) {
        ChildProcess tool;
        startTool(tool, {"mirror", kUnit, here(), "--folder", "user1", "--bwlimit", "10M"});
        cut += tool.waitForExit(std::uniform_int_distribution<int>(20, 200)(random)) ? 0 : 1;
        tool.kill();
        for (const auto& [name, contents] : treeOf(here())) {
            const bool isPartial = name.ends_with(".part");
            const bool isWhole = isPartial || contents.first == before.at(name).first ||
                                 contents.first == after.at(name).first;
            EXPECT_TRUE(isWhole) << name;
        }
    }
    EXPECT_GT(cut, 3);
    const ToolRun last = mirror();
    EXPECT_EQ(last.status, 0) << last.output;
    expectSameTrees();
}

TEST_F(MirrorTest, ABrokerThatIsKilledInTheMiddleLeavesAMirrorThatGoesOnAndEndsExact) {
    constexpr int kKills = 6;
    for (int i = 0; i < 60; ++i) {
        const auto seed = static_cast<unsigned>(i);
        writeOnUnit("old/file-" + std::to_string(i), recording(100'000, seed));
    }
    ASSERT_EQ(mirror().status, 0);
    for (int i = 0; i < 60; ++i) {
        const auto seed = static_cast<unsigned>(i);
        writeOnUnit("old/file-" + std::to_string(i), recording(200'000, seed), kTime + 1);
        writeOnUnit("new/file-" + std::to_string(i), recording(100'000, seed + 100));
    }
    ChildProcess tool;
    startTool(tool, {"mirror", kUnit, here(), "--folder", "user1", "--retries", "100", "--bwlimit",
                     "6M", "--delete"});
    const auto hasBegun = [this] { return fs::exists(here() + "/new"); };
    for (int waited = 0; waited < 10'000 && !hasBegun(); waited += 10) {
        _client.pump(10);
    }
    ASSERT_TRUE(hasBegun()) << tool.log();
    int kills = 0;
    while (kills < kKills && tool.isRunning()) {
        _client.pump(80);
        _broker.kill();
        ASSERT_NO_FATAL_FAILURE(startBroker());
        ASSERT_TRUE(answersKeepAlive(5000));
        ++kills;
    }
    EXPECT_EQ(kills, kKills);
    EXPECT_EQ(tool.waitForExit(60'000), 0) << tool.log();
    EXPECT_NE(tool.log().find("trying again"), std::string::npos) << tool.log();
    expectSameTrees();
}

TEST_F(MirrorTest, ListingsAreMadeShownAndCompared) {
    writeOnUnit("a", "12345");
    writeOnUnit("m\u00E4rz", "1");
    const ToolRun created = run({"listing", "create", "user1", kUnit});
    EXPECT_EQ(created.status, 0) << created.output;
    EXPECT_NE(created.output.find("/root/data/user1/.files..mmc.job\n"), std::string::npos);
    EXPECT_NE(created.output.find("2 files, 6 bytes"), std::string::npos) << created.output;
    const ToolRun shown = run({"-q", "listing", "show", "user1", kUnit});
    EXPECT_EQ(shown.output, readFile("/root/data/user1/.files..mmc.job"));
    const ToolRun shownLong = run({"-q", "listing", "show", "-l", "user1", kUnit});
    EXPECT_NE(shownLong.output.find("/mmc/job/m\u00E4rz\n"), std::string::npos);
    writeOnUnit("b", "new");
    const ToolRun changed = run({"-q", "listing", "diff", "user1", kUnit});
    EXPECT_EQ(changed.status, 1);
    EXPECT_EQ(changed.output, "+           3  /mmc/job/b\n");
    EXPECT_EQ(run({"listing", "diff", "user1", kUnit}).status, 0);
}

TEST_F(MirrorTest, AListingBelowRootIsWaitedForWithoutNotifications) {
    writeFile("/root/data/user1/file", "x");
    const ToolRun created = run({"listing", "create", "user1", "/root/data"});
    EXPECT_EQ(created.status, 0) << created.output;
    EXPECT_NE(created.output.find("1 files, 1 bytes"), std::string::npos) << created.output;
}

}  // namespace

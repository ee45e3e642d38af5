#include "tests/system/SystemTest.h"

#include <QTemporaryDir>

#include <unistd.h>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>

namespace {

namespace fs = std::filesystem;

constexpr char kUnit[] = "/mmc/tree";
constexpr char kBig[] = "/mmc/big";

/// storagectl get over the download job, against the real daemon.
class FetchTest : public SystemTest {
protected:
    void SetUp() override {
        SystemTest::SetUp();
        ASSERT_NO_FATAL_FAILURE(startBoth());
    }

    void start(ChildProcess& tool, std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), {STORAGECTL_PROGRAM, "get", "-o", here()});
        ChildProcess::Options options;
        options.command = arguments;
        options.environment = {{"SCADA_BUS_URL", _broker.url()}};
        tool.start(options);
    }
    /// Its exit status; the daemon hears keep-alives meanwhile.
    int end(ChildProcess& tool) {
        std::optional<int> status;
        for (int i = 0; i < 60 && !status; ++i) {
            status = tool.waitForExit(1000);
            EXPECT_TRUE(answersKeepAlive(5000));
        }
        return status.value_or(-1000);
    }
    int run(const std::vector<std::string>& arguments) {
        ChildProcess tool;
        start(tool, arguments);
        const int status = end(tool);
        _log = tool.log();
        return status;
    }
    bool awaitPartial(const std::string& name, std::uintmax_t bytes) const {
        std::error_code error;
        for (int i = 0; i < 5000; ++i) {
            const std::uintmax_t size = fs::file_size(here(name + ".part"), error);
            if (!error && size >= bytes) {
                return true;
            }
            usleep(1000);
        }
        return false;
    }

    std::string here(const std::string& name = {}) const {
        return _folder.path().toStdString() + '/' + name;
    }
    /// Stretches that shrink between others that do not.
    static std::string recording(std::size_t length, unsigned seed) {
        std::mt19937 random(seed);
        std::string bytes(length, 'x');
        for (std::size_t i = 0; i < length; ++i) {
            bytes[i] = i / 5000 % 2 == 0 ? 'x' : static_cast<char>(random());
        }
        return bytes;
    }
    static void writeTree(int files, std::size_t bytes) {
        for (int i = 0; i < files; ++i) {
            writeFile(
                std::string(kUnit) + "/day " + std::to_string(i % 7) + "/file-" + std::to_string(i),
                recording(bytes + static_cast<std::size_t>(i), static_cast<unsigned>(i)));
        }
    }
    /// Directories too, as "/".
    static std::map<std::string, std::string> treeOf(const std::string& root) {
        std::map<std::string, std::string> tree;
        for (const fs::directory_entry& entry : fs::recursive_directory_iterator(root)) {
            tree[entry.path().string().substr(root.size())] =
                entry.is_directory() ? "/" : readFile(entry.path());
        }
        return tree;
    }
    void expectSameTrees() const { EXPECT_TRUE(treeOf(here("tree")) == treeOf(kUnit)); }

    QTemporaryDir _folder;
    std::string _log;
};

TEST_F(FetchTest, ATreeOfOddNamesAndOfEveryBlockLengthArrivesByteForByte) {
    const std::vector<std::string> names = {
        ".hidden", "pipe|name", "new\nline", "what?", "\xc3\xbc", "\xe2\x82\xac",
        "%1",      " blank ",   "\"",        "a|b|3", "-dash",    "sub/\xe2\x82\xac"};
    for (const std::string& name : names) {
        writeFile(std::string(kUnit) + '/' + name, recording(70'000, 1));
    }
    for (const std::size_t length : {0, 1, 8147, 8150, 64'511, 64'512, 64'513, 129'024, 500'000}) {
        writeFile(std::string(kUnit) + "/lengths/" + std::to_string(length), recording(length, 2));
    }
    fs::create_directories(std::string(kUnit) + "/empty/below");
    EXPECT_EQ(run({"-r", kUnit}), 0) << _log;
    expectSameTrees();
    EXPECT_EQ(run({"-r", kUnit}), 0) << _log;
    expectSameTrees();
}

TEST_F(FetchTest, LinksThatLeadBackAreLeftOut) {
    writeFile(std::string(kUnit) + "/sub/file", "file");
    fs::create_directory_symlink(".", std::string(kUnit) + "/sub/self");
    fs::create_directory_symlink("..", std::string(kUnit) + "/sub/up");
    EXPECT_EQ(run({"-r", kUnit}), 0) << _log;
    EXPECT_NE(_log.find("taken for a link"), std::string::npos) << _log;
    EXPECT_EQ(readFile(here("tree/sub/file")), "file");
    EXPECT_LT(treeOf(here("tree")).size(), 10U);
}

TEST_F(FetchTest, AKilledClientsNextRunGoesOnFromItsPartialFile) {
    const std::string bytes = recording(8'000'000, 3);
    writeFile(kBig, bytes);
    ChildProcess tool;
    start(tool, {"--bwlimit", "2M", kBig});
    ASSERT_TRUE(awaitPartial("big", 500'000));
    tool.kill();
    EXPECT_EQ(run({"--json", kBig}), 0) << _log;
    EXPECT_EQ(_log.find("\"resumedFrom\":0,"), std::string::npos) << _log;
    EXPECT_TRUE(readFile(here("big")) == bytes);
}

TEST_F(FetchTest, ADaemonThatIsKilledMidwayIsUsedAgainOnceItIsBack) {
    const std::string bytes = recording(8'000'000, 3);
    writeFile(kBig, bytes);
    ChildProcess tool;
    start(tool, {"--timeout", "1", "--retries", "20", "--bwlimit", "4M", kBig});
    ASSERT_TRUE(awaitPartial("big", 500'000));
    _daemon.kill();
    ASSERT_NO_FATAL_FAILURE(startDaemon());
    EXPECT_EQ(end(tool), 0) << tool.log();
    EXPECT_NE(tool.log().find("trying again"), std::string::npos) << tool.log();
    EXPECT_TRUE(readFile(here("big")) == bytes);
}

TEST_F(FetchTest, ABrokerThatIsKilledTwentyTimesDuringATreeLeavesItByteExact) {
    constexpr int kKills = 20;
    writeTree(200, 100'000);
    ChildProcess tool;
    start(tool, {"-r", "--retries", "100", "--bwlimit", "3M", kUnit});
    int kills = 0;
    while (kills < kKills && tool.isRunning()) {
        _client.pump(80);
        _broker.kill();
        ASSERT_NO_FATAL_FAILURE(startBroker());
        ASSERT_TRUE(answersKeepAlive(5000));
        ++kills;
    }
    EXPECT_EQ(kills, kKills);
    EXPECT_EQ(end(tool), 0) << tool.log();
    expectSameTrees();
}

TEST_F(FetchTest, AFileThatGrowsMeanwhileIsAPrefixOfItself) {
    const std::string bytes = recording(4'000'000, 3);
    writeFile(kBig, bytes);
    ChildProcess tool;
    start(tool, {"--bwlimit", "2M", kBig});
    std::ofstream growing(kBig, std::ios::binary | std::ios::app);
    ASSERT_TRUE(awaitPartial("big", 200'000));
    for (int i = 0; i < 400 && tool.isRunning(); ++i) {
        growing << "one more record" << std::flush;
        usleep(5000);
    }
    EXPECT_EQ(end(tool), 0) << tool.log();
    EXPECT_NE(tool.log().find("grew"), std::string::npos) << tool.log();
    growing.close();
    const std::string whole = readFile(kBig);
    const std::string fetched = readFile(here("big"));
    EXPECT_GE(fetched.size(), bytes.size());
    EXPECT_TRUE(whole.compare(0, fetched.size(), fetched) == 0);
    EXPECT_EQ(run({"--json", kBig}), 0) << _log;
    EXPECT_TRUE(readFile(here("big")) == whole);
    EXPECT_NE(_log.find("\"resumedFrom\":" + std::to_string(fetched.size())), std::string::npos);
}

TEST_F(FetchTest, FilesThatVanishMeanwhileAreToldAndTheOthersArrive) {
    writeTree(100, 50'000);
    ChildProcess tool;
    start(tool, {"-r", "--bwlimit", "2M", kUnit});
    ASSERT_TRUE(_daemon.waitForLog("bytes of file", 5000));
    int removed = 0;
    for (int i = 50; i < 100; ++i) {
        removed += fs::remove(std::string(kUnit) + "/day " + std::to_string(i % 7) + "/file-" +
                              std::to_string(i))
                       ? 1
                       : 0;
    }
    EXPECT_EQ(removed, 50);
    EXPECT_EQ(end(tool), 3) << tool.log();
    const auto fetched = treeOf(here("tree"));
    for (const auto& [name, bytes] : treeOf(kUnit)) {
        const auto found = fetched.find(name);
        ASSERT_NE(found, fetched.end()) << name;
        EXPECT_TRUE(found->second == bytes) << name;
    }
}

TEST_F(FetchTest, WhereTheDaemonHasNoRoomForADownloadTheFileIsRead) {
    writeFile(kBig, recording(300'000, 3));
    for (int i = 0; i < 64; ++i) {
        sendFrom(5000 + i, WireMessage(0x14B0).integer(1).text(kBig).encoded());
    }
    settle();
    EXPECT_EQ(run({kBig}), 0) << _log;
    EXPECT_NE(_log.find("piece by piece"), std::string::npos) << _log;
    EXPECT_TRUE(readFile(here("big")) == readFile(kBig));
}

}  // namespace

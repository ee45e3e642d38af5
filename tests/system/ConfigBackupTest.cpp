#include "tests/system/SystemTest.h"

#include <sys/types.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <random>

namespace {

namespace fs = std::filesystem;

constexpr char kPanel[] = "/root/config/panel";
constexpr char kArchive[] = "/root/config/site.configBackup";
constexpr char kSpareArchive[] = "/root/data/spare";
constexpr char kScratch[] = "/root/config/configBackup";
constexpr char kRestart[] = "System/restartApplication";
constexpr int kFiles = 200;
constexpr int kMinute = 60'000;

/// The real daemon making and restoring archives of a folder whose files all say the same.
class ConfigBackupTest : public SystemTest {
protected:
    static void writePanel(const std::string& word) {
        fs::remove_all(kPanel);
        // Of little help to gzip, so that each step takes a while.
        std::mt19937 random(std::hash<std::string>()(word));
        for (int i = 0; i < kFiles; ++i) {
            std::string content = word + '\n';
            for (int j = 0; j < 20'000; ++j) {
                content += static_cast<char>(random());
            }
            writeFile(file(i), content);
        }
    }

    static std::string file(int number) {
        return std::string(kPanel) + "/area" + std::to_string(number % 7) + "/page" +
               std::to_string(number);
    }

    /// What its files say, "mixed" where they do not agree or one is missing.
    static std::string panel() {
        const std::string first = readFile(file(0));
        const std::string word = first.substr(0, first.find('\n'));
        for (int i = 0; i < kFiles; ++i) {
            const std::string content = readFile(file(i));
            if (content.size() != first.size() || !content.starts_with(word + '\n')) {
                return "mixed";
            }
        }
        return word;
    }

    static WireMessage backup(const std::string& folder, const std::string& archive) {
        return WireMessage(0x14C0).text(folder).text(archive);
    }
    static WireMessage restore(const std::string& folder, const std::string& archive) {
        return WireMessage(0x14C1).text(folder).text(archive);
    }

    /// The flag in the reply, -1 where that is none.
    int flagOf(const WireMessage& request) {
        const WireMessage reply = replyTo(send(request), kMinute);
        EXPECT_EQ(reply.command, request.command);
        return reply.format == "c" ? reply.number(0) : -1;
    }

    std::size_t restarts() { return takeAll(kRestart).size(); }

    /// Sends a request and kills the daemon so long after it.
    void killDuring(const WireMessage& request, int microseconds) {
        send(request);
        ASSERT_TRUE(_client.flush(1000));
        usleep(static_cast<useconds_t>(microseconds));
        _daemon.kill();
    }

    /// How long a request takes.
    int measured(const WireMessage& request) {
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(flagOf(request), 1);
        const auto taken = std::chrono::steady_clock::now() - begin;
        return static_cast<int>(
            std::chrono::duration_cast<std::chrono::microseconds>(taken).count());
    }

    /// A process that runs tar for the daemon.
    pid_t tar() const {
        for (const fs::directory_entry& entry : fs::directory_iterator("/proc")) {
            const std::string stat = readFile(entry.path() / "stat");
            const std::string parent = ") S " + std::to_string(_daemon.pid()) + ' ';
            const std::string running = ") R " + std::to_string(_daemon.pid()) + ' ';
            if (stat.find("(tar") != std::string::npos &&
                (stat.find(parent) != std::string::npos ||
                 stat.find(running) != std::string::npos)) {
                return std::stoi(entry.path().filename());
            }
        }
        return 0;
    }
};

}  // namespace

TEST_F(ConfigBackupTest, FlagsRestartsAndFiles) {
    writePanel("new");
    writeFile("/root/config/job.xml", "job");
    ASSERT_NO_FATAL_FAILURE(startBoth());
    EXPECT_EQ(flagOf(backup("panel", "site.tar.gz")), 0);
    EXPECT_EQ(flagOf(restore("panel", "site.configBackup")), 0);
    EXPECT_EQ(flagOf(backup("panel", "site.configBackup")), 1);
    EXPECT_TRUE(exists(kArchive));
    EXPECT_EQ(restarts(), 0U);
    writePanel("old");
    EXPECT_EQ(flagOf(restore("panel", "site.configBackup")), 1);
    EXPECT_EQ(panel(), "new");
    EXPECT_EQ(next(kRestart), "");
    EXPECT_FALSE(exists(kArchive));
    EXPECT_EQ(flagOf(restore("panel", "site.configBackup")), 0);
    settle();
    EXPECT_EQ(restarts(), 0U);
}

TEST_F(ConfigBackupTest, RequestsAndKeepAlivesThatCameMeanwhileAreAnsweredAfterwardsInOrder) {
    writePanel("new");
    writeFile("/root/data/file", "served");
    ASSERT_NO_FATAL_FAILURE(startBoth());
    const int first = send(backup("panel", "site.configBackup"));
    const int second = send(requests::open("/root/data/file", kReadOnly));
    EXPECT_TRUE(answersKeepAlive(kMinute));
    const std::vector<Reply> replies = takeReplies();
    ASSERT_EQ(replies.size(), 2U);
    EXPECT_EQ(replies[0].connection, first);
    EXPECT_EQ(replies[1].connection, second);
    const WireMessage read = ask(requests::read(0, 0, 6));
    EXPECT_EQ(read.bytes(2), "served");
    EXPECT_EQ(_daemon.openDescriptors(), [this] {
        EXPECT_EQ(flagOf(restore("panel", "site.configBackup")), 1);
        return _daemon.openDescriptors();
    }());
}

TEST_F(ConfigBackupTest, KilledDuringARestoreTheFolderIsTheOldOrTheNewOne) {
    writePanel("new");
    writeFile("/root/config/system.xml", "system");
    ASSERT_NO_FATAL_FAILURE(startBoth());
    ASSERT_EQ(flagOf(backup("panel", "site.configBackup")), 1);
    fs::copy(kArchive, kSpareArchive);
    writePanel("old");
    const int taken = measured(restore("panel", "site.configBackup"));
    std::mt19937 random(1);
    std::map<std::string, int> seen;
    for (int round = 0; round < 25; ++round) {
        writePanel("old");
        fs::copy(kSpareArchive, kArchive, fs::copy_options::overwrite_existing);
        killDuring(restore("panel", "site.configBackup"),
                   static_cast<int>(random() % static_cast<unsigned>(taken * 5 / 4)));
        const std::string word = panel();
        ASSERT_TRUE(word == "old" || word == "new") << word << " in round " << round;
        ++seen[word];
        // The archive is used up only by a restore that is through.
        ASSERT_TRUE(word == "new" || exists(kArchive));
        ASSERT_NO_FATAL_FAILURE(startDaemon());
    }
    EXPECT_GT(seen["old"], 0);
    fs::copy(kSpareArchive, kArchive, fs::copy_options::overwrite_existing);
    EXPECT_EQ(flagOf(restore("panel", "site.configBackup")), 1);
    EXPECT_EQ(panel(), "new");
    EXPECT_FALSE(exists(kScratch));
    EXPECT_EQ(readFile("/root/config/system.xml"), "system");
}

TEST_F(ConfigBackupTest, KilledDuringABackupTheArchiveIsTheOldOrTheNewOne) {
    writePanel("old");
    ASSERT_NO_FATAL_FAILURE(startBoth());
    ASSERT_EQ(flagOf(backup("panel", "site.configBackup")), 1);
    const std::string old = readFile(kArchive);
    writePanel("new");
    const int taken = measured(backup("panel", "other.configBackup"));
    std::mt19937 random(2);
    for (int round = 0; round < 12; ++round) {
        killDuring(backup("panel", "site.configBackup"),
                   static_cast<int>(random() % static_cast<unsigned>(taken)));
        ASSERT_NO_FATAL_FAILURE(startDaemon());
        if (readFile(kArchive) == old) {
            continue;
        }
        writePanel("changed");
        EXPECT_EQ(flagOf(restore("panel", "site.configBackup")), 1);
        ASSERT_EQ(panel(), "new");
        writeFile(kArchive, old);
    }
    EXPECT_EQ(flagOf(backup("panel", "site.configBackup")), 1);
    EXPECT_FALSE(exists(kScratch));
    EXPECT_FALSE(exists("/root/config/.configBackup.part"));
}

TEST_F(ConfigBackupTest, AKilledTarLeavesEverythingAsItWas) {
    writePanel("new");
    ASSERT_NO_FATAL_FAILURE(startBoth());
    ASSERT_EQ(flagOf(backup("panel", "site.configBackup")), 1);
    const std::string archive = readFile(kArchive);
    writePanel("old");
    int killed = 0;
    for (const WireMessage& request :
         {backup("panel", "site.configBackup"), restore("panel", "site.configBackup")}) {
        const int connection = send(request);
        ASSERT_TRUE(_client.flush(1000));
        pid_t process = 0;
        for (int i = 0; i < 5000 && process == 0; ++i) {
            process = tar();
        }
        if (process > 0 && ::kill(process, SIGKILL) == 0) {
            ++killed;
        }
        EXPECT_EQ(replyTo(connection, kMinute).number(0), 1);
        EXPECT_EQ(readFile(kArchive), archive);
        EXPECT_EQ(panel(), "old");
        EXPECT_FALSE(exists(kScratch));
    }
    EXPECT_EQ(killed, 2);
}

TEST_F(ConfigBackupTest, HundredThousandFilesComeBack) {
    ASSERT_NO_FATAL_FAILURE(startBoth());
    fs::create_directories(kPanel);
    for (int i = 0; i < 100'000; ++i) {
        std::ofstream(std::string(kPanel) + '/' + std::to_string(i));
    }
    EXPECT_EQ(flagOf(backup("panel", "site.configBackup")), 1);
    fs::remove(std::string(kPanel) + "/5");
    EXPECT_EQ(flagOf(restore("panel", "site.configBackup")), 1);
    EXPECT_EQ(std::distance(fs::directory_iterator(kPanel), {}), 100'000);
    EXPECT_TRUE(answersKeepAlive(5000));
}

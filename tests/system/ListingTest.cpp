#include "tests/system/SystemTest.h"

#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <sstream>

namespace {

constexpr int kGenerateListing = 0x14A0;
constexpr int kListingFinished = 0x14A1;
constexpr char kCardListing[] = "/root/data/user1/.files..mmc";
constexpr int kAtOnce = 8;
constexpr int kWaiting = 64;
constexpr int kNiceValue = 15;

WireMessage listingRequest(const std::string& folder, const std::string& root) {
    return WireMessage(kGenerateListing).text(folder).text(root);
}

class ListingTest : public SystemTest {
protected:
    void SetUp() override {
        SystemTest::SetUp();
        std::filesystem::create_directories("/root/data/user1");
    }

    /// So many files that a child is at work for a while.
    static void fillCard() {
        constexpr int kFolders = 20;
        constexpr int kFilesEach = 500;
        for (int folder = 0; folder < kFolders; ++folder) {
            for (int file = 0; file < kFilesEach; ++file) {
                writeFile("/mmc/" + std::to_string(folder) + "/" + std::to_string(file), "");
            }
        }
    }

    void expectListing(const WireMessage& reply, const std::string& root, const std::string& path) {
        EXPECT_EQ(reply.command, kListingFinished);
        ASSERT_EQ(reply.format, "SS");
        EXPECT_EQ(reply.bytes(0), root);
        EXPECT_EQ(reply.bytes(1), path);
    }

    /// Returns the notification's id.
    int expectNotification(const std::string& topic, const std::string& title,
                           const std::string& text, int total) {
        const WireMessage message = nextMessage(topic);
        EXPECT_EQ(message.command, 0);
        if (message.format != "iiiSSiiii") {
            ADD_FAILURE() << message.format;
            return -1;
        }
        EXPECT_EQ(message.number(0), _daemon.pid());
        EXPECT_LE(std::abs(message.number(2) - std::time(nullptr)), 60);
        EXPECT_EQ(message.bytes(3), title);
        EXPECT_EQ(message.bytes(4), text);
        EXPECT_EQ(message.number(5), 0);
        EXPECT_EQ(message.number(6), total);
        EXPECT_EQ(message.number(7), 0);
        EXPECT_EQ(message.number(8), 3600);
        return message.number(1);
    }

    void expectDelete(int id) {
        const WireMessage message = nextMessage("Notification/delete");
        EXPECT_EQ(message.command, 0);
        ASSERT_EQ(message.format, "ii");
        EXPECT_EQ(message.number(0), _daemon.pid());
        EXPECT_EQ(message.number(1), id);
    }

    bool hasArrived(const std::string& topic) const {
        return std::any_of(
            _client.deliveries.begin(), _client.deliveries.end(),
            [&](const RawBusClient::Delivery& delivery) { return delivery.topic == topic; });
    }

    void expectNoNotification() const {
        for (const RawBusClient::Delivery& delivery : _client.deliveries) {
            EXPECT_FALSE(delivery.topic.starts_with("Notification/")) << delivery.topic;
        }
    }
};

TEST_F(ListingTest, AListingOfTheCardIsNotifiedWrittenAndAnswered) {
    writeFile("/mmc/a", "hello");
    writeFile("/mmc/x/b", "");
    ASSERT_NO_FATAL_FAILURE(startBoth());
    const WireMessage reply = ask(listingRequest("user1", "/mmc"));
    EXPECT_TRUE(hasArrived("Notification/delete")) << "before the reply";
    expectListing(reply, "/mmc", kCardListing);

    const std::string title = "Creating file listings for card storage";
    const std::string text = title + " : data availability may be out of date";
    const int id = expectNotification("Notification/add", title, text, 0);
    EXPECT_GT(id, 0);
    EXPECT_EQ(expectNotification("Notification/update", title, text, 2), id);
    expectDelete(id);

    const std::string listing = readFile(kCardListing);
    EXPECT_TRUE(listing.starts_with("5,")) << listing;
    EXPECT_NE(listing.find(",/mmc/a\n0,"), std::string::npos) << listing;
    EXPECT_TRUE(listing.ends_with(",/mmc/x/b\n")) << listing;
    EXPECT_TRUE(awaitChildren(0, 5000));
}

TEST_F(ListingTest, TheListingIsWhatTheFileServiceReads) {
    writeFile("/mmc/a", "");
    ASSERT_NO_FATAL_FAILURE(startBoth());
    const WireMessage reply = ask(listingRequest("user1", "/mmc"));
    ASSERT_EQ(reply.format, "SS");
    const int handle = open(reply.bytes(1), kReadOnly);
    ASSERT_GE(handle, 0);
    const std::string listing = readFile(kCardListing);
    const WireMessage read = ask(requests::read(handle, 0, static_cast<int>(listing.size())));
    ASSERT_EQ(read.format, "iiB");
    EXPECT_EQ(read.bytes(2), listing);
}

TEST_F(ListingTest, AListingBelowRootIsAnsweredWithoutANotification) {
    writeFile("/root/data/user1/a", "");
    ASSERT_NO_FATAL_FAILURE(startBoth());
    const std::string path = "/root/data/user1/.files..root.data.user1";
    expectListing(ask(listingRequest("user1", "/root/data/user1")), "/root/data/user1", path);
    EXPECT_TRUE(readFile(path).ends_with(",/root/data/user1/a\n"));
    ASSERT_TRUE(awaitChildren(0, 5000));
    settle();
    expectNoNotification();
}

TEST_F(ListingTest, AnotherRootIsNotifiedUnderItsName) {
    ASSERT_NO_FATAL_FAILURE(startBoth());
    const std::string root = "/tmp/usb";
    std::filesystem::create_directories(root + "/x");
    expectListing(ask(listingRequest("user1", root)), root, "/root/data/user1/.files..tmp.usb");
    const std::string text = "Generating file listings for " + root;
    const int id = expectNotification("Notification/add", "Generating file listings", text, 0);
    EXPECT_EQ(expectNotification("Notification/update", "Generating file list", text, 1), id);
    expectDelete(id);
}

TEST_F(ListingTest, ARootThatDoesNotExistIsAnsweredWithAnEmptyPath) {
    ASSERT_NO_FATAL_FAILURE(startBoth());
    expectListing(ask(listingRequest("user1", "/mmc/missing")), "/mmc/missing", "");
    const std::string title = "Creating file listings for card storage";
    expectDelete(expectNotification("Notification/add", title,
                                    title + " : data availability may be out of date", 0));
    EXPECT_TRUE(takeAll("Notification/update").empty());
    EXPECT_TRUE(
        _daemon.waitForLog("FileHashManager: generateFileListing root \"/mmc/missing\" "
                           "does not exist!\n",
                           5000));
}

TEST_F(ListingTest, AFolderThatCannotBeWrittenIsAnsweredWithAnEmptyPath) {
    ASSERT_NO_FATAL_FAILURE(startBoth());
    for (const char* folder : {"user2", "", "..", "../config", "user1/.."}) {
        expectListing(ask(listingRequest(folder, "/mmc")), "/mmc", "");
    }
    EXPECT_TRUE(std::filesystem::is_empty("/root/data/user1"));
    EXPECT_TRUE(std::filesystem::is_empty("/root/config"));
}

TEST_F(ListingTest, ARequestWithoutParametersIsAnsweredToo) {
    ASSERT_NO_FATAL_FAILURE(startBoth());
    expectListing(ask(WireMessage(kGenerateListing)), "", "");
}

TEST_F(ListingTest, TheRootComesBackAsItsBytes) {
    ASSERT_NO_FATAL_FAILURE(startBoth());
    const std::string root = "/mmc/m\u00E4rz \u65E5";
    std::filesystem::create_directories(root);
    expectListing(ask(listingRequest("user1", root)), root,
                  "/root/data/user1/.files..mmc.m\u00E4rz \u65E5");
}

TEST_F(ListingTest, TwoRequestsForOneListingAreBothAnsweredWithAWholeOne) {
    fillCard();
    ASSERT_NO_FATAL_FAILURE(startBoth());
    const int first = send(listingRequest("user1", "/mmc"));
    const int second = send(listingRequest("user1", "/mmc"));
    for (const int connection : {first, second}) {
        expectListing(replyTo(connection, 30'000), "/mmc", kCardListing);
        const std::string listing = readFile(kCardListing);
        EXPECT_EQ(std::count(listing.begin(), listing.end(), '\n'), 10'000);
    }
    EXPECT_FALSE(exists("/root/data/user1/.files.temp..mmc"));
}

TEST_F(ListingTest, TheDaemonAnswersWhileAListingIsMade) {
    fillCard();
    ASSERT_NO_FATAL_FAILURE(startBoth());
    const int connection = send(listingRequest("user1", "/mmc"));
    ASSERT_TRUE(_client.pumpUntil([&] { return !children().empty(); }, 5000));
    EXPECT_TRUE(answersKeepAlive(1000));
    EXPECT_GE(open("/root/data/file", kReadWrite), 0);
    expectListing(replyTo(connection, 30'000), "/mmc", kCardListing);
}

TEST_F(ListingTest, FiftyThousandNamesInOneDirectoryAreAllListedInOrder) {
    constexpr int kNames = 50'000;
    std::filesystem::create_directory("/mmc/day");
    for (int i = 0; i < kNames; ++i) {
        const std::string path = "/mmc/day/" + std::to_string(1'000'000 + i);
        ASSERT_EQ(::mknod(path.c_str(), S_IFREG | 0644, 0), 0);
    }
    ASSERT_NO_FATAL_FAILURE(startBoth());
    expectListing(replyTo(send(listingRequest("user1", "/mmc")), 60'000), "/mmc", kCardListing);
    std::istringstream listing(readFile(kCardListing));
    int name = 0;
    for (std::string line; std::getline(listing, line); ++name) {
        ASSERT_TRUE(line.starts_with("0,")) << line;
        ASSERT_TRUE(line.ends_with(",/mmc/day/" + std::to_string(1'000'000 + name))) << line;
    }
    EXPECT_EQ(name, kNames);
}

TEST_F(ListingTest, TheWorkYieldsToTheDaemon) {
    fillCard();
    ASSERT_NO_FATAL_FAILURE(startBoth());
    const int connection = send(listingRequest("user1", "/mmc"));
    const auto hasYielded = [this] {
        const std::vector<pid_t> working = children();
        return !working.empty() &&
               getpriority(PRIO_PROCESS, static_cast<id_t>(working.front())) == kNiceValue;
    };
    EXPECT_TRUE(_client.pumpUntil(hasYielded, 5000));
    expectListing(replyTo(connection, 30'000), "/mmc", kCardListing);
}

TEST_F(ListingTest, EightListingsAreMadeAtOnceAndSixtyFourMoreInTurn) {
    fillCard();
    ASSERT_NO_FATAL_FAILURE(startBoth());
    _daemon.pause();
    std::vector<int> connections;
    for (int i = 0; i < kAtOnce + kWaiting + 5; ++i) {
        connections.push_back(send(listingRequest("user1", "/mmc")));
    }
    _daemon.resume();
    std::size_t most = 0;
    const auto areAllAnswered = [&] {
        most = std::max(most, children().size());
        return repliesWaiting() == kAtOnce + kWaiting;
    };
    ASSERT_TRUE(_client.pumpUntil(areAllAnswered, 90'000)) << repliesWaiting();
    ASSERT_TRUE(awaitChildren(0, 5000));
    settle();
    std::vector<int> answered;
    for (const Reply& reply : takeReplies()) {
        answered.push_back(reply.connection);
    }
    std::sort(answered.begin(), answered.end());
    connections.resize(kAtOnce + kWaiting);
    EXPECT_EQ(answered, connections) << "those beyond are dropped, as by a failed fork";
    EXPECT_LE(most, kAtOnce);
    EXPECT_EQ(takeAll("Notification/add").size(), kAtOnce + kWaiting + 5);
    EXPECT_EQ(takeAll("Notification/delete").size(), kAtOnce + kWaiting);
}

TEST_F(ListingTest, AChildThatIsKilledLeavesTheLastListingAndHoldsNobodyUp) {
    fillCard();
    ASSERT_NO_FATAL_FAILURE(startBoth());
    expectListing(replyTo(send(listingRequest("user1", "/mmc")), 30'000), "/mmc", kCardListing);
    ASSERT_TRUE(awaitChildren(0, 5000));
    const std::string before = readFile(kCardListing);
    send(listingRequest("user1", "/mmc"));
    ASSERT_TRUE(_client.pumpUntil([&] { return !children().empty(); }, 5000));
    for (const pid_t child : children()) {
        ASSERT_EQ(kill(child, SIGKILL), 0);
    }
    ASSERT_TRUE(awaitChildren(0, 5000));
    EXPECT_EQ(readFile(kCardListing), before);
    expectListing(replyTo(send(listingRequest("user1", "/mmc")), 30'000), "/mmc", kCardListing);
    EXPECT_EQ(readFile(kCardListing), before);
}

}  // namespace

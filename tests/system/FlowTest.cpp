#include "tests/system/SystemTest.h"

#include <thread>

namespace {

class FlowTest : public SystemTest {
protected:
    static constexpr std::int64_t kMiB = 1024 * 1024;
};

TEST_F(FlowTest, FiveThousandPipelinedRequestsOfASlowReaderAreAnsweredInOrder) {
    constexpr int kRequests = 5000;
    std::string content(kRequests + 2000, '\0');
    for (std::size_t i = 0; i < content.size(); ++i) {
        content[i] = static_cast<char>('a' + i % 23);
    }
    writeFile("/root/data/a", content);
    ASSERT_NO_FATAL_FAILURE(startBoth());
    const int handle = open("/root/data/a", kReadOnly);
    settle();
    for (int i = 0; i < kRequests; ++i) {
        sendFrom(i, requests::read(handle, i, 1 + i % 2000).encoded());
    }
    ASSERT_TRUE(_client.flush(5000));
    std::this_thread::sleep_for(std::chrono::seconds(2));
    // A few bytes now and then, and the rest in its own time.
    for (int i = 0; i < 20; ++i) {
        _client.pump(5);
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
    }
    ASSERT_TRUE(_client.pumpUntil([&] { return repliesWaiting() >= kRequests; }, 20000))
        << repliesWaiting();
    settle();
    const std::vector<Reply> replies = takeReplies();
    ASSERT_EQ(replies.size(), static_cast<std::size_t>(kRequests));
    for (int i = 0; i < kRequests; ++i) {
        const Reply& reply = replies[static_cast<std::size_t>(i)];
        ASSERT_EQ(reply.connection, i);
        const std::optional<WireMessage> message = WireMessage::decoded(reply.payload);
        ASSERT_TRUE(message && message->format == "iiB");
        ASSERT_EQ(message->bytes(2), content.substr(static_cast<std::size_t>(i), 1 + i % 2000));
    }
}

TEST_F(FlowTest, TenThousandReadsWhoseAnswersNobodyReadsGrowItByLessThan8MiB) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "a sanitizer keeps freed memory";
#endif
    constexpr int kRequests = 10000;
    writeFile("/root/data/a", std::string(4096, 'a'));
    ASSERT_NO_FATAL_FAILURE(startBoth());
    const int handle = open("/root/data/a", kReadOnly);
    for (int i = 0; i < 100; ++i) {
        ask(requests::read(handle, 0, 4096));
    }
    const std::int64_t before = _daemon.residentBytes();
    std::int64_t most = before;
    for (int i = 0; i < kRequests; ++i) {
        sendFrom(i, requests::read(handle, 0, 4096).encoded());
    }
    ASSERT_TRUE(_client.flush(5000));
    for (int i = 0; i < 60; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        most = std::max(most, _daemon.residentBytes());
    }
    ASSERT_GT(before, 0);
    EXPECT_LE(most - before, 8 * kMiB);
    RecordProperty("growth_kib", static_cast<int>((most - before) / 1024));
    ASSERT_TRUE(_client.pumpUntil([&] { return repliesWaiting() == kRequests; }, 20000))
        << repliesWaiting();
}

TEST_F(FlowTest, ThirtyMebibytesOfWaitingWritesAreTakenInPieceByPiece) {
    constexpr int kWrites = 480;
    constexpr int kBlock = 64 * 1024;
    ASSERT_NO_FATAL_FAILURE(startBoth());
    const int handle = open("/root/data/w", kReadWrite);
    settle();
    const std::int64_t before = _daemon.residentBytes();
    _daemon.pause();
    std::string expected;
    for (int i = 0; i < kWrites; ++i) {
        expected += std::string(kBlock, static_cast<char>('a' + i % 26));
        sendFrom(i, requests::write(handle, i * kBlock, expected.substr(expected.size() - kBlock))
                        .encoded());
    }
    ASSERT_TRUE(_client.flush(10000));
    _daemon.resume();
    std::int64_t most = before;
    const auto done = [&] {
        most = std::max(most, _daemon.residentBytes());
        return repliesWaiting() >= kWrites;
    };
    ASSERT_TRUE(_client.pumpUntil(done, 20000)) << repliesWaiting();
    settle();
    EXPECT_EQ(repliesWaiting(), static_cast<std::size_t>(kWrites));
    EXPECT_TRUE(readFile("/root/data/w") == expected);
#ifndef __SANITIZE_ADDRESS__
    // A drain takes in 4 MiB, which the bus and the queue may each hold once.
    EXPECT_LE(most - before, 12 * kMiB);
#endif
    RecordProperty("growth_kib", static_cast<int>((most - before) / 1024));
}

TEST_F(FlowTest, ANeighbourThatNeverReadsHoldsUpNobodyElse) {
    writeFile("/root/data/a", std::string(64 * 1024, 'a'));
    ASSERT_NO_FATAL_FAILURE(startBoth());
    RawBusClient idle(_broker.socketPath());
    idle.subscribe("#");
    ASSERT_TRUE(idle.connect(2000));
    const int handle = open("/root/data/a", kReadOnly);
    for (int i = 0; i < 300; ++i) {
        ASSERT_EQ(ask(requests::read(handle, 0, 64 * 1024)).format, "iiB");
    }
    EXPECT_TRUE(answersKeepAlive(1000));
}

TEST_F(FlowTest, ThousandsOfRequestsLeakNeitherDescriptorsNorMemory) {
    writeFile("/root/data/a", std::string(4096, 'a'));
    writeFile("/root/data/d/b", "b");
    ASSERT_NO_FATAL_FAILURE(startBoth());
    const auto round = [&] {
        for (int i = 0; i < 500; ++i) {
            const int handle = open("/root/data/a", kReadOnly);
            ASSERT_GE(handle, 0);
            ask(requests::read(handle, 0, 4096));
            ask(requests::read(handle, 4000, 4096));
            ask(requests::close(handle));
            ask(requests::open("/root/data/missing", kReadOnly));
            const WireMessage folder = ask(requests::openDirectory("/root/data/d", "*"));
            ASSERT_EQ(folder.format, "Sii");
            ask(WireMessage(0x1452).integer(folder.number(1)).integer(0));
            ask(WireMessage(0x1451).integer(folder.number(1)));
        }
    };
    ASSERT_NO_FATAL_FAILURE(round());
    const int descriptors = _daemon.openDescriptors();
    const std::int64_t memory = _daemon.privateBytes();
    ASSERT_NO_FATAL_FAILURE(round());
    ASSERT_NO_FATAL_FAILURE(round());
    EXPECT_EQ(_daemon.openDescriptors(), descriptors);
    ASSERT_GT(memory, 0);
#ifndef __SANITIZE_ADDRESS__
    EXPECT_LE(_daemon.privateBytes() - memory, kMiB / 2);
#endif
}

TEST_F(FlowTest, AFileHandleIsClosed30SecondsAfterItsLastUse) {
    writeFile("/root/data/a", "hello");
    writeFile("/root/data/d/b", "b");
    ASSERT_NO_FATAL_FAILURE(startBoth());
    const int before = _daemon.openDescriptors();
    const int idle = open("/root/data/a", kReadOnly);
    const int used = open("/root/data/a", kReadOnly);
    const WireMessage folder = ask(requests::openDirectory("/root/data/d", "*"));
    ASSERT_EQ(folder.format, "Sii");
    EXPECT_EQ(_daemon.openDescriptors(), before + 2);
    _client.pump(20000);
    EXPECT_EQ(ask(requests::read(used, 0, 5)).format, "iiB");
    EXPECT_EQ(_daemon.openDescriptors(), before + 2);
    _client.pump(11500);
    settle();
    EXPECT_EQ(_daemon.openDescriptors(), before + 1);
    EXPECT_EQ(ask(requests::read(used, 0, 5)).format, "iiB");
    EXPECT_TRUE(ask(requests::read(idle, 0, 5)).isBare());
    EXPECT_TRUE(ask(WireMessage(0x1452).integer(folder.number(1)).integer(0)).isBare());
}

TEST_F(FlowTest, WithNothingToDoItSleeps) {
    ASSERT_NO_FATAL_FAILURE(startBoth());
    _client.sendKeepAlivesOn("");
    // From 5 s on without a job's activity a wait is 10 s long.
    _client.pump(5500);
    settle();
    const std::int64_t switches = _daemon.voluntarySwitches();
    const double cpu = _daemon.cpuSeconds();
    _client.pump(8000);
    EXPECT_EQ(_daemon.voluntarySwitches(), switches);
    EXPECT_EQ(_daemon.cpuSeconds(), cpu);
    ASSERT_TRUE(answersKeepAlive(1000));
    _client.pump(100);
    // One wake-up for the delivery, and then the next wait.
    EXPECT_LE(_daemon.voluntarySwitches() - switches, 2);
}

TEST_F(FlowTest, ItsPrivateMemoryIsSmall) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "a sanitizer adds memory of its own";
#endif
    ASSERT_NO_FATAL_FAILURE(startBoth());
    EXPECT_GT(_daemon.privateBytes(), 0);
    EXPECT_LE(_daemon.privateBytes(), 3 * kMiB);
    RecordProperty("private_kib", static_cast<int>(_daemon.privateBytes() / 1024));
    RecordProperty("resident_kib", static_cast<int>(_daemon.residentBytes() / 1024));
}

}  // namespace

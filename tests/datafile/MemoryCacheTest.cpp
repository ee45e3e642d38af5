#include "datafile/MemoryCache.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <thread>
#include <vector>

namespace {

TEST(MemoryCache, A1000ByteBufferServesALaterRequestOf1250) {
    MemoryCache cache(false);
    void* first = cache.acquireBuffer(1000);
    cache.releaseBuffer(first);
    EXPECT_EQ(cache.acquireBuffer(1250), first);
}

TEST(MemoryCache, ARequestOf1252MakesANewBufferAndLeavesThe1000ByteOneFree) {
    MemoryCache cache(false);
    void* first = cache.acquireBuffer(1000);
    cache.releaseBuffer(first);
    void* second = cache.acquireBuffer(1252);
    EXPECT_NE(second, first);
    EXPECT_EQ(cache.acquireBuffer(1251), first);
}

TEST(MemoryCache, ABufferFor1252BytesHolds1566AndNoMore) {
    MemoryCache cache(false);
    void* buffer = cache.acquireBuffer(1252);
    cache.releaseBuffer(buffer);
    EXPECT_EQ(cache.acquireBuffer(1566), buffer);
    cache.releaseBuffer(buffer);
    EXPECT_NE(cache.acquireBuffer(1567), buffer);
}

TEST(MemoryCache, TheMostRecentlyReleasedBufferThatIsLargeEnoughIsTaken) {
    MemoryCache cache(false);
    void* large = cache.acquireBuffer(4000);
    void* small = cache.acquireBuffer(1600);
    cache.releaseBuffer(small);
    cache.releaseBuffer(large);
    EXPECT_EQ(cache.acquireBuffer(1500), large);
    EXPECT_EQ(cache.acquireBuffer(1500), small);
}

TEST(MemoryCache, ANewBufferHoldsAQuarterMoreAndOneByteCutToWholeBytes) {
    constexpr int kRows[][2] = {{0, 1},       {1, 2},         {2, 3},         {3, 4},
                                {4, 6},       {7, 9},         {100, 126},     {999, 1249},
                                {1000, 1251}, {65536, 81921}, {65537, 81922}, {1000001, 1250002}};
    for (const auto& [size, capacity] : kRows) {
        MemoryCache cache(false);
        void* buffer = cache.acquireBuffer(size);
        std::memset(buffer, 0x5A, static_cast<std::size_t>(capacity));
        cache.releaseBuffer(buffer);
        EXPECT_EQ(cache.acquireBuffer(capacity), buffer) << size;
        cache.releaseBuffer(buffer);
        EXPECT_NE(cache.acquireBuffer(capacity + 1), buffer) << size;
    }
}

TEST(MemoryCache, OfEqualBuffersTheOneReleasedLastComesFirst) {
    for (const bool threadSafe : {false, true}) {
        MemoryCache cache(threadSafe);
        void* const buffers[] = {cache.acquireBuffer(10), cache.acquireBuffer(10),
                                 cache.acquireBuffer(10)};
        for (const int released : {1, 0, 2}) {
            cache.releaseBuffer(buffers[released]);
        }
        EXPECT_EQ(cache.acquireBuffer(10), buffers[2]);
        EXPECT_EQ(cache.acquireBuffer(10), buffers[0]);
        EXPECT_EQ(cache.acquireBuffer(10), buffers[1]);
    }
}

TEST(MemoryCache, ASmallBufferReleasedLastIsPassedOverForALargerRequest) {
    MemoryCache cache(false);
    void* large = cache.acquireBuffer(4000);
    void* small = cache.acquireBuffer(100);
    cache.releaseBuffer(large);
    cache.releaseBuffer(small);
    EXPECT_EQ(cache.acquireBuffer(4000), large);
}

TEST(MemoryCache, ReleasingAPointerThatWasNeverAcquiredChangesNothing) {
    MemoryCache cache(false);
    void* held = cache.acquireBuffer(100);
    int stranger = 0;
    cache.releaseBuffer(&stranger);
    cache.releaseBuffer(nullptr);
    cache.releaseBuffer(static_cast<char*>(held) + 1);
    EXPECT_NE(cache.acquireBuffer(100), held);
}

TEST(MemoryCache, ReleasingTwiceChangesNothing) {
    MemoryCache cache(false);
    void* buffer = cache.acquireBuffer(100);
    cache.releaseBuffer(buffer);
    cache.releaseBuffer(buffer);
    EXPECT_EQ(cache.acquireBuffer(100), buffer);
    EXPECT_NE(cache.acquireBuffer(100), buffer);
}

TEST(MemoryCache, ABufferIsNeitherShrunkNorFreedBeforeTheCacheIsDestroyed) {
    MemoryCache cache(false);
    void* buffer = cache.acquireBuffer(1000);
    for (int round = 0; round < 100; ++round) {
        cache.releaseBuffer(buffer);
        ASSERT_EQ(cache.acquireBuffer(1), buffer);
        std::memset(buffer, round, 1251);
    }
    cache.releaseBuffer(buffer);
    EXPECT_EQ(cache.acquireBuffer(1251), buffer);
}

TEST(MemoryCache, ARequestForNoBytesGetsABufferOfOne) {
    MemoryCache cache(false);
    void* buffer = cache.acquireBuffer(0);
    ASSERT_NE(buffer, nullptr);
    std::memset(buffer, 1, 1);
    cache.releaseBuffer(buffer);
    EXPECT_EQ(cache.acquireBuffer(1), buffer);
    EXPECT_NE(cache.acquireBuffer(2), buffer);
}

TEST(MemoryCache, ANegativeSizeCountsAsNone) {
    MemoryCache cache(false);
    EXPECT_NE(cache.acquireBuffer(-1), nullptr);
    EXPECT_NE(cache.acquireBuffer(INT32_MIN), nullptr);
}

TEST(MemoryCache, ANegativeSizeTakesTheFirstFreeBuffer) {
    MemoryCache cache(false);
    void* buffer = cache.acquireBuffer(10);
    cache.releaseBuffer(buffer);
    EXPECT_EQ(cache.acquireBuffer(-7), buffer);
}

TEST(MemoryCache, BuffersAreAlignedForAnyScalar) {
    MemoryCache cache(false);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(cache.acquireBuffer(3)) % alignof(double), 0U);
}

TEST(MemoryCache, AThreadSafeCacheNeverHandsOneBufferToTwoThreads) {
    MemoryCache cache(true);
    std::vector<int> clashes(4, 0);
    const auto work = [&cache, &clashes](int thread) {
        for (int round = 0; round < 2000; ++round) {
            auto* buffer = static_cast<char*>(cache.acquireBuffer(64));
            std::memset(buffer, thread, 64);
            clashes[thread] += buffer[0] != thread || buffer[63] != thread;
            cache.releaseBuffer(buffer);
        }
    };
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back(work, thread);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(clashes, std::vector<int>(4, 0));
}

}  // namespace

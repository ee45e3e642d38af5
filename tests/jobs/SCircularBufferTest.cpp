#include "jobs/SCircularBuffer.h"

#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

#include <QByteArray>

#include <limits>

namespace {

constexpr const char* kAddedTooMuch = "SCircularBuffer: add() wrote too much!";
constexpr const char* kRemovedTooMuch = "SCircularBuffer: remove() removed too much!";
constexpr const char* kTooLittleToPeek = "SCircularBuffer: peek() not enough data available!";
constexpr int kLargest = std::numeric_limits<int>::max();
constexpr int kSmallest = std::numeric_limits<int>::min();

class Ring : public testing::Test {
protected:
    bool add(SCircularBuffer& ring, const QByteArray& bytes) {
        return ring.add(bytes.constData(), static_cast<int>(bytes.size()));
    }
    QByteArray removed(SCircularBuffer& ring, int length, bool expected = true) {
        QByteArray bytes(length, '#');
        EXPECT_EQ(ring.remove(bytes.data(), length), expected);
        return bytes;
    }
    QByteArray peeked(const SCircularBuffer& ring, int length, int offset) {
        QByteArray bytes(length, '#');
        EXPECT_TRUE(ring.peek(bytes.data(), length, offset));
        return bytes;
    }
    void expectState(const SCircularBuffer& ring, int nextIn, int nextOut, int data, int space) {
        EXPECT_EQ(ring.nextIn(), nextIn);
        EXPECT_EQ(ring.nextOut(), nextOut);
        EXPECT_EQ(ring.dataAvailable(), data);
        EXPECT_EQ(ring.spaceAvailable(), space);
    }
    /// A ring whose next byte is written, and read, at `position`.
    SCircularBuffer ringAt(int size, int position, bool overwrite = false, int gap = 0) {
        SCircularBuffer ring(size, overwrite, gap);
        EXPECT_TRUE(add(ring, QByteArray(position, '.')));
        EXPECT_TRUE(ring.remove(nullptr, position));
        return ring;
    }

    LogCapture log;
};

TEST_F(Ring, AFreshRingIsEmptyWithRoomForOneByteLessThanItsSize) {
    const SCircularBuffer ring(8, false, 0);
    EXPECT_EQ(ring.size(), 8);
    expectState(ring, 0, 0, 0, 7);
}

TEST_F(Ring, OfSize8Holds7Bytes) {
    SCircularBuffer ring(8, false, 0);
    EXPECT_TRUE(add(ring, "abcdefg"));
    expectState(ring, 7, 0, 7, 0);
    EXPECT_EQ(removed(ring, 7), "abcdefg");
    expectState(ring, 7, 7, 0, 7);
    EXPECT_TRUE(log.lines().isEmpty());
}

TEST_F(Ring, ThreeBytesFromPosition6OnGoTo6And7And0) {
    SCircularBuffer ring = ringAt(8, 6);
    EXPECT_TRUE(add(ring, "abc"));
    expectState(ring, 1, 6, 3, 4);
    EXPECT_EQ(peeked(ring, 3, 0), "abc");
    EXPECT_EQ(removed(ring, 3), "abc");
    expectState(ring, 1, 1, 0, 7);
}

TEST_F(Ring, BytesUpToTheEndOfTheStorageLeaveTheWritePositionAt0) {
    SCircularBuffer ring = ringAt(8, 6);
    EXPECT_TRUE(add(ring, "ab"));
    expectState(ring, 0, 6, 2, 5);
    EXPECT_EQ(removed(ring, 2), "ab");
    expectState(ring, 0, 0, 0, 7);
}

TEST_F(Ring, PeekWithAnOffsetReadsAcrossTheWrapWithoutMovingTheReadPosition) {
    SCircularBuffer ring = ringAt(8, 5);
    ASSERT_TRUE(add(ring, "abcdef"));
    EXPECT_EQ(peeked(ring, 4, 1), "bcde");
    EXPECT_EQ(peeked(ring, 2, 4), "ef");
    expectState(ring, 3, 5, 6, 1);
}

TEST_F(Ring, PeekWithANegativeOffsetReadsWhatWasRemovedBefore) {
    SCircularBuffer ring(8, false, 0);
    ASSERT_TRUE(add(ring, "abcdefg"));
    ASSERT_TRUE(ring.remove(nullptr, 3));
    EXPECT_EQ(peeked(ring, 3, -2), "bcd");
    EXPECT_EQ(peeked(ring, 1, -2 - 8 * 1000), "b");
}

TEST_F(Ring, KeptOffsetOfAPeekDoesNotCountInWhatMustBeThere) {
    SCircularBuffer ring(8, false, 0);
    ASSERT_TRUE(add(ring, "ab"));
    EXPECT_EQ(peeked(ring, 2, 1), QByteArray("b\0", 2));
    EXPECT_EQ(peeked(ring, 2, 7), QByteArray("\0a", 2));
    char byte = '#';
    EXPECT_TRUE(ring.peekByte(byte, 5));
    EXPECT_EQ(byte, '\0');
    EXPECT_TRUE(log.lines().isEmpty());
}

TEST_F(Ring, PeekOfMoreThanIsThereIsLoggedAndCopiesNothing) {
    SCircularBuffer ring(8, false, 0);
    ASSERT_TRUE(add(ring, "ab"));
    QByteArray bytes(3, '#');
    EXPECT_FALSE(ring.peek(bytes.data(), 3, 0));
    EXPECT_EQ(bytes, "###");
    EXPECT_EQ(log.lines(), QList<QByteArray>{kTooLittleToPeek});
    expectState(ring, 2, 0, 2, 5);
}

TEST_F(Ring, PeekByteReadsAtAnyOffsetAndSaysWhereTheRingIsEmpty) {
    SCircularBuffer ring = ringAt(8, 7);
    char byte = '#';
    EXPECT_FALSE(ring.peekByte(byte, 0));
    EXPECT_EQ(byte, '#');
    ASSERT_TRUE(add(ring, "ab"));
    EXPECT_TRUE(ring.peekByte(byte, 0));
    EXPECT_EQ(byte, 'a');
    EXPECT_TRUE(ring.peekByte(byte, 1));
    EXPECT_EQ(byte, 'b');
    EXPECT_TRUE(ring.peekByte(byte, -7));
    EXPECT_EQ(byte, 'b');
    EXPECT_TRUE(log.lines().isEmpty());
}

TEST_F(Ring, OffsetsAtTheEndsOfTheIntegersStayInside) {
    SCircularBuffer ring = ringAt(7, 6);
    ASSERT_TRUE(add(ring, "abcdef"));
    // 2,147,483,647 is 1 and -2,147,483,648 is 5 modulo 7.
    EXPECT_EQ(peeked(ring, 1, kLargest), "b");
    EXPECT_EQ(peeked(ring, 1, kSmallest), "f");
    char byte = '#';
    EXPECT_TRUE(ring.peekByte(byte, kLargest));
    EXPECT_EQ(byte, 'b');
    EXPECT_TRUE(ring.peekByte(byte, kSmallest));
    EXPECT_EQ(byte, 'f');
}

TEST_F(Ring, RemoveToNowhereMovesTheReadPosition) {
    SCircularBuffer ring(8, false, 0);
    ASSERT_TRUE(add(ring, "abcdefg"));
    EXPECT_TRUE(ring.remove(nullptr, 4));
    expectState(ring, 7, 4, 3, 4);
    EXPECT_EQ(removed(ring, 3), "efg");
}

TEST_F(Ring, KeptRemoveOfTooMuchIsLoggedAndStillCounted) {
    SCircularBuffer ring(8, false, 0);
    ASSERT_TRUE(add(ring, "abc"));
    EXPECT_EQ(removed(ring, 5, false), QByteArray("abc\0\0", 5));
    expectState(ring, 3, 5, -2, 9);
    EXPECT_EQ(log.lines(), QList<QByteArray>{kRemovedTooMuch});
    EXPECT_FALSE(ring.peek(nullptr, 0, 0));
    EXPECT_TRUE(log.contains(kTooLittleToPeek));
    char byte = '#';
    EXPECT_FALSE(ring.peekByte(byte, 0));
}

TEST_F(Ring, KeptRemoveToNowhereOfTooMuchMovesTheReadPositionAround) {
    SCircularBuffer ring(8, false, 0);
    EXPECT_FALSE(ring.remove(nullptr, 8 * 1000 + 3));
    expectState(ring, 0, 3, -8003, 8010);
    EXPECT_FALSE(ring.remove(nullptr, kLargest));
    EXPECT_EQ(ring.nextOut(), 2);  // 3 + 2,147,483,647 is 2 modulo 8.
}

TEST_F(Ring, OverflowIsRefusedAndPutsTheReadPositionBehindTheGap) {
    SCircularBuffer ring(8, false, 2);
    ASSERT_TRUE(add(ring, "abcde"));
    EXPECT_FALSE(add(ring, "fghij"));
    EXPECT_EQ(log.lines(), QList<QByteArray>{kAddedTooMuch});
    EXPECT_EQ(ring.nextIn(), 2);
    EXPECT_EQ(ring.nextOut(), 4);
    EXPECT_EQ(ring.spaceAvailable(), 0);
    EXPECT_EQ(peeked(ring, 6, 0), "efghij");
}

TEST_F(Ring, OverflowInOverwriteModeIsASuccessAndLogged) {
    SCircularBuffer ring(8, true, 1);
    ASSERT_TRUE(add(ring, "abcdefg"));
    EXPECT_TRUE(add(ring, "hi"));
    EXPECT_EQ(log.lines(), QList<QByteArray>{kAddedTooMuch});
    EXPECT_EQ(ring.nextIn(), 1);
    EXPECT_EQ(ring.nextOut(), 2);
    EXPECT_EQ(peeked(ring, 7, 0), "cdefghi");
}

TEST_F(Ring, KeptOverflowCountsWhatDidNotFitOnceMore) {
    SCircularBuffer ring(8, true, 1);
    ASSERT_TRUE(add(ring, "abcde"));
    ASSERT_TRUE(add(ring, "fghij"));
    // 10 bytes were added and 3 did not fit.
    expectState(ring, 2, 3, 13, 0);
}

TEST_F(Ring, OverflowByMoreThanTheRingKeepsTheLastBytes) {
    SCircularBuffer ring(8, false, 0);
    EXPECT_FALSE(add(ring, "0123456789abcdefghi"));
    expectState(ring, 3, 3, 19 + 12, 0);
    EXPECT_EQ(peeked(ring, 8, 0), "bcdefghi");
}

TEST_F(Ring, TheGapGoesAroundTheRing) {
    struct Row {
        int gap;
        int nextOut;
    };
    // After the overflow the write position is 6.
    for (const Row row : {Row{0, 6}, Row{1, 7}, Row{2, 0}, Row{8, 6}, Row{9, 7}, Row{-1, 5},
                          Row{-7, 7}, Row{kLargest, 5}, Row{kSmallest, 6}}) {
        SCircularBuffer ring(8, false, row.gap);
        EXPECT_FALSE(add(ring, "0123456789abcd"));
        EXPECT_EQ(ring.nextIn(), 6);
        EXPECT_EQ(ring.nextOut(), row.nextOut) << row.gap;
    }
}

TEST_F(Ring, CountersThatPassTheLargestIntegerWrapAndTheRingGoesOn) {
    SCircularBuffer ring(8, true, 0);
    EXPECT_FALSE(ring.remove(nullptr, kLargest));
    EXPECT_FALSE(ring.remove(nullptr, kLargest));
    // 2 * 2,147,483,647 is 2 less than the counters' range.
    expectState(ring, 0, 6, 2, 5);
    EXPECT_TRUE(add(ring, "abcde"));
    expectState(ring, 5, 6, 7, 0);
    ring.clear();
    expectState(ring, 0, 0, 0, 7);
}

TEST_F(Ring, ClearEmptiesTheRing) {
    SCircularBuffer ring(8, false, 3);
    EXPECT_FALSE(add(ring, "0123456789"));
    ring.clear();
    expectState(ring, 0, 0, 0, 7);
    EXPECT_TRUE(add(ring, "abc"));
    EXPECT_EQ(removed(ring, 3), "abc");
}

TEST_F(Ring, NoBytesChangeNothing) {
    SCircularBuffer ring = ringAt(8, 3);
    EXPECT_TRUE(ring.add(nullptr, 0));
    EXPECT_TRUE(ring.remove(nullptr, 0));
    EXPECT_TRUE(ring.peek(nullptr, 0, 0));
    expectState(ring, 3, 3, 0, 7);
    EXPECT_TRUE(log.lines().isEmpty());
}

TEST_F(Ring, ANegativeLengthIsRefusedAndChangesNothing) {
    for (const int length : {-1, kSmallest}) {
        SCircularBuffer ring(8, true, 1);
        ASSERT_TRUE(add(ring, "abc"));
        log.clear();
        char byte = '#';
        EXPECT_FALSE(ring.add("abc", length));
        EXPECT_FALSE(ring.remove(&byte, length));
        EXPECT_FALSE(ring.remove(nullptr, length));
        EXPECT_FALSE(ring.peek(&byte, length, 0));
        EXPECT_EQ(byte, '#');
        EXPECT_EQ(log.lines().size(), 4);
        EXPECT_EQ(log.lines().first(),
                  "SCircularBuffer: add() refused, length " + QByteArray::number(length) + "!");
        expectState(ring, 3, 0, 3, 4);
    }
}

TEST_F(Ring, BytesThatAreNowhereAreRefusedAndChangeNothing) {
    SCircularBuffer ring(8, true, 1);
    ASSERT_TRUE(add(ring, "abc"));
    EXPECT_FALSE(ring.add(nullptr, 2));
    EXPECT_FALSE(ring.peek(nullptr, 2, 0));
    EXPECT_EQ(log.lines().size(), 2);
    expectState(ring, 3, 0, 3, 4);
}

TEST_F(Ring, ASizeBelow1CountsAs1AndHoldsNothing) {
    for (const int size : {1, 0, -1, kSmallest}) {
        SCircularBuffer ring(size, false, 5);
        EXPECT_EQ(ring.size(), 1);
        expectState(ring, 0, 0, 0, 0);
        EXPECT_FALSE(add(ring, "ab"));
        EXPECT_EQ(ring.nextIn(), 0);
        EXPECT_EQ(ring.nextOut(), 0);
        char byte = '#';
        EXPECT_TRUE(ring.peekByte(byte, 3));
        EXPECT_EQ(byte, 'b');
    }
}

}  // namespace

#include "bus/Message.h"

#include "tests/bus/GuardedBytes.h"

#include <gtest/gtest.h>

#include <memory>

namespace {

QByteArray flat(const Message& message) {
    return QByteArray(message.buffer(), message.length());
}

Message fromWire(const char* hex) {
    const QByteArray bytes = QByteArray::fromHex(hex);
    const GuardedBytes guarded(bytes);
    Message message;
    message.construct(guarded.data(), static_cast<int>(bytes.size()));
    return message;
}

void expectMalformed(const Message& message) {
    EXPECT_EQ(message.command(), -1);
    EXPECT_STREQ(message.formatString(), "");
    EXPECT_EQ(message.parameterCount(), 0);
    EXPECT_EQ(flat(message), QByteArray::fromHex("ffffffff00"));
}

TEST(MessageTest, ANewOneIsCommand0WithoutParameters) {
    const Message message;
    EXPECT_EQ(message.command(), 0);
    EXPECT_EQ(message.tag(), 0);
    EXPECT_STREQ(message.formatString(), "");
    EXPECT_EQ(flat(message), QByteArray::fromHex("0000000000"));
}

TEST(MessageTest, ReadsEveryLetterFromTheWire) {
    // 0x1403 "iSBc": -2, "ab", block of 2 bytes 00 ff, 0x80
    const Message message = fromWire("03140000 6953426300 feffffff 616200 02000000 00ff 80");
    EXPECT_EQ(message.command(), 0x1403);
    EXPECT_STREQ(message.formatString(), "iSBc");
    EXPECT_EQ(message.parameterCount(), 4);
    EXPECT_EQ(message.parameterAsInt32(0), -2);
    EXPECT_STREQ(message.parameterAsString(1), "ab");
    int length = -1;
    const char* block = message.parameterAsBLOB(2, length);
    ASSERT_EQ(length, 2);
    EXPECT_EQ(QByteArray(block, length), QByteArray::fromHex("00ff"));
    EXPECT_EQ(message.parameterAsByte(3), 0x80);
}

TEST(MessageTest, AnEmptyBlockHasAPlaceAndLength0) {
    const Message message = fromWire("01000000 4200 00000000");
    int length = -1;
    EXPECT_NE(message.parameterAsBLOB(0, length), nullptr);
    EXPECT_EQ(length, 0);
}

TEST(MessageTest, AMissingParameterReadsAs0OrEmptyOrANullBlock) {
    const Message message = fromWire("01000000 6900 05000000");
    for (const int index : {1, 2, 63, 1'000'000, -1, -2147483647 - 1}) {
        EXPECT_EQ(message.parameterAsInt32(index), 0) << index;
        EXPECT_EQ(message.parameterAsByte(index), 0) << index;
        EXPECT_STREQ(message.parameterAsString(index), "") << index;
        int length = -1;
        EXPECT_EQ(message.parameterAsBLOB(index, length), nullptr) << index;
        EXPECT_EQ(length, 0) << index;
    }
}

TEST(MessageTest, AParameterOfAnotherLetterReadsAs0OrEmptyOrANullBlock) {
    // "iSBc": 0x41414141, "A", block "A", 0x41
    const Message message = fromWire("01000000 6953426300 41414141 4100 01000000 41 41");
    for (int index = 0; index < 4; ++index) {
        int length = -1;
        EXPECT_EQ(message.parameterAsInt32(index), index == 0 ? 0x41414141 : 0);
        EXPECT_STREQ(message.parameterAsString(index), index == 1 ? "A" : "");
        EXPECT_EQ(message.parameterAsBLOB(index, length) != nullptr, index == 2);
        EXPECT_EQ(length, index == 2 ? 1 : 0);
        EXPECT_EQ(message.parameterAsByte(index), index == 3 ? 0x41 : 0);
    }
}

TEST(MessageTest, WhatIsNoMessageBecomesCommandMinus1) {
    for (const char* hex : {"", "00", "00000000", "00000000 69", "00000000 6900", "00000000 00 00",
                            "00000000 7a00 00"}) {
        expectMalformed(fromWire(hex));
    }
}

TEST(MessageTest, ACutKeepAliveIsNoKeepAlive) {
    const Message message = fromWire("00000000");
    EXPECT_NE(message.command(), 0);
}

TEST(MessageTest, ConstructFromTheWireTellsWhetherItWasOne) {
    Message message;
    EXPECT_TRUE(message.construct("\0\0\0\0\0", 5));
    EXPECT_FALSE(message.construct("\0\0\0\0\0", 4));
    EXPECT_FALSE(message.construct("\0\0\0\0\0", -1));
    EXPECT_FALSE(message.construct(static_cast<const void*>(nullptr), 0));
}

TEST(MessageTest, ConstructFromTheWireReplacesWhatWasThere) {
    Message message;
    ASSERT_TRUE(message.construct(5, "iS", 7, "before"));
    message.setTag(9);
    ASSERT_TRUE(message.construct("\1\0\0\0c\0\x2a", 7));
    EXPECT_EQ(message.tag(), 0);
    EXPECT_EQ(message.parameterCount(), 1);
    EXPECT_EQ(message.parameterAsByte(0), 0x2a);
    EXPECT_STREQ(message.parameterAsString(1), "");
    EXPECT_FALSE(message.construct("x", 1));
    expectMalformed(message);
}

TEST(MessageTest, ItKeepsACopyOfTheWiresBytes) {
    QByteArray bytes = QByteArray::fromHex("01000000 5300 616200");
    Message message;
    ASSERT_TRUE(message.construct(bytes.constData(), static_cast<int>(bytes.size())));
    bytes.fill('\xff');
    EXPECT_STREQ(message.parameterAsString(0), "ab");
}

TEST(MessageTest, ItCanBeConstructedFromItsOwnBytesAndParameters) {
    Message message;
    const QByteArray text(1000, 't');
    ASSERT_TRUE(message.construct(1, "S", text.constData()));
    ASSERT_TRUE(message.construct(message.buffer(), message.length()));
    EXPECT_EQ(message.parameterAsString(0), text);
    ASSERT_TRUE(message.construct(2, "iS", 3, message.parameterAsString(0)));
    EXPECT_EQ(message.parameterAsInt32(0), 3);
    EXPECT_EQ(message.parameterAsString(1), text);
}

TEST(MessageTest, ItsFlatFormIsTheWires) {
    Message message;
    // 231 "ic": 1, 'x'
    ASSERT_TRUE(message.construct(231, "ic", 1, 'x'));
    EXPECT_EQ(flat(message), QByteArray::fromHex("e7000000 696300 01000000 78"));
    EXPECT_EQ(flat(fromWire("e7000000 696300 01000000 78")), flat(message));
}

TEST(MessageTest, ANullTextIsEmpty) {
    Message message;
    ASSERT_TRUE(message.construct(1, "S", nullptr));
    EXPECT_EQ(flat(message), QByteArray::fromHex("01000000 5300 00"));
}

TEST(MessageTest, ANullBlockIsTakenWithLength0Only) {
    Message message;
    EXPECT_TRUE(message.construct(1, "B", 0, nullptr));
    EXPECT_FALSE(message.construct(1, "B", 1, nullptr));
    expectMalformed(message);
}

TEST(MessageTest, ValuesThatDoNotAgreeWithTheFormatGiveTheMalformedOne) {
    Message message;
    EXPECT_FALSE(message.construct(1, "i"));
    expectMalformed(message);
    EXPECT_FALSE(message.construct(1, "", 5));
    EXPECT_FALSE(message.construct(1, "i", 5, 6));
    EXPECT_FALSE(message.construct(1, "i", "text"));
    EXPECT_FALSE(message.construct(1, "c", "text"));
    EXPECT_FALSE(message.construct(1, "S", 5));
    EXPECT_FALSE(message.construct(1, "B", 5));
    EXPECT_FALSE(message.construct(1, "B", "text"));
    EXPECT_FALSE(message.construct(1, "B", "text", "text"));
    EXPECT_FALSE(message.construct(1, "B", -1, "text"));
    EXPECT_FALSE(message.construct(1, "B", 1, 2));
    EXPECT_FALSE(message.construct(1, "x", 5));
    EXPECT_FALSE(message.construct(1, nullptr, 5));
    expectMalformed(message);
}

TEST(MessageTest, ABlockLengthGivenAsAPointerIsRefused) {
    Message message;
    EXPECT_FALSE(message.construct(1, "BB", "text", "text", 1, "x"));
    expectMalformed(message);
}

TEST(MessageTest, AFormatOf63LettersIsTakenAndOf64Refused) {
    // 64 values from the wire: the count of C++ arguments is not what limits it.
    const QByteArray most =
        QByteArray::fromHex("01000000") + QByteArray(63, 'S') + QByteArray(64, 0);
    Message message;
    EXPECT_TRUE(message.construct(most.constData(), static_cast<int>(most.size())));
    EXPECT_EQ(message.parameterCount(), 63);
    EXPECT_FALSE(message.construct(1, QByteArray(64, 'i').constData(), 1));
    expectMalformed(message);
}

TEST(MessageTest, Command0AndMinus1CanBeBuilt) {
    Message message;
    EXPECT_TRUE(message.construct(0, "i", 5));
    EXPECT_EQ(message.command(), 0);
    EXPECT_TRUE(message.construct(-1, "i", 5));
    EXPECT_EQ(message.command(), -1);
    EXPECT_EQ(message.parameterAsInt32(0), 5);
}

TEST(MessageTest, ACopyHasItsOwnLife) {
    Message copy;
    const char* originalText = nullptr;
    {
        Message original;
        ASSERT_TRUE(original.construct(7, "S", "kept"));
        original.setTag(3);
        copy = original;
        ASSERT_TRUE(original.construct(8, "i", 1));
        original.setTag(4);
        originalText = copy.parameterAsString(0);
    }
    EXPECT_EQ(copy.command(), 7);
    EXPECT_EQ(copy.tag(), 3);
    EXPECT_STREQ(originalText, "kept");
    copy = *&copy;
    EXPECT_STREQ(copy.parameterAsString(0), "kept");
}

TEST(MessageTest, AMovedFromOneIsStillAMessage) {
    Message first;
    ASSERT_TRUE(first.construct(7, "S", "kept"));
    const Message second(std::move(first));
    EXPECT_EQ(second.command(), 7);
    EXPECT_EQ(first.command(), 7);  // NOLINT(bugprone-use-after-move)
}

TEST(MessageTest, ParametersAreReadInPlace) {
    Message message;
    ASSERT_TRUE(message.construct(1, "SB", "text", 3, "abc"));
    int length = 0;
    for (const char* place : {message.parameterAsString(0), message.parameterAsBLOB(1, length)}) {
        EXPECT_GE(place, message.buffer());
        EXPECT_LT(place, message.buffer() + message.length());
    }
}

TEST(MessageTest, ItIsMadeAndFreedOnTheHeap) {
    const auto message = std::make_unique<Message>();
    EXPECT_EQ(message->command(), 0);
}

}  // namespace

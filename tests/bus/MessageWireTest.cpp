#include "bus/MessageWire.h"

#include "tests/bus/GuardedBytes.h"

#include <gtest/gtest.h>

#include <QList>

namespace {

using MessageWire::ParameterOffsets;

QByteArray fromHex(const char* hex) {
    return QByteArray::fromHex(hex);
}

/// Decodes from memory that ends with the last byte.
bool decodes(const QByteArray& bytes, ParameterOffsets& offsets) {
    const GuardedBytes guarded(bytes);
    return MessageWire::decode(guarded.data(), bytes.size(), offsets);
}

bool decodes(const QByteArray& bytes) {
    ParameterOffsets offsets;
    return decodes(bytes, offsets);
}

struct Example {
    const char* name;
    const char* hex;
    QList<quint32> offsets;
};

// Well-formed messages: the command, the format with its NUL, then the parameters.
const Example kExamples[] = {
    {"NoParameters", "00000000 00", {}},
    {"NegativeCommand", "feffffff 00", {}},
    // 0x1402 "iii": handle 7, offset 0x01020304, length -1
    {"ThreeIntegers", "02140000 69696900 07000000 04030201 ffffffff", {8, 12, 16}},
    // "c": 0x80
    {"OneByte", "01000000 6300 80", {6}},
    // "S": "ab"
    {"Text", "01000000 5300 616200", {6}},
    {"EmptyText", "01000000 5300 00", {6}},
    // "B": 3 bytes, the middle one 0
    {"Block", "01000000 4200 03000000 610062", {6}},
    {"EmptyBlock", "01000000 4200 00000000", {6}},
    // "BSci": block "x", text "y", byte 9, integer 1
    {"EveryLetter", "e9000000 4253636900 01000000 78 7900 09 01000000", {9, 14, 16, 17}},
    // "SS": two texts, the first empty
    {"TwoTexts", "01000000 535300 00 7a00", {7, 8}},
};

class WellFormedMessage : public testing::TestWithParam<Example> {};

TEST_P(WellFormedMessage, IsDecodedWithThePlacesOfItsParameters) {
    ParameterOffsets offsets;
    ASSERT_TRUE(decodes(fromHex(GetParam().hex), offsets));
    EXPECT_EQ(QList<quint32>(offsets.cbegin(), offsets.cend()), GetParam().offsets);
}

TEST_P(WellFormedMessage, CutAtEachLengthIsRefused) {
    const QByteArray whole = fromHex(GetParam().hex);
    for (qsizetype length = 0; length < whole.size(); ++length) {
        ParameterOffsets offsets{1, 2, 3};
        EXPECT_FALSE(decodes(whole.left(length), offsets)) << length;
        EXPECT_TRUE(offsets.isEmpty()) << length;
    }
}

TEST_P(WellFormedMessage, WithOneByteLeftOverIsRefused) {
    for (const char extra : {'\0', 'i', '\xff'}) {
        ParameterOffsets offsets{1};
        EXPECT_FALSE(decodes(fromHex(GetParam().hex) + extra, offsets));
        EXPECT_TRUE(offsets.isEmpty());
    }
}

INSTANTIATE_TEST_SUITE_P(MessageWireTest, WellFormedMessage, testing::ValuesIn(kExamples),
                         [](const auto& row) { return row.param.name; });

struct Damage {
    const char* name;
    const char* hex;
};

const Damage kDamages[] = {
    {"Empty", ""},
    {"HalfACommand", "0100"},
    {"NoFormat", "01000000"},
    {"FormatWithoutNul", "01000000 6969"},
    {"UnknownLetter", "01000000 7800 00000000"},
    {"CapitalI", "01000000 4900 00000000"},
    {"LowerS", "01000000 7300 6100"},
    {"LetterAbove127", "01000000 e900 00000000"},
    {"UnknownLetterAfterAGoodOne", "01000000 697800 00000000 00"},
    {"TextWithoutNul", "01000000 5300 616263"},
    {"TextWithoutAByte", "01000000 5300"},
    {"SecondTextWithoutNul", "01000000 535300 6100 62"},
    {"BlockOneByteShort", "01000000 4200 04000000 616263"},
    {"BlockLengthCutShort", "01000000 4200 000000"},
    {"BlockOf4GiB", "01000000 4200 ffffffff"},
    {"BlockOf4GiBWithSomeBytes", "01000000 4200 ffffffff 6162636465666768"},
    {"BlockOf2GiB", "01000000 4200 00000080 61"},
    {"BlockThatWouldWrapTo0", "01000000 424200 fcffffff 00000000"},
    {"BlockThatTakesTheNextParameter", "01000000 426900 05000000 61 01000000"},
    {"IntegerOfThreeBytes", "01000000 6900 010203"},
    {"ByteMissing", "01000000 6300"},
};

class DamagedMessage : public testing::TestWithParam<Damage> {};

TEST_P(DamagedMessage, IsRefused) {
    EXPECT_FALSE(decodes(fromHex(GetParam().hex)));
}

INSTANTIATE_TEST_SUITE_P(MessageWireTest, DamagedMessage, testing::ValuesIn(kDamages),
                         [](const auto& row) { return row.param.name; });

QByteArray messageOfBytes(int letters) {
    return fromHex("01000000") + QByteArray(letters, 'c') + '\0' + QByteArray(letters, '\x07');
}

TEST(MessageWireTest, AFormatOf63LettersIsTaken) {
    ParameterOffsets offsets;
    ASSERT_TRUE(decodes(messageOfBytes(63), offsets));
    EXPECT_EQ(offsets.size(), 63);
    EXPECT_EQ(offsets.last(), 4U + 64U + 62U);
}

TEST(MessageWireTest, AFormatOf64LettersIsRefused) {
    EXPECT_FALSE(decodes(messageOfBytes(64)));
    EXPECT_FALSE(decodes(messageOfBytes(1000)));
}

TEST(MessageWireTest, ANegativeLengthIsRefused) {
    ParameterOffsets offsets;
    EXPECT_FALSE(MessageWire::decode("\1\0\0\0\0", -1, offsets));
}

TEST(MessageWireTest, NoBytesAtANullPointerAreRefused) {
    ParameterOffsets offsets;
    EXPECT_FALSE(MessageWire::decode(nullptr, 0, offsets));
}

TEST(MessageWireTest, EveryByteAsTheOnlyLetterIsDecodedOnlyIfItIsALetter) {
    for (int letter = 1; letter < 256; ++letter) {
        // Four zero bytes are a whole "i" and a whole "B".
        const QByteArray four = fromHex("01000000") + char(letter) + fromHex("00 00000000");
        EXPECT_EQ(decodes(four), letter == 'i' || letter == 'B') << letter;
        const QByteArray one = fromHex("01000000") + char(letter) + fromHex("00 00");
        EXPECT_EQ(decodes(one), letter == 'c' || letter == 'S') << letter;
    }
}

TEST(MessageWireTest, WhatIsEncodedAreTheseBytes) {
    QByteArray bytes;
    ParameterOffsets offsets;
    // 0x1402 "iiBSc": 7, -2, block "a\0b", "xy", 0x80
    ASSERT_TRUE(
        MessageWire::encode(0x1402, "iiBSc", {7, -2, 3, "a\0b", "xy", 0x80}, bytes, offsets));
    EXPECT_EQ(bytes, fromHex("02140000 696942536300 07000000 feffffff 03000000610062 787900 80"));
    EXPECT_EQ(QList<quint32>(offsets.cbegin(), offsets.cend()),
              (QList<quint32>{10, 14, 18, 25, 28}));
}

TEST(MessageWireTest, WhatIsEncodedDecodesToTheSamePlaces) {
    QByteArray bytes;
    ParameterOffsets written;
    ASSERT_TRUE(MessageWire::encode(-7, "SBicS", {"", 0, nullptr, 1, 2, "z"}, bytes, written));
    ParameterOffsets read;
    ASSERT_TRUE(decodes(bytes, read));
    EXPECT_EQ(read, written);
}

TEST(MessageWireTest, AnIntegerBeyondInt32IsCarriedByItsLow32Bits) {
    QByteArray bytes;
    ParameterOffsets offsets;
    ASSERT_TRUE(MessageWire::encode(1, "i", {quint32(0xfffffffe)}, bytes, offsets));
    EXPECT_EQ(bytes, fromHex("01000000 6900 feffffff"));
}

TEST(MessageWireTest, ABlockWhoseWireFormIsBeyondAnIntIsRefusedUnread) {
    QByteArray bytes;
    ParameterOffsets offsets;
    EXPECT_FALSE(MessageWire::encode(1, "B", {2147483647, "x"}, bytes, offsets));
    EXPECT_TRUE(bytes.isEmpty());
    EXPECT_TRUE(offsets.isEmpty());
}

}  // namespace

#include "history/HistoricalDataManager.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>

namespace {

using Manager = HistoricalDataManager;
using Block = HistoricalDataManager::ReplayData;

std::string hexOf(const Block& block, int length) {
    return QByteArray(block.data.data(), length).toHex(' ').toStdString();
}

bool isZeroFrom(const Block& block, std::size_t offset) {
    return std::all_of(block.data.begin() + static_cast<std::ptrdiff_t>(offset), block.data.end(),
                       [](char byte) { return byte == 0; });
}

TEST(ReplayDataTest, AFreshBlockIsEmptyAndAllZero) {
    const Block block;
    EXPECT_EQ(block.used, 0);
    EXPECT_FALSE(block.overflow);
    EXPECT_TRUE(isZeroFrom(block, 0));
}

TEST(ReplayDataTest, AnIntIsItsKindItsNameAndFourBytes) {
    Block block;
    Manager::replayAddInt(&block, "Temp", -2);
    EXPECT_EQ(block.used, 10);
    EXPECT_EQ(hexOf(block, 10), "00 54 65 6d 70 00 fe ff ff ff");
    EXPECT_TRUE(isZeroFrom(block, 10));
}

TEST(ReplayDataTest, AFloatIsItsKindItsNameAndFourBytes) {
    Block block;
    Manager::replayAddFloat(&block, "LV", 1.5F);
    EXPECT_EQ(block.used, 8);
    EXPECT_EQ(hexOf(block, 8), "01 4c 56 00 00 00 c0 3f");
    EXPECT_TRUE(isZeroFrom(block, 8));
}

TEST(ReplayDataTest, AStringIsItsKindItsNameAndItsText) {
    Block block;
    Manager::replayAddString(&block, "N", "ab");
    EXPECT_EQ(block.used, 6);
    EXPECT_EQ(hexOf(block, 6), "02 4e 00 61 62 00");
    EXPECT_TRUE(isZeroFrom(block, 6));
}

TEST(ReplayDataTest, NameAndTextMayBeEmpty) {
    Block block;
    Manager::replayAddString(&block, "", "");
    EXPECT_EQ(block.used, 3);
    EXPECT_EQ(hexOf(block, 3), "02 00 00");
    Manager::replayAddInt(&block, "", 1);
    EXPECT_EQ(block.used, 3 + 6);
}

TEST(ReplayDataTest, TheExtremesOfAnIntAreThere) {
    Block block;
    Manager::replayAddInt(&block, "x", std::numeric_limits<int>::min());
    EXPECT_EQ(hexOf(block, 7), "00 78 00 00 00 00 80");
    Manager::replayAddInt(&block, "x", std::numeric_limits<int>::max());
    EXPECT_EQ(hexOf(block, 7), "00 78 00 ff ff ff 7f");
}

TEST(ReplayDataTest, EachItemIsWrittenAtTheStartAndCountsAsIfBehindTheLastKept) {
    Block block;
    Manager::replayAddString(&block, "Name", "longer text");
    EXPECT_EQ(block.used, 18);
    Manager::replayAddInt(&block, "a", 1);
    EXPECT_EQ(block.used, 18 + 7);
    EXPECT_EQ(hexOf(block, 7), "00 61 00 01 00 00 00");
    EXPECT_EQ(QByteArray(block.data.data() + 7, 11), QByteArray("onger text\0", 11))
        << "what the shorter item does not cover stays";
    EXPECT_TRUE(isZeroFrom(block, 18));
}

TEST(ReplayDataTest, AnItemThatJustFitsIsNoOverflow) {
    Block block;
    const QByteArray text(4096 - 4, 't');
    Manager::replayAddString(&block, "n", text.constData());
    EXPECT_EQ(block.used, 4096);
    EXPECT_FALSE(block.overflow);
}

TEST(ReplayDataTest, AnItemOfOneByteTooManyIsAnOverflowAndStillWrittenAndCounted) {
    Block block;
    const QByteArray text(4096 - 3, 't');
    Manager::replayAddString(&block, "n", text.constData());
    EXPECT_EQ(block.used, 4097);
    EXPECT_TRUE(block.overflow);
    EXPECT_EQ(block.data[4095], 't');
    EXPECT_EQ(block.data[4096], '\0');
}

TEST(ReplayDataTest, WhatWasBegunGoesOnBehindTheOverflow) {
    Block block;
    for (int i = 0; i < 585; ++i) {
        Manager::replayAddInt(&block, "i", i);
    }
    EXPECT_EQ(block.used, 4095);
    EXPECT_FALSE(block.overflow);
    Manager::replayAddInt(&block, "i", 1);
    EXPECT_EQ(block.used, 4102);
    EXPECT_TRUE(block.overflow);
    Manager::replayAddFloat(&block, "i", 1);
    EXPECT_EQ(block.used, 4109);
    EXPECT_TRUE(block.overflow) << "and it stays";
}

TEST(ReplayDataTest, NoItemAndNoNumberOfItemsLeavesTheBlockAndEachIsCounted) {
    const QByteArray longText(20'000, 'x');
    Block block;
    Manager::replayAddString(&block, longText.constData(), longText.constData());
    Manager::replayAddString(&block, "n", longText.constData());
    Manager::replayAddInt(&block, longText.constData(), 5);
    for (int i = 0; i < 10'000; ++i) {
        Manager::replayAddFloat(&block, "value", 5);
    }
    EXPECT_TRUE(block.overflow);
    EXPECT_EQ(block.used, 40'003 + 20'004 + 20'006 + 10'000 * 11);
}

TEST(ReplayDataTest, ANameThatFillsTheBlockEndsWithItsNulAndLeavesNoValue) {
    for (int length = Block::kStorageBytes - 8; length < Block::kStorageBytes + 2; ++length) {
        Block block;
        Manager::replayAddInt(&block, QByteArray(length, 'x').constData(), -1);
        EXPECT_TRUE(block.overflow) << length;
        EXPECT_EQ(block.data[0], 0) << length;
        EXPECT_EQ(block.data[1], 'x') << length;
    }
}

}  // namespace

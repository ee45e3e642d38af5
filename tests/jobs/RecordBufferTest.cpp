#include "jobs/RecordBuffer.h"

#include <QByteArray>

#include <gtest/gtest.h>

namespace {

QByteArray contents(const RecordBuffer& buffer) {
    return QByteArray(buffer.data(), buffer.size());
}

TEST(RecordBuffer, ARecordIsItsTypeItsLengthInTwoBytesAndItsPayload) {
    RecordBuffer buffer;
    const QByteArray payload(0x1234, 'x');
    buffer.add(0x84, 0x1234, payload.constData());
    EXPECT_EQ(contents(buffer), QByteArray::fromHex("843412") + payload);
}

TEST(RecordBuffer, ARecordWithoutAPayloadNeedsNoData) {
    RecordBuffer buffer;
    buffer.add(4, 0, nullptr);
    EXPECT_EQ(contents(buffer).toHex(), "040000");
}

TEST(RecordBuffer, WhatIsRemovedIsGoneAndTheRestKeepsItsOrder) {
    RecordBuffer buffer;
    buffer.add(5, 3, "abc");
    buffer.remove(4);
    EXPECT_EQ(contents(buffer), "bc");
    buffer.add(6, 1, "d");
    EXPECT_EQ(contents(buffer), QByteArray("bc\6\1\0d", 6));
    buffer.remove(6);
    EXPECT_EQ(buffer.size(), 0);
}

TEST(RecordBuffer, ABlockHasRoomUpTo8146Bytes) {
    const QByteArray payload(10'000, 'x');
    for (int waiting = 8140; waiting < 8160; ++waiting) {
        RecordBuffer buffer;
        buffer.add(1, static_cast<quint16>(waiting - 3 + 100), payload.constData());
        buffer.remove(100);
        EXPECT_EQ(buffer.hasRoomForBlock(), waiting <= 8146) << waiting;
    }
}

TEST(RecordBuffer, TheLongestRecordFits) {
    const QByteArray payload(65535, 'x');
    RecordBuffer buffer;
    buffer.add(1, 65535, payload.constData());
    EXPECT_EQ(buffer.size(), 65538);
}

}  // namespace

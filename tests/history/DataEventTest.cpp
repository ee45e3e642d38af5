#include "history/DataEvent.h"

#include <gtest/gtest.h>

#include <QBuffer>

#include <algorithm>
#include <limits>

namespace {

DataEvent event(int type, int start, int end, const QString& text = QString()) {
    DataEvent made;
    made.construct(type, start, end, text);
    return made;
}

QByteArray bytesOf(const DataEvent& event) {
    QBuffer buffer;
    buffer.open(QIODevice::WriteOnly);
    EXPECT_TRUE(event.serialize(&buffer));
    return buffer.data();
}

void expectEvent(const DataEvent& event, int type, int start, int end, const QString& text) {
    EXPECT_EQ(event.type(), type);
    EXPECT_EQ(event.start(), start);
    EXPECT_EQ(event.end(), end);
    EXPECT_EQ(event.text(), text);
}

/// Reads an event over one that is in use.
bool readsOver(DataEvent& used, const QByteArray& bytes) {
    QBuffer buffer;
    buffer.setData(bytes);
    buffer.open(QIODevice::ReadOnly);
    return used.unSerialize(&buffer);
}

/// A device that writes down the size of each call, and takes and gives only so much.
class RecordingDevice : public QIODevice {
public:
    RecordingDevice() { open(QIODevice::ReadWrite | QIODevice::Unbuffered); }

    QByteArray content;
    qint64 room = std::numeric_limits<qint64>::max();
    QList<qint64> reads;
    QList<qint64> writes;

    bool isSequential() const override { return true; }

protected:
    qint64 readData(char* data, qint64 size) override {
        reads.append(size);
        const qint64 given = std::min<qint64>(size, content.size());
        std::copy_n(content.constData(), given, data);
        content.remove(0, given);
        return given;
    }
    qint64 writeData(const char* data, qint64 size) override {
        writes.append(size);
        const qint64 taken = std::min(size, room);
        room -= taken;
        content.append(data, taken);
        return taken;
    }
};

const QByteArray kFrameStart = QByteArray::fromHex(
    "02000000"  // FrameStart
    "64000000"  // start 100
    "2c010000"  // end 300
    "02000000"  // 2 bytes follow
    "4f4b");    // "OK"

TEST(DataEvent, AFreshEventIsAllZeroWithoutAText) {
    expectEvent(DataEvent(), 0, 0, 0, "");
}

TEST(DataEvent, ConstructSetsAllFour) {
    expectEvent(event(16, -1, 7, "abc"), 16, -1, 7, "abc");
}

TEST(DataEvent, ADerivedEventIsConstructedByItsOwnRule) {
    struct Doubled : DataEvent {
        void construct(int type, int start, int end, const QString& text) override {
            DataEvent::construct(type, 2 * start, 2 * end, text);
        }
    };
    Doubled doubled;
    DataEvent& base = doubled;
    base.construct(1, 2, 3, "x");
    expectEvent(base, 1, 4, 6, "x");
}

TEST(DataEvent, AnEventWithATextIsItsHeadAndTheTextInLatin1) {
    EXPECT_EQ(bytesOf(event(2, 100, 300, "OK")), kFrameStart);
    EXPECT_EQ(bytesOf(event(0, 0, 0, QString::fromUtf8("\xc3\xbc"))).mid(12),
              QByteArray::fromHex("01000000fc"));
}

TEST(DataEvent, APositionThatIsNotSetIsWrittenAsItIs) {
    EXPECT_EQ(bytesOf(event(201, 300, -1)), QByteArray::fromHex("c9000000"     // ErrorCRC
                                                                "2c010000"     // start 300
                                                                "ffffffff"     // end not set
                                                                "00000000"));  // no text
}

TEST(DataEvent, NegativeFieldsAreWrittenInTwosComplement) {
    EXPECT_EQ(bytesOf(event(-1, -2, std::numeric_limits<int>::min())),
              QByteArray::fromHex("fffffffffeffffff0000008000000000"));
}

TEST(DataEvent, AnEmptyTextTakesExactly16BytesAndReadingItClearsTheTextBefore) {
    const QByteArray bytes = bytesOf(event(1, 5, 6));
    EXPECT_EQ(bytes.size(), 16);
    DataEvent used = event(2, 3, 4, "before");
    ASSERT_TRUE(readsOver(used, bytes));
    expectEvent(used, 1, 5, 6, "");
}

TEST(DataEvent, ReadingTakesWhatWasWritten) {
    DataEvent read;
    ASSERT_TRUE(readsOver(read, kFrameStart));
    expectEvent(read, 2, 100, 300, "OK");
}

TEST(DataEvent, EveryLatin1CharacterSurvivesTheWayThroughADevice) {
    QString text;
    for (char16_t character = 0; character < 256; ++character) {
        text += QChar(character);
    }
    DataEvent read;
    ASSERT_TRUE(readsOver(read, bytesOf(event(3, 1, 2, text))));
    expectEvent(read, 3, 1, 2, text);
}

TEST(DataEvent, KeptCharacterOutsideLatin1IsWrittenAsAQuestionMark) {
    const QString text = QString(QChar(0x20ac)) + "1";
    EXPECT_EQ(bytesOf(event(0, 0, 0, text)).mid(12), QByteArray::fromHex("02000000") + "?1");
}

TEST(DataEvent, EventsFollowEachOtherWithoutASeparator) {
    QBuffer buffer;
    buffer.open(QIODevice::ReadWrite);
    ASSERT_TRUE(event(1, 1, 2, "first").serialize(&buffer));
    ASSERT_TRUE(event(2, 3, 4).serialize(&buffer));
    ASSERT_TRUE(event(3, 5, 6, "third").serialize(&buffer));
    EXPECT_EQ(buffer.size(), 16 + 5 + 16 + 16 + 5);
    buffer.seek(0);
    DataEvent read;
    ASSERT_TRUE(read.unSerialize(&buffer));
    expectEvent(read, 1, 1, 2, "first");
    ASSERT_TRUE(read.unSerialize(&buffer));
    expectEvent(read, 2, 3, 4, "");
    ASSERT_TRUE(read.unSerialize(&buffer));
    expectEvent(read, 3, 5, 6, "third");
    EXPECT_FALSE(read.unSerialize(&buffer));
    expectEvent(read, 3, 5, 6, "third");
}

TEST(DataEvent, TheHeadIsOneWriteAndTheTextAnother) {
    RecordingDevice device;
    EXPECT_TRUE(event(1, 1, 2, "text").serialize(&device));
    EXPECT_EQ(device.writes, (QList<qint64>{16, 4}));
    device.writes.clear();
    EXPECT_TRUE(event(1, 1, 2).serialize(&device));
    EXPECT_EQ(device.writes, QList<qint64>{16});
}

TEST(DataEvent, WritingFailsAtEveryLengthAtWhichTheDeviceIsFull) {
    for (qint64 room = 0; room <= 20; ++room) {
        RecordingDevice device;
        device.room = room;
        EXPECT_EQ(event(1, 1, 2, "text").serialize(&device), room == 20) << room;
        EXPECT_EQ(device.writes.size(), room < 16 ? 1 : 2) << room;
    }
}

TEST(DataEvent, ADeviceOfTenBytesIsRefusedAndLeavesTheEventUnchanged) {
    DataEvent used = event(2, 3, 4, "before");
    EXPECT_FALSE(readsOver(used, kFrameStart.left(10)));
    expectEvent(used, 2, 3, 4, "before");
}

TEST(DataEvent, AHeadCutAtAnyLengthIsRefusedAndLeavesTheEventUnchanged) {
    for (int length = 0; length < 16; ++length) {
        DataEvent used = event(7, 8, 9, "before");
        EXPECT_FALSE(readsOver(used, kFrameStart.left(length))) << length;
        expectEvent(used, 7, 8, 9, "before");
    }
}

TEST(DataEvent, TheHeadIsOneReadEvenWhereTheRestWouldComeLater) {
    RecordingDevice device;
    device.content = kFrameStart.left(15);
    DataEvent used;
    EXPECT_FALSE(used.unSerialize(&device));
    EXPECT_EQ(device.reads, QList<qint64>{16});
}

TEST(DataEvent, KeptTextThatTheDeviceEndsEarlyIsTakenAsFarAsItGoes) {
    for (int missing = 1; missing <= 2; ++missing) {
        DataEvent used = event(7, 8, 9, "before");
        EXPECT_TRUE(readsOver(used, kFrameStart.chopped(missing)));
        expectEvent(used, 2, 100, 300, QString("OK").chopped(missing));
    }
}

TEST(DataEvent, ANegativeTextLengthIsRefusedAndLeavesTheEventUnchanged) {
    for (const char* length : {"ffffffff", "00000080", "feffffff"}) {
        DataEvent used = event(7, 8, 9, "before");
        const QByteArray head = kFrameStart.left(12) + QByteArray::fromHex(length);
        EXPECT_FALSE(readsOver(used, head + "text")) << length;
        expectEvent(used, 7, 8, 9, "before");
    }
}

TEST(DataEvent, AnEventThatClaimsAGigabyteOfTextIsReadInPiecesUntilTheDeviceEnds) {
    RecordingDevice device;
    device.content = kFrameStart.left(12) + QByteArray::fromHex("00000040") + "short";
    DataEvent read;
    ASSERT_TRUE(read.unSerialize(&device));
    expectEvent(read, 2, 100, 300, "short");
    EXPECT_LE(*std::max_element(device.reads.cbegin(), device.reads.cend()), 64 * 1024);
}

TEST(DataEvent, ATextOfManyPiecesIsReadWholeAndNothingBehindIt) {
    QString text;
    while (text.size() < 1'000'003) {
        text += QString::number(text.size()) + ' ';
    }
    QBuffer buffer;
    buffer.open(QIODevice::ReadWrite);
    ASSERT_TRUE(event(1, 2, 3, text).serialize(&buffer));
    ASSERT_TRUE(event(4, 5, 6, "next").serialize(&buffer));
    buffer.seek(0);
    DataEvent read;
    ASSERT_TRUE(read.unSerialize(&buffer));
    expectEvent(read, 1, 2, 3, text);
    ASSERT_TRUE(read.unSerialize(&buffer));
    expectEvent(read, 4, 5, 6, "next");
}

TEST(DataEvent, NoDeviceIsRefusedBothWays) {
    DataEvent used = event(7, 8, 9, "before");
    EXPECT_FALSE(used.serialize(nullptr));
    EXPECT_FALSE(used.unSerialize(nullptr));
    expectEvent(used, 7, 8, 9, "before");
}

TEST(DataEvent, ShiftMovesBothPositions) {
    DataEvent shifted = event(1, 0, 5, "text");
    shifted.shift(10);
    expectEvent(shifted, 1, 10, 15, "text");
}

TEST(DataEvent, ShiftLeavesAPositionThatIsNotSet) {
    DataEvent shifted = event(1, -1, 5);
    shifted.shift(10);
    expectEvent(shifted, 1, -1, 15, "");
    shifted = event(1, 5, -7);
    shifted.shift(-2);
    expectEvent(shifted, 1, 3, -7, "");
}

TEST(DataEvent, KeptPositionShiftedBelowZeroIsNoLongerSetAndStaysSo) {
    DataEvent shifted = event(1, 3, 20);
    shifted.shift(-10);
    expectEvent(shifted, 1, -7, 10, "");
    shifted.shift(10);
    expectEvent(shifted, 1, -7, 20, "");
}

TEST(DataEvent, ShiftEndsAtTheLargestInteger) {
    constexpr int kLargest = std::numeric_limits<int>::max();
    DataEvent shifted = event(1, kLargest - 3, 0);
    shifted.shift(4);
    expectEvent(shifted, 1, kLargest, 4, "");
    shifted.shift(kLargest);
    expectEvent(shifted, 1, kLargest, kLargest, "");
    shifted = event(1, 0, kLargest);
    shifted.shift(std::numeric_limits<int>::min());
    expectEvent(shifted, 1, std::numeric_limits<int>::min(), -1, "");
}

struct TypeRow {
    int type;
    const char* name;
};

class DataEventTypeString : public testing::TestWithParam<TypeRow> {};

TEST_P(DataEventTypeString, NamesTheType) {
    EXPECT_EQ(DataEvent::typeString(GetParam().type), QString(GetParam().name));
}

INSTANTIATE_TEST_SUITE_P(Known, DataEventTypeString,
                         testing::Values(TypeRow{0, "Message"}, TypeRow{1, "SyncFound"},
                                         TypeRow{2, "FrameStart"}, TypeRow{3, "BitWindow"},
                                         TypeRow{16, "Bit0"}, TypeRow{17, "Bit1"},
                                         TypeRow{200, "ErrorFrame"}, TypeRow{201, "ErrorCRC"},
                                         TypeRow{202, "ErrorQuality"},
                                         TypeRow{203, "ErrorCalibration"}));

INSTANTIATE_TEST_SUITE_P(Unknown, DataEventTypeString,
                         testing::Values(TypeRow{4, "?(4)"}, TypeRow{-1, "?(-1)"},
                                         TypeRow{15, "?(15)"}, TypeRow{18, "?(18)"},
                                         TypeRow{199, "?(199)"}, TypeRow{204, "?(204)"},
                                         TypeRow{2147483647, "?(2147483647)"},
                                         TypeRow{-2147483647 - 1, "?(-2147483648)"}));

}  // namespace

#include "tests/datafile/DataFileFixture.h"

#include <climits>
#include <cstring>
#include <random>

namespace {

using DataFileReadTest = DataFileTest;

constexpr quint8 kInterestingBytes[] = {0x00, 0x01, 0x02, 0x03, 0x04, 0x20,
                                        0x40, 0x64, 0x7F, 0x80, 0xFE, 0xFF};

/// The rules of a readable header, told once more.
bool isReadable(const QByteArray& contents) {
    if (contents.size() < 80) {
        return false;
    }
    quint32 size = 0;
    std::memcpy(&size, contents.constData() + 8, 4);
    return size >= 80 && size <= 8192 && size <= contents.size();
}

TEST_F(DataFileReadTest, KEPT_ARecordOfCode100HasElevenBytesOfPayloadEvenIfADescriptorUsesIt) {
    const QByteArray record = QByteArray::fromHex("64 0102030405060708090A0B");
    for (const quint8 length : std::initializer_list<quint8>{1, 5, 12, 255}) {
        ASSERT_TRUE(openAtRecords(DataFileBytes::header({{100, length}}) + record + record));
        EXPECT_EQ(readHex(), record.toHex());
        EXPECT_EQ(readHex(), record.toHex());
        EXPECT_EQ(readHex(), "end");
    }
}

TEST_F(DataFileReadTest, AnUnknownRecordIsOneByteAfterTheMessageAndReadingGoesOnAtTheNext) {
    ASSERT_TRUE(openAtRecords("28 0205 29 28"));
    EXPECT_EQ(readHex(), "28");
    EXPECT_EQ(_log.lines(), QList<QByteArray>{"UNKNOWN RECORD TYPE 40"});
    EXPECT_EQ(readHex(), "0205");
    EXPECT_EQ(readHex(), "29");
    EXPECT_EQ(readHex(), "28");
    EXPECT_EQ(readHex(), "end");
    EXPECT_EQ(_log.lines(), (QList<QByteArray>{"UNKNOWN RECORD TYPE 40", "UNKNOWN RECORD TYPE 41",
                                               "UNKNOWN RECORD TYPE 40"}));
}

TEST_F(DataFileReadTest, ADescribedLengthOf0FallsBackToTheBuiltInTable) {
    ASSERT_TRUE(openAtRecords(DataFileBytes::header({{103, 0}, {50, 0}}) +
                              QByteArray::fromHex("67 01020304 32 0205")));
    EXPECT_EQ(readHex(), "6701020304");
    EXPECT_EQ(readHex(), "32");
    EXPECT_EQ(readHex(), "0205");
    EXPECT_EQ(_log.lines(), QList<QByteArray>{"UNKNOWN RECORD TYPE 50"});
}

TEST_F(DataFileReadTest, ADescribedLengthOf1HasNoPayload) {
    ASSERT_TRUE(openAtRecords(DataFileBytes::header({{50, 1}}) + QByteArray::fromHex("32 0205")));
    EXPECT_EQ(readHex(), "32");
    EXPECT_EQ(readHex(), "0205");
    EXPECT_TRUE(_log.lines().isEmpty());
}

TEST_F(DataFileReadTest, EveryCodeIsReadWithItsLength) {
    for (int code = 0; code < 256; ++code) {
        const int payload = code == 0 ? 0 : std::max(DataFileBytes::builtInPayload(2, code), 0);
        const QByteArray record = QByteArray(1, static_cast<char>(code)) + QByteArray(payload, 7);
        ASSERT_TRUE(openAtRecords(DataFileBytes::header() + record + "\x02\x05"));
        EXPECT_EQ(readHex(), record.toHex()) << code;
        EXPECT_EQ(_type, code);
        EXPECT_EQ(readHex(), "0205") << code;
    }
}

TEST_F(DataFileReadTest, TheVersionDoesNotChangeHowATimeIsRead) {
    for (const quint32 version : {0U, 1U, 2U, UINT_MAX}) {
        QByteArray contents = DataFileBytes::header() + QByteArray::fromHex("0100F15365 0205");
        DataFileBytes::setField(contents, 0, version);
        ASSERT_TRUE(openAtRecords(contents));
        EXPECT_EQ(readHex(), "0100f15365");
        EXPECT_EQ(readHex(), "0205");
    }
}

TEST_F(DataFileReadTest, ATypeByteWithoutPayloadIsTheEndAndCountsAsRead) {
    ASSERT_TRUE(openAtRecords("0205 01"));
    EXPECT_EQ(readHex(), "0205");
    EXPECT_EQ(readHex(), "end");
    EXPECT_EQ(_type, 1);
    EXPECT_EQ(_buffer[0], 1);
    EXPECT_EQ(_file.location(), 83);
    EXPECT_EQ(_file.currentOffset(), 83);
}

TEST_F(DataFileReadTest, AShortPayloadIsAcceptedAndCountedAsRead) {
    ASSERT_TRUE(openAtRecords("01 00F153"));
    EXPECT_EQ(readHex(), "0100f153");
    EXPECT_EQ(_file.location(), 84);
    EXPECT_EQ(readHex(), "end");
}

TEST_F(DataFileReadTest, AShortRecordDoesNotCarryTheLastOnesBytes) {
    ASSERT_TRUE(openAtRecords(DataFileBytes::header({{50, 255}}) + "\x32" +
                              QByteArray(254, '\xEE') + QByteArray::fromHex("0205 32 01")));
    std::memset(_buffer, 0xDD, sizeof _buffer);
    EXPECT_EQ(read(), 255);
    EXPECT_EQ(_buffer[255], 0);
    EXPECT_EQ(read(), 2);
    EXPECT_EQ(QByteArray(_buffer, 256), QByteArray("\x02\x05").leftJustified(256, 0));
    EXPECT_EQ(read(), 2);
    EXPECT_EQ(QByteArray(_buffer, 256), QByteArray("\x32\x01").leftJustified(256, 0));
}

TEST_F(DataFileReadTest, TheEndLeavesTheBufferAndTheTypeAlone) {
    ASSERT_TRUE(open(DataFileBytes::header()));
    std::memset(_buffer, 0xDD, sizeof _buffer);
    _type = 1234;
    EXPECT_EQ(read(), -1);
    EXPECT_EQ(_type, 1234);
    EXPECT_EQ(QByteArray(_buffer, 256), QByteArray(256, '\xDD'));
}

TEST_F(DataFileReadTest, NothingBeyond256BytesOfALargeBufferIsTouched) {
    ASSERT_TRUE(openAtRecords(DataFileBytes::header() + "\x07" + QByteArray(255, '\xEE')));
    QByteArray buffer(1000, '#');
    EXPECT_EQ(_file.readRecord(buffer.data(), 1000, _type), 256);
    EXPECT_EQ(buffer.mid(1, 255), QByteArray(255, '\xEE'));
    EXPECT_EQ(buffer.mid(256), QByteArray(744, '#'));
}

TEST_F(DataFileReadTest, ABufferOfNoLengthIsTheEndAndReadsNothing) {
    ASSERT_TRUE(openAtRecords("0205"));
    EXPECT_EQ(_file.readRecord(_buffer, 0, _type), -1);
    EXPECT_EQ(_file.readRecord(_buffer, -1, _type), -1);
    EXPECT_EQ(_file.readRecord(_buffer, INT_MIN, _type), -1);
    EXPECT_EQ(_file.location(), 80);
    EXPECT_EQ(readHex(), "0205");
}

TEST_F(DataFileReadTest, KEPT_ThePayloadIsNotCheckedAgainstTheBuffersLength) {
    ASSERT_TRUE(openAtRecords("0100F15365"));
    EXPECT_EQ(_file.readRecord(_buffer, 1, _type), 5);
    EXPECT_EQ(QByteArray(_buffer, 5).toHex(), "0100f15365");
}

TEST_F(DataFileReadTest, AFileThatGrowsIsReadOn) {
    ASSERT_TRUE(openAtRecords("0205"));
    EXPECT_EQ(readHex(), "0205");
    EXPECT_EQ(readHex(), "end");
    EXPECT_TRUE(_file.endOfFile());
    QFile writer(kPath);
    ASSERT_TRUE(writer.open(QIODevice::Append | QIODevice::Unbuffered));
    for (int round = 0; round < 1000; ++round) {
        ASSERT_EQ(writer.write("\x02\x06\x02\x07", 4), 4);
        ASSERT_FALSE(_file.endOfFile());
        ASSERT_EQ(_file.size(), 82 + 4 * (round + 1));
        ASSERT_EQ(readHex(), "0206");
        ASSERT_EQ(readHex(), "0207");
        ASSERT_EQ(readHex(), "end");
    }
}

TEST_F(DataFileReadTest, AFileThatIsCutWhileItIsReadEndsWithoutHarm) {
    ASSERT_TRUE(
        openAtRecords(DataFileBytes::header() + QByteArray::fromHex("0205").repeated(100'000)));
    EXPECT_EQ(readHex(), "0205");
    ASSERT_TRUE(QFile::resize(kPath, 100));
    const QList<QByteArray> rest = restOf(_file);
    EXPECT_LT(rest.size(), 16 * 1024);
    EXPECT_EQ(rest.count("\x02\x05"), rest.size());
    EXPECT_EQ(_file.size(), 100);
    ASSERT_TRUE(QFile::resize(kPath, 0));
    EXPECT_EQ(read(), -1);
}

TEST_F(DataFileReadTest, AFileAbove4GigabytesIsReadAtItsEnd) {
    constexpr qint64 kFar = 5'000'000'000;
    writeTestFile(kPath, DataFileBytes::header());
    ASSERT_TRUE(QFile::resize(kPath, kFar));
    QFile writer(kPath);
    ASSERT_TRUE(writer.open(QIODevice::Append));
    ASSERT_EQ(writer.write("\x02\x05", 2), 2);
    writer.close();
    ASSERT_TRUE(_file.open(kPath, 0));
    EXPECT_EQ(_file.location(), kFar + 2);
    EXPECT_EQ(_file.size(), kFar + 2);
    ASSERT_TRUE(_file.seekToOffset(kFar));
    EXPECT_EQ(_file.pushLocation(), kFar);
    ASSERT_TRUE(_file.seekToFirstRecord());
    EXPECT_EQ(readHex(), "00");
    _file.popLocation();
    EXPECT_EQ(readHex(), "0205");
    EXPECT_EQ(readHex(), "end");
}

TEST_F(DataFileReadTest, ReadingDataMovesTheLocationByWhatWasRead) {
    ASSERT_TRUE(openAtRecords("0205 0206 07"));
    EXPECT_EQ(_file.readData(_buffer, 3), 3);
    EXPECT_EQ(QByteArray(_buffer, 3).toHex(), "020502");
    EXPECT_EQ(_file.location(), 83);
    EXPECT_EQ(_file.readData(_buffer, 0), 0);
    EXPECT_EQ(_file.readData(_buffer, -1), -1);
    EXPECT_EQ(_file.location(), 83);
    EXPECT_EQ(_file.readData(_buffer, 100), 2);
    EXPECT_EQ(_file.location(), 85);
    EXPECT_EQ(_file.readData(_buffer, 100), 0);
    EXPECT_EQ(_file.location(), 85);
}

TEST_F(DataFileReadTest, DataAndRecordsAreReadInTurns) {
    ASSERT_TRUE(openAtRecords("0205 AABB 0206 CC 0207"));
    EXPECT_EQ(readHex(), "0205");
    EXPECT_EQ(_file.readData(_buffer, 2), 2);
    EXPECT_EQ(readHex(), "0206");
    EXPECT_EQ(_file.readData(_buffer, 1), 1);
    EXPECT_EQ(_buffer[0], '\xCC');
    EXPECT_EQ(readHex(), "0207");
    EXPECT_EQ(readHex(), "end");
}

TEST_F(DataFileReadTest, AStreamBeginsWhereTheFileStandsAndLeavesItThere) {
    ASSERT_TRUE(openAtRecords("0205 0206 0207"));
    EXPECT_EQ(readHex(), "0205");
    char block[RecordStream::kMinimumBlockBytes];
    RecordStream stream = _file.stream(block, sizeof block);
    EXPECT_EQ(stream.offset(), 82);
    ASSERT_TRUE(stream.next());
    EXPECT_EQ(QByteArray(stream.record(), stream.length()).toHex(), "0206");
    EXPECT_EQ(_file.location(), 82);
    EXPECT_EQ(readHex(), "0206");
}

TEST_F(DataFileReadTest,
       EveryHeaderByteWithInterestingValuesOpensByTheRulesAndReadsAsThePlainReader) {
    const QByteArray sound = DataFileBytes::header({{50, 9}, {51, 3}}) + someRecords();
    int opened = 0;
    for (int at = 0; at < 80 + 2 * 1024; ++at) {
        for (const quint8 value : kInterestingBytes) {
            QByteArray contents = sound;
            contents[at] = static_cast<char>(value);
            if (isReadable(contents)) {
                ASSERT_NO_FATAL_FAILURE(expectPlainReadersRecords(contents)) << at << ' ' << value;
                ++opened;
            } else {
                ASSERT_FALSE(open(contents)) << at << ' ' << value;
            }
        }
    }
    EXPECT_GT(opened, 2000 * 12);
}

TEST_F(DataFileReadTest, AFileCutAtEveryLengthUpTo4KilobytesOpensByTheRules) {
    const QByteArray whole = DataFileBytes::header({{50, 9}, {51, 3}}) + someRecords().repeated(40);
    ASSERT_GT(whole.size(), 4096);
    for (int bytes = 0; bytes <= 4096; ++bytes) {
        const QByteArray contents = whole.left(bytes);
        if (isReadable(contents)) {
            ASSERT_NO_FATAL_FAILURE(expectPlainReadersRecords(contents)) << bytes;
        } else {
            ASSERT_FALSE(open(contents)) << bytes;
        }
    }
}

TEST_F(DataFileReadTest, CountsThatLieDescribeNoMoreThanTheHeaderHolds) {
    for (const quint32 count : {0U, 1U, 2U, 3U, 7U, 8U, 255U, 256U, 0x7FFFFFFFU, UINT_MAX}) {
        for (const quint32 size : {80U, 81U, 1103U, 1104U, 1105U, 2128U, 2129U, 8192U}) {
            QByteArray contents = DataFileBytes::header({{50, 9}, {51, 3}});
            contents = contents.leftJustified(8192, 0) + someRecords();
            DataFileBytes::setField(contents, 8, size);
            DataFileBytes::setField(contents, 76, count);
            ASSERT_NO_FATAL_FAILURE(expectPlainReadersRecords(contents)) << count << ' ' << size;
        }
    }
}

TEST_F(DataFileReadTest, RandomRecordStreamsAreReadAsThePlainReaderReadsThem) {
    std::mt19937 random(7);
    for (int round = 0; round < 200; ++round) {
        QByteArray contents = DataFileBytes::header(
            {{static_cast<quint8>(random()), 9}, {static_cast<quint8>(random()), 200}});
        const int bytes = static_cast<int>(random() % 40'000);
        for (int i = 0; i < bytes; ++i) {
            contents += static_cast<char>(random());
        }
        ASSERT_NO_FATAL_FAILURE(expectPlainReadersRecords(contents)) << round;
    }
}

}  // namespace

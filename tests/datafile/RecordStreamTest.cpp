#include "datafile/RecordStream.h"

#include "bus/DebugText.h"
#include "tests/support/DataFileBytes.h"
#include "tests/support/FakeClock.h"
#include "tests/support/Files.h"
#include "tests/support/LogCapture.h"
#include "tests/support/PlainRecordReader.h"

#include <QFile>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <memory>
#include <random>
#include <vector>

namespace {

const QString kPath = QStringLiteral("/root/data/stream.gdf");
constexpr int kBlockSizes[] = {1024, 1025, 1279, 1280, 1535, 2000, 4096, 65536};

/// A stream over a file of its own, with a block that ends where it says it does.
class OpenStream {
public:
    explicit OpenStream(const QByteArray& header, int blockBytes = 1024)
        : _descriptor(::open(qPrintable(kPath), O_RDONLY | O_CLOEXEC)),
          _lengths(header.constData(), static_cast<int>(header.size())),
          _block(static_cast<std::size_t>(blockBytes)),
          stream(_descriptor, _lengths, _block.data(), blockBytes) {
        stream.seek(header.size());
    }
    ~OpenStream() { ::close(_descriptor); }
    OpenStream(const OpenStream&) = delete;
    OpenStream& operator=(const OpenStream&) = delete;

private:
    int _descriptor;
    RecordLengths _lengths;
    std::vector<char> _block;

public:
    RecordStream stream;
};

QByteArray recordOf(const RecordStream& stream) {
    return QByteArray(stream.record(), stream.length());
}

QList<QByteArray> restByNext(RecordStream& stream) {
    QList<QByteArray> records;
    while (stream.next()) {
        EXPECT_EQ(stream.type(), static_cast<quint8>(stream.record()[0]));
        records += recordOf(stream);
    }
    return records;
}

QList<QByteArray> restByForEach(RecordStream& stream) {
    QList<QByteArray> records;
    stream.forEach([&records](const char* record, int type, int length) {
        EXPECT_EQ(type, static_cast<quint8>(record[0]));
        EXPECT_EQ(type, DataFileFormat::byteAt(record, 0));
        records += QByteArray(record, length);
        return true;
    });
    return records;
}

class RecordStreamTest : public testing::Test {
protected:
    RecordStreamTest() { emptyRoots(); }

    /// The file is `_header` and these bytes.
    void write(const QByteArray& records) {
        QFile::remove(kPath);
        rewrite(records);
    }
    /// In the same file, for whoever has it open.
    void rewrite(const QByteArray& records) { writeTestFile(kPath, _header + records); }
    void write(const char* hex) { write(QByteArray::fromHex(hex)); }
    QByteArray contents() const { return readTestFile(kPath); }
    QByteArray expectedLog(const PlainRecordReader& plain) const;
    void expectSameRecords();

    /// Mostly short time steps and one type, as in a recording, or anything.
    QByteArray randomRecords(int bytes);

    QByteArray _header = DataFileBytes::header({{50, 9}, {51, 255}, {100, 3}, {52, 0}});
    std::mt19937 _random{20240};
    FakeClock _clock;  // stands still: repeated lines are never counted up
    LogCapture _log;
};

QByteArray RecordStreamTest::expectedLog(const PlainRecordReader& plain) const {
    QByteArray lines;
    for (const int type : plain.unknownTypes().first(
             std::min<qsizetype>(plain.unknownTypes().size(), DebugText::kRepeatsPerSecond))) {
        lines += "UNKNOWN RECORD TYPE " + QByteArray::number(type) + '\n';
    }
    return lines;
}

void RecordStreamTest::expectSameRecords() {
    PlainRecordReader plain(contents());
    const QList<QByteArray> expected = plain.rest();
    for (const int blockBytes : kBlockSizes) {
        for (const auto restOf : {restByNext, restByForEach}) {
            const LogCapture log;
            OpenStream open(_header, blockBytes);
            ASSERT_EQ(restOf(open.stream), expected) << blockBytes;
            ASSERT_EQ(open.stream.offset(), plain.offset()) << blockBytes;
            QByteArray lines;
            for (const QByteArray& line : log.lines()) {
                lines += line + '\n';
            }
            ASSERT_EQ(lines, expectedLog(plain)) << blockBytes;
        }
    }
}

QByteArray RecordStreamTest::randomRecords(int bytes) {
    constexpr char kUsual[] = {2, 50, 2, 100, 1, 3, 0, 6, 51, 7};
    const bool isRecording = _random() % 2 == 0;
    QByteArray records;
    while (records.size() < bytes) {
        const auto any = static_cast<char>(_random());
        const int payload = isRecording ? 8 : static_cast<int>(_random() % 40);
        records += isRecording ? kUsual[_random() % (_random() % 10 + 1)] : any;
        for (int i = 0; i < payload; ++i) {
            records += static_cast<char>(_random());
        }
    }
    records.truncate(bytes);
    return records;
}

TEST_F(RecordStreamTest, EachRecordIsItsTypeByteAndItsPayload) {
    write(
        "01 00F15365"                // absolute time
        "32 0102030405060708"        // described, 9 bytes
        "02 05"                      // short step
        "00"                         // empty
        "03 0001"                    // step
        "64 0102030405060708090A0B"  // input, 11 bytes though described with 2
        "67 AABBCCDD"                // built in, 4
        "0B");                       // built in, none
    OpenStream open(_header);
    QByteArrayList hex;
    while (open.stream.next()) {
        hex += recordOf(open.stream).toHex();
    }
    EXPECT_EQ(hex, (QByteArrayList{"0100f15365", "320102030405060708", "0205", "00", "030001",
                                   "640102030405060708090a0b", "67aabbccdd", "0b"}));
    EXPECT_TRUE(_log.lines().isEmpty());
}

TEST_F(RecordStreamTest, AnUnknownTypeIsOneByteAndLogged) {
    write("28 34 0205");
    OpenStream open(_header);
    EXPECT_EQ(restByNext(open.stream), (QList<QByteArray>{"\x28", "\x34", "\x02\x05"}));
    EXPECT_EQ(_log.lines(),
              (QList<QByteArray>{"UNKNOWN RECORD TYPE 40", "UNKNOWN RECORD TYPE 52"}));
}

TEST_F(RecordStreamTest, EveryUnknownRecordIsLoggedByForEachToo) {
    write(QByteArray(30, '\x28') + QByteArray(5000, '\0'));
    for (const int blockBytes : kBlockSizes) {
        _log.clear();
        DebugText::forgetRepeats();
        OpenStream open(_header, blockBytes);
        EXPECT_EQ(restByForEach(open.stream).size(), 5030);
        EXPECT_EQ(_log.count("UNKNOWN RECORD TYPE 40"), 30) << blockBytes;
    }
}

TEST_F(RecordStreamTest, NextAndForEachGiveThePlainReadersRecordsForEveryBlockSize) {
    for (int round = 0; round < 60; ++round) {
        write(randomRecords(static_cast<int>(_random() % 12000)));
        ASSERT_NO_FATAL_FAILURE(expectSameRecords()) << round;
    }
}

TEST_F(RecordStreamTest, AFileCutAnywhereGivesThePlainReadersRecords) {
    const QByteArray records = randomRecords(2100);
    for (int bytes = 0; bytes <= records.size(); bytes += bytes < 1100 ? 1 : 13) {
        write(records.left(bytes));
        ASSERT_NO_FATAL_FAILURE(expectSameRecords()) << bytes;
    }
}

TEST_F(RecordStreamTest, TheLongestRecordStraddlesEveryBlockBorder) {
    QByteArray longest(1, '\x07');
    for (int i = 0; i < 255; ++i) {
        longest += static_cast<char>(i);
    }
    for (int before = 0; before < 260; ++before) {
        write(QByteArray(before, '\0') + longest.repeated(6));
        ASSERT_NO_FATAL_FAILURE(expectSameRecords()) << before;
    }
}

TEST_F(RecordStreamTest, NextAndForEachTakeTurnsAtAnyRecord) {
    write(randomRecords(9000));
    const QList<QByteArray> expected = PlainRecordReader(contents()).rest();
    for (const int blockBytes : kBlockSizes) {
        OpenStream open(_header, blockBytes);
        QList<QByteArray> records;
        for (bool isMore = true; isMore;) {
            auto left = _random() % 50 + 1;
            isMore = false;
            open.stream.forEach([&](const char* record, int, int length) {
                records += QByteArray(record, length);
                isMore = --left == 0;
                return !isMore;
            });
            if (isMore && open.stream.next()) {
                records += recordOf(open.stream);
            }
        }
        ASSERT_EQ(records, expected) << blockBytes;
    }
}

TEST_F(RecordStreamTest, WhereForEachWasStoppedTheRecordIsTheOneVisited) {
    write(QByteArray::fromHex("0205 320102030405060708").repeated(300));
    OpenStream open(_header);
    int visited = 0;
    open.stream.forEach([&visited](const char*, int, int) { return ++visited < 101; });
    EXPECT_EQ(recordOf(open.stream).toHex(), "0205");
    open.stream.forEach([](const char*, int, int) { return false; });
    EXPECT_EQ(recordOf(open.stream).toHex(), "320102030405060708");
    EXPECT_EQ(open.stream.offset(), _header.size() + 51 * 11);
}

TEST_F(RecordStreamTest, ATypeByteWithoutPayloadIsTheEndAndCountsAsRead) {
    write("0205 32");
    OpenStream open(_header);
    EXPECT_TRUE(open.stream.next());
    EXPECT_FALSE(open.stream.next());
    EXPECT_EQ(open.stream.type(), 0x32);
    EXPECT_EQ(open.stream.length(), 1);
    EXPECT_EQ(open.stream.offset(), _header.size() + 3);
    EXPECT_FALSE(open.stream.next());
    EXPECT_EQ(open.stream.offset(), _header.size() + 3);
}

TEST_F(RecordStreamTest, ForEachVisitsNoTypeByteWithoutPayload) {
    write("0205 32");
    OpenStream open(_header);
    EXPECT_EQ(restByForEach(open.stream), QList<QByteArray>{"\x02\x05"});
    EXPECT_EQ(open.stream.offset(), _header.size() + 3);
}

TEST_F(RecordStreamTest, ACutPayloadIsFollowedByZerosUpTo256Bytes) {
    write(QByteArray(2000, '\xEE') + QByteArray::fromHex("32 010203"));
    for (const int blockBytes : kBlockSizes) {
        OpenStream open(_header, blockBytes);
        open.stream.seek(_header.size() + 2000);
        ASSERT_TRUE(open.stream.next());
        EXPECT_EQ(open.stream.length(), 4);
        EXPECT_EQ(QByteArray(open.stream.record(), 256),
                  QByteArray::fromHex("32010203").leftJustified(256, 0))
            << blockBytes;
    }
}

TEST_F(RecordStreamTest, ForEachsCutRecordIsFollowedByZerosToo) {
    write(QByteArray(2000, '\0') + QByteArray::fromHex("32 010203"));
    OpenStream open(_header);
    QByteArray last;
    open.stream.forEach([&last](const char* record, int, int) {
        last = QByteArray(record, 256);
        return true;
    });
    EXPECT_EQ(last, QByteArray::fromHex("32010203").leftJustified(256, 0));
}

TEST_F(RecordStreamTest, AFileThatGrowsIsReadOn) {
    write("0201");
    OpenStream open(_header);
    EXPECT_TRUE(open.stream.next());
    EXPECT_FALSE(open.stream.next());
    QFile file(kPath);
    ASSERT_TRUE(file.open(QIODevice::Append | QIODevice::Unbuffered));
    for (int round = 0; round < 3000; ++round) {
        ASSERT_EQ(file.write("\x02\x07", 2), 2);
        ASSERT_TRUE(open.stream.next());
        ASSERT_EQ(recordOf(open.stream), "\x02\x07");
        ASSERT_FALSE(open.stream.next());
    }
}

TEST_F(RecordStreamTest, ARecordThatWasWholeWhenItsTurnCameIsReadWhole) {
    write("0205 32 0102");
    OpenStream open(_header);
    ASSERT_TRUE(open.stream.next());  // the block now holds the beginning of the second
    rewrite(QByteArray::fromHex("0205 32 0102030405060708"));
    ASSERT_TRUE(open.stream.next());
    EXPECT_EQ(recordOf(open.stream).toHex(), "320102030405060708");
}

TEST_F(RecordStreamTest, AFileCutWhileItIsReadEndsWithWhatWasInTheBlock) {
    for (const int blockBytes : kBlockSizes) {
        write(QByteArray::fromHex("0205").repeated(5000));
        OpenStream open(_header, blockBytes);
        ASSERT_TRUE(open.stream.next());
        ASSERT_TRUE(QFile::resize(kPath, _header.size()));
        const QList<QByteArray> rest = restByNext(open.stream);
        EXPECT_LE(rest.size() * 2, blockBytes);
        EXPECT_EQ(rest.count("\x02\x05"), rest.size());
    }
}

TEST_F(RecordStreamTest, SeekingAnywhereReadsOnFromThere) {
    write(randomRecords(20000));
    PlainRecordReader plain(contents());
    for (const int blockBytes : kBlockSizes) {
        OpenStream open(_header, blockBytes);
        for (int round = 0; round < 500; ++round) {
            const qint64 nearby = open.stream.offset() - 600 + _random() % 1200;
            const qint64 anywhere = static_cast<qint64>(_random() % (contents().size() + 100));
            const qint64 to = std::max<qint64>(round % 3 == 0 ? anywhere : nearby, 0);
            open.stream.seek(to);
            plain.seek(to);
            ASSERT_EQ(open.stream.offset(), to);
            for (int i = 0; i < 5; ++i) {
                const QByteArray expected = plain.next();
                ASSERT_EQ(open.stream.next() ? recordOf(open.stream) : QByteArray(), expected);
                ASSERT_EQ(open.stream.offset(), plain.offset());
            }
        }
    }
}

TEST_F(RecordStreamTest, SeekingKeepsTheBlockAndRenewingReadsItAgain) {
    write("0205 0206");
    OpenStream open(_header);
    ASSERT_TRUE(open.stream.next());
    rewrite(QByteArray::fromHex("0207 0208"));
    open.stream.seek(_header.size());
    ASSERT_TRUE(open.stream.next());
    EXPECT_EQ(recordOf(open.stream).toHex(), "0205");
    open.stream.renew(_header.size());
    ASSERT_TRUE(open.stream.next());
    EXPECT_EQ(recordOf(open.stream).toHex(), "0207");
}

TEST_F(RecordStreamTest, OffsetsBeyondTheFileAndBelowItAreTheEnd) {
    write("0205");
    OpenStream open(_header);
    for (const qint64 offset : {contents().size(), contents().size() + 1, qint64{1} << 40,
                                std::numeric_limits<qint64>::max(), qint64{-1}}) {
        open.stream.seek(offset);
        EXPECT_FALSE(open.stream.next()) << offset;
        EXPECT_EQ(open.stream.offset(), offset);
        EXPECT_TRUE(restByForEach(open.stream).isEmpty());
    }
}

TEST_F(RecordStreamTest, WhatCannotBeReadIsTheEnd) {
    const RecordLengths lengths;
    char block[RecordStream::kMinimumBlockBytes];
    const int folder = ::open("/root/data", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (const int descriptor : {-1, folder}) {
        RecordStream stream(descriptor, lengths, block, sizeof block);
        EXPECT_FALSE(stream.next());
        EXPECT_TRUE(restByForEach(stream).isEmpty());
        EXPECT_EQ(stream.offset(), 0);
    }
    ::close(folder);
}

TEST_F(RecordStreamTest, TheDescriptorsOwnPositionNeitherMattersNorMoves) {
    write(QByteArray::fromHex("0205").repeated(1000));
    const int descriptor = ::open(qPrintable(kPath), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(::lseek(descriptor, 33, SEEK_SET), 33);
    const RecordLengths lengths;
    std::vector<char> first(1024);
    std::vector<char> second(2048);
    RecordStream one(descriptor, lengths, first.data(), 1024);
    RecordStream other(descriptor, lengths, second.data(), 2048);
    one.seek(_header.size());
    other.seek(_header.size());
    for (int i = 0; i < 1000; ++i) {
        ASSERT_TRUE(one.next());
        ASSERT_TRUE(other.next());
    }
    EXPECT_FALSE(one.next());
    EXPECT_FALSE(other.next());
    EXPECT_EQ(::lseek(descriptor, 0, SEEK_CUR), 33);
    ::close(descriptor);
}

TEST_F(RecordStreamTest, NothingOutsideTheBlockIsWritten) {
    write(randomRecords(5000));
    const RecordLengths lengths(_header.constData(), static_cast<int>(_header.size()));
    for (const int blockBytes : kBlockSizes) {
        QByteArray memory(blockBytes + 64, '#');
        const int descriptor = ::open(qPrintable(kPath), O_RDONLY | O_CLOEXEC);
        RecordStream stream(descriptor, lengths, memory.data() + 32, blockBytes);
        restByNext(stream);
        stream.seek(0);
        restByForEach(stream);
        EXPECT_EQ(memory.first(32), QByteArray(32, '#'));
        EXPECT_EQ(memory.last(32), QByteArray(32, '#'));
        ::close(descriptor);
    }
}

}  // namespace

#include "datafile/DataFile.h"

#include "datafile/RecordTime.h"
#include "tests/support/DataFileBytes.h"
#include "tests/support/FailingSeek.h"
#include "tests/support/FakeClock.h"
#include "tests/support/Files.h"
#include "tests/support/LogCapture.h"
#include "tests/support/PlainRecordReader.h"
#include "tests/support/QtWarnings.h"

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/stat.h>
#include <csignal>
#include <optional>
#include <random>

namespace {

const QString kPath = QStringLiteral("/root/data/day.gdf");

/// While it lives, no file of this process grows beyond a size: a full disk to the byte.
class FullDisk {
public:
    explicit FullDisk(rlim_t bytes) : _handler(std::signal(SIGXFSZ, SIG_IGN)) {
        ::getrlimit(RLIMIT_FSIZE, &_before);
        const rlimit limit{bytes, _before.rlim_max};
        ::setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FullDisk() {
        ::setrlimit(RLIMIT_FSIZE, &_before);
        std::signal(SIGXFSZ, _handler);
    }
    FullDisk(const FullDisk&) = delete;
    FullDisk& operator=(const FullDisk&) = delete;

private:
    void (*_handler)(int);
    rlimit _before{};
};

class DataFileWriteTest : public testing::Test {
protected:
    DataFileWriteTest() { emptyRoots(); }

    static QByteArray contents() { return readTestFile(kPath); }
    static QByteArray recordsHex() { return contents().mid(80).toHex(); }
    /// A new file with a header and no record types.
    void begin() {
        ASSERT_TRUE(_file.create(kPath, 0));
        ASSERT_TRUE(_file.writeHeader());
    }
    bool writeRecord(const char* hex) {
        const QByteArray bytes = QByteArray::fromHex(hex);
        return _file.writeRecord(bytes.constData(), static_cast<int>(bytes.size()));
    }
    quint32 created() const { return static_cast<quint32>(_clock.wall); }

    FakeClock _clock;
    LogCapture _log;
    QtWarnings _warnings;
    DataFile _file{QStringLiteral("source")};
};

TEST_F(DataFileWriteTest, ANewFilesHeaderIsTheseBytes) {
    ASSERT_TRUE(_file.create(kPath, 0));
    ASSERT_TRUE(_file.writeHeader());
    EXPECT_EQ(contents(), QByteArray::fromHex("02000000"      // version 2
                                              "00F15365"      // created, 1,700,000,000
                                              "50000000"      // 80 bytes of header
                                              "736F75726365"  // "source"
                                              )
                                  .leftJustified(76, 0) +
                              QByteArray::fromHex("00000000"));  // no record types
}

/// The example in docs/formats.md.
TEST_F(DataFileWriteTest, AFileWithOneTypeAndTwoSamplesIsTheseBytes) {
    DataFile file(QStringLiteral("level-01"));
    ASSERT_TRUE(file.create(kPath, 0));
    ASSERT_EQ(file.addRecordType(QStringLiteral("gauge"), 4), 0);
    ASSERT_TRUE(file.addRecordTypeMnemonic(0, QStringLiteral("flags"), 1, 1));
    ASSERT_TRUE(file.addRecordTypeMnemonic(0, QStringLiteral("value"), 5, 8));
    ASSERT_TRUE(file.writeHeader());
    ASSERT_TRUE(file.addRecordTimestamp(1'700'000'060));
    ASSERT_TRUE(file.writeRecord("\x04\x00\x00\x00\x00\x00\x00\x00\xF8\x3F", 10));
    ASSERT_TRUE(file.addRecordTimestamp(1'700'000'260));
    ASSERT_TRUE(file.writeRecord("\x04\x01\x00\x00\x00\x00\x00\x00\x00\x40", 10));

    QByteArray expected(80 + 1024, 0);
    const auto put = [&expected](int offset, const char* hex) {
        const QByteArray bytes = QByteArray::fromHex(hex);
        expected.replace(offset, bytes.size(), bytes);
    };
    put(0, "02000000 00F15365 50040000");
    put(12, "6C6576656C2D3031");
    put(76, "01000000");
    put(80, "6761756765");
    put(111, "04 0A 02");
    put(114, "666C616773");
    put(130, "76616C7565");
    put(994, "01 05");
    put(1049, "01 08");
    EXPECT_EQ(contents(), expected + QByteArray::fromHex("02 3C"
                                                         "04 00 000000000000F83F"
                                                         "03 C800"
                                                         "04 01 0000000000000040"));
}

TEST_F(DataFileWriteTest, CreatingWritesNothingYet) {
    ASSERT_TRUE(_file.create(kPath, 5));
    EXPECT_EQ(contents(), QByteArray());
    EXPECT_EQ(_file.size(), 0);
    EXPECT_EQ(_file.location(), 80);
    EXPECT_EQ(_file.headerSize(), 80);
    EXPECT_EQ(_file.filename(), kPath);
    EXPECT_EQ(_file.mode(), 5);
    EXPECT_NE(_file.header(), nullptr);
}

TEST_F(DataFileWriteTest, CreatingEmptiesAnExistingFile) {
    writeTestFile(kPath, QByteArray(5000, 'x'));
    begin();
    EXPECT_EQ(contents().size(), 80);
}

TEST_F(DataFileWriteTest, CreatingAnotherFileLeavesTheFirst) {
    begin();
    EXPECT_EQ(_file.addRecordType(QStringLiteral("one"), 50), 0);
    ASSERT_TRUE(_file.create(QStringLiteral("/root/data/other.gdf"), 0));
    EXPECT_EQ(_file.headerSize(), 80);
    EXPECT_EQ(_file.recordTypeLength(50), -1);
    EXPECT_TRUE(_file.writeHeader());
    EXPECT_EQ(readTestFile(QStringLiteral("/root/data/other.gdf")), contents());
}

TEST_F(DataFileWriteTest, AFileThatCannotBeCreatedLeavesTheObjectClosedSilently) {
    begin();
    for (const char* name : {"/root/data", "/root/data/missing/day.gdf", "", "/dev/full"}) {
        EXPECT_FALSE(_file.create(QString::fromLatin1(name), 0)) << name;
        EXPECT_EQ(_file.header(), nullptr);
        EXPECT_EQ(_file.filename(), QString());
        EXPECT_EQ(_file.location(), 0);
        EXPECT_EQ(_file.addRecordType(QStringLiteral("one"), 50), -1);
    }
    EXPECT_TRUE(_log.lines().isEmpty());
    EXPECT_TRUE(_warnings.lines().isEmpty());
}

TEST_F(DataFileWriteTest, TheSourceNameIsCutTo63CharactersInTheHeader) {
    for (const int length : {62, 63, 64, 65, 1000}) {
        DataFile file(QString(length, 'n'));
        ASSERT_TRUE(file.create(kPath, 0));
        ASSERT_TRUE(file.writeHeader());
        EXPECT_EQ(contents().mid(12, 64),
                  QByteArray(std::min(length, 63), 'n').leftJustified(64, 0));
        EXPECT_EQ(contents().size(), 80);
    }
}

TEST_F(DataFileWriteTest, TheSourceNameIsLatin1) {
    DataFile file(QStringLiteral("Zählüwerk €"));
    ASSERT_TRUE(file.create(kPath, 0));
    ASSERT_TRUE(file.writeHeader());
    EXPECT_EQ(contents().mid(12, 12), QByteArray("Z\xE4hl\xFCwerk ?\0", 12));
}

TEST_F(DataFileWriteTest, RecordTypesAreNumberedFrom0AndGrowTheHeader) {
    ASSERT_TRUE(_file.create(kPath, 0));
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(_file.addRecordType(QStringLiteral("type %1").arg(i), 50 + i), i);
        EXPECT_EQ(_file.headerSize(), 80 + 1024 * (i + 1));
        EXPECT_EQ(_file.recordTypeLength(50 + i), 1);
        EXPECT_EQ(_file.findRecordType(QStringLiteral("TYPE %1").arg(i)), i);
    }
    ASSERT_TRUE(_file.writeHeader());
    EXPECT_EQ(contents().size(), 80 + 5 * 1024);
    EXPECT_EQ(contents().mid(76, 4).toHex(), "05000000");
    EXPECT_EQ(contents().mid(80 + 4 * 1024, 34),
              QByteArray("type 4").leftJustified(31, 0) + QByteArray("\x36\x01\0", 3));
}

TEST_F(DataFileWriteTest, AtMost256RecordTypesFit) {
    ASSERT_TRUE(_file.create(kPath, 0));
    for (int i = 0; i < 256; ++i) {
        ASSERT_EQ(_file.addRecordType(QStringLiteral("type"), i), i);
    }
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(_file.addRecordType(QStringLiteral("type"), 1), -1);
    }
    EXPECT_TRUE(_file.addRecordTypeMnemonic(255, QStringLiteral("last"), 1, 254));
    EXPECT_EQ(_file.headerSize(), 262'224);
    ASSERT_TRUE(_file.writeHeader());
    EXPECT_EQ(contents().size(), 262'224);
    EXPECT_EQ(contents().back(), 0);
    EXPECT_EQ(contents().at(80 + 255 * 1024 + 31), '\xFF');
}

TEST_F(DataFileWriteTest, ARecordTypesNameIsCutTo30Characters) {
    ASSERT_TRUE(_file.create(kPath, 0));
    EXPECT_EQ(_file.addRecordType(QString(30, 'a'), 50), 0);
    EXPECT_EQ(_file.addRecordType(QString(31, 'b'), 51), 1);
    EXPECT_EQ(_file.addRecordType(QString(5000, 'c'), 52), 2);
    ASSERT_TRUE(_file.writeHeader());
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(contents().mid(80 + 1024 * i, 31),
                  QByteArray(30, static_cast<char>('a' + i)) + '\0');
        EXPECT_EQ(contents().at(80 + 1024 * i + 31), 50 + i);
    }
}

TEST_F(DataFileWriteTest, NoRecordTypeIsAddedWithoutANewHeader) {
    EXPECT_EQ(_file.addRecordType(QStringLiteral("one"), 50), -1);
    EXPECT_FALSE(_file.addRecordTypeMnemonic(0, QStringLiteral("one"), 1, 1));
    const QByteArray existing = DataFileBytes::header({{50, 9}});
    writeTestFile(kPath, existing);
    ASSERT_TRUE(_file.open(kPath, 0));
    EXPECT_EQ(_file.addRecordType(QStringLiteral("one"), 51), -1);
    EXPECT_FALSE(_file.addRecordTypeMnemonic(0, QStringLiteral("one"), 1, 1));
    EXPECT_EQ(QByteArray(_file.header(), _file.headerSize()), existing);
}

TEST_F(DataFileWriteTest, AtMost55MnemonicsFitIntoARecordType) {
    ASSERT_TRUE(_file.create(kPath, 0));
    ASSERT_EQ(_file.addRecordType(QStringLiteral("type"), 50), 0);
    for (int i = 0; i < 55; ++i) {
        ASSERT_TRUE(
            _file.addRecordTypeMnemonic(0, QStringLiteral("m%1").arg(i), 100 + i, 1 + i % 3));
    }
    EXPECT_FALSE(_file.addRecordTypeMnemonic(0, QStringLiteral("more"), 1, 0));
    EXPECT_EQ(_file.recordTypeLength(50), 1 + 19 * 1 + 18 * 2 + 18 * 3);
    ASSERT_TRUE(_file.writeHeader());
    const QByteArray type = contents().mid(80);
    EXPECT_EQ(type.at(33), 55);
    for (int i = 0; i < 55; ++i) {
        EXPECT_EQ(type.mid(34 + 16 * i, 16), ('m' + QByteArray::number(i)).leftJustified(16, 0));
        EXPECT_EQ(static_cast<quint8>(type.at(914 + i)), 100 + i);
        EXPECT_EQ(type.at(969 + i), 1 + i % 3);
    }
}

TEST_F(DataFileWriteTest, AMnemonicsNameIsCutTo15CharactersAndSpillsIntoNoOther) {
    ASSERT_TRUE(_file.create(kPath, 0));
    ASSERT_EQ(_file.addRecordType(QStringLiteral("type"), 50), 0);
    EXPECT_TRUE(_file.addRecordTypeMnemonic(0, QString(15, 'a'), 1, 1));
    EXPECT_TRUE(_file.addRecordTypeMnemonic(0, QString(16, 'b'), 2, 2));
    EXPECT_TRUE(_file.addRecordTypeMnemonic(0, QString(5000, 'c'), 3, 3));
    ASSERT_TRUE(_file.writeHeader());
    EXPECT_EQ(contents().mid(80 + 34, 64), QByteArray(15, 'a') + '\0' + QByteArray(15, 'b') + '\0' +
                                               QByteArray(15, 'c') + QByteArray(17, 0));
}

TEST_F(DataFileWriteTest, ARecordOf255BytesIsTheLongest) {
    ASSERT_TRUE(_file.create(kPath, 0));
    ASSERT_EQ(_file.addRecordType(QStringLiteral("type"), 50), 0);
    EXPECT_FALSE(_file.addRecordTypeMnemonic(0, QStringLiteral("a"), 1, 255));
    EXPECT_TRUE(_file.addRecordTypeMnemonic(0, QStringLiteral("a"), 1, 200));
    EXPECT_FALSE(_file.addRecordTypeMnemonic(0, QStringLiteral("b"), 1, 55));
    EXPECT_TRUE(_file.addRecordTypeMnemonic(0, QStringLiteral("b"), 1, 54));
    EXPECT_FALSE(_file.addRecordTypeMnemonic(0, QStringLiteral("c"), 1, 1));
    EXPECT_EQ(_file.recordTypeLength(50), 255);
    EXPECT_EQ(DataFileFormat::byteAt(_file.header(), 80 + 33), 2);
}

TEST_F(DataFileWriteTest, ARefusedMnemonicChangesNothing) {
    ASSERT_TRUE(_file.create(kPath, 0));
    ASSERT_EQ(_file.addRecordType(QStringLiteral("type"), 50), 0);
    const QByteArray before(_file.header(), _file.headerSize());
    for (const int index : {-1, 1, 255, 256, INT_MAX, INT_MIN}) {
        EXPECT_FALSE(_file.addRecordTypeMnemonic(index, QStringLiteral("a"), 1, 1)) << index;
    }
    for (const int width : {-1, 255, 256, 257, INT_MAX, INT_MIN}) {
        EXPECT_FALSE(_file.addRecordTypeMnemonic(0, QStringLiteral("a"), 1, width)) << width;
    }
    EXPECT_EQ(QByteArray(_file.header(), _file.headerSize()), before);
}

TEST_F(DataFileWriteTest, AHeaderWithoutAFileIsLogged) {
    EXPECT_FALSE(_file.writeHeader());
    begin();
    _file.close();
    EXPECT_FALSE(_file.writeHeader());
    EXPECT_EQ(_log.lines(), QList<QByteArray>(2, "DataFile: writeHeader() no header or file"));
}

TEST_F(DataFileWriteTest, AHeaderThatCannotBeSoughtIsLogged) {
    ASSERT_TRUE(_file.create(kPath, 0));
    const FailingSeek failing;
    EXPECT_FALSE(_file.writeHeader());
    EXPECT_EQ(_log.lines(), QList<QByteArray>{"DataFile: writeHeader() failed to seek"});
    EXPECT_EQ(contents(), QByteArray());
}

TEST_F(DataFileWriteTest, AnOpenThatCannotSeekToTheEndIsLoggedAndSucceeds) {
    writeTestFile(kPath, DataFileBytes::header() + QByteArray::fromHex("0205"));
    std::optional<FailingSeek> failing(std::in_place);
    EXPECT_TRUE(_file.open(kPath, 0));
    failing.reset();
    EXPECT_EQ(_log.lines(), QList<QByteArray>{"DataFile: open() failed to seek to end of file!"});
    EXPECT_EQ(_file.location(), 82);
    EXPECT_TRUE(_file.seekToFirstRecord());
    EXPECT_EQ(_file.location(), 80);
}

TEST_F(DataFileWriteTest, ASeekThatTheSystemRefusesIsFalseAndLeavesTheLocation) {
    begin();
    const FailingSeek failing;
    EXPECT_FALSE(_file.seekToOffset(10));
    EXPECT_FALSE(_file.seekToFirstRecord());
    EXPECT_EQ(_file.location(), 80);
    EXPECT_TRUE(_log.lines().isEmpty());
}

TEST_F(DataFileWriteTest, AHeaderThatIsWrittenShortIsLoggedAtEveryLength) {
    for (rlim_t room = 0; room < 1104; room += room < 90 ? 1 : 97) {
        _log.clear();
        DebugText::forgetRepeats();
        ASSERT_TRUE(_file.create(kPath, 0));
        ASSERT_EQ(_file.addRecordType(QStringLiteral("type"), 50), 0);
        std::optional<FullDisk> full(std::in_place, room);
        const bool isWritten = _file.writeHeader();
        full.reset();
        EXPECT_FALSE(isWritten) << room;
        EXPECT_EQ(_log.lines(),
                  QList<QByteArray>{"DataFile: writeHeader() failed to write header"});
        EXPECT_EQ(contents(), QByteArray(_file.header(), static_cast<qsizetype>(room)));
        EXPECT_EQ(_file.location(), 80);
        EXPECT_TRUE(_file.writeHeader());
        EXPECT_EQ(contents(), QByteArray(_file.header(), 1104));
    }
}

TEST_F(DataFileWriteTest, AWrittenHeaderIsFollowedByTheRecords) {
    ASSERT_TRUE(_file.create(kPath, 0));
    ASSERT_EQ(_file.addRecordType(QStringLiteral("type"), 50), 0);
    EXPECT_EQ(_file.location(), 80);
    ASSERT_TRUE(_file.writeHeader());
    EXPECT_EQ(_file.location(), 1104);
    ASSERT_TRUE(writeRecord("32"));
    EXPECT_EQ(_file.location(), 1105);
    EXPECT_EQ(contents().mid(1104), "2");
}

TEST_F(DataFileWriteTest, AHeaderWrittenAfterRecordsOverwritesThem) {
    begin();
    ASSERT_TRUE(writeRecord("3201"));
    ASSERT_EQ(_file.addRecordType(QStringLiteral("type"), 50), 0);
    ASSERT_TRUE(_file.writeHeader());
    EXPECT_EQ(contents(), QByteArray(_file.header(), 1104));
}

struct StepRow {
    const char* name;
    qint64 step;
    const char* bytes;
};

class TimeStepTest : public DataFileWriteTest, public testing::WithParamInterface<StepRow> {};

TEST_P(TimeStepTest, IsWrittenAsItsRow) {
    begin();
    EXPECT_TRUE(_file.addRecordTimestamp(static_cast<quint32>(created() + GetParam().step)));
    EXPECT_EQ(recordsHex(), GetParam().bytes);
    EXPECT_EQ(_file.location(), contents().size());
    EXPECT_TRUE(_file.addRecordTimestamp(static_cast<quint32>(created() + GetParam().step)));
    EXPECT_EQ(recordsHex(), GetParam().bytes);
}

INSTANTIATE_TEST_SUITE_P(
    Steps, TimeStepTest,
    testing::Values(StepRow{"TheSameTimeWritesNothing", 0, ""}, StepRow{"Of1", 1, "0201"},
                    StepRow{"OfMinus1", -1, "02ff"}, StepRow{"Of127Takes2Bytes", 127, "027f"},
                    StepRow{"OfMinus128Takes2Bytes", -128, "0280"},
                    StepRow{"Of128Takes3Bytes", 128, "038000"},
                    StepRow{"OfMinus129Takes3Bytes", -129, "037fff"},
                    StepRow{"Of32767Takes3Bytes", 32767, "03ff7f"},
                    StepRow{"OfMinus32768Takes3Bytes", -32768, "030080"},
                    StepRow{"Of32768Takes5Bytes", 32768, "0100715465"},
                    StepRow{"OfMinus32769Takes5Bytes", -32769, "01ff705365"},
                    StepRow{"To0Takes5Bytes", -1'700'000'000, "0100000000"},
                    StepRow{"ToTheLastSecondTakes5Bytes", 2'594'967'295, "01ffffffff"}),
    [](const testing::TestParamInfo<StepRow>& row) { return std::string(row.param.name); });

TEST_F(DataFileWriteTest, StepsAreCountedFromTheLastTimeWritten) {
    begin();
    for (const int step : {10, 20, 300, 310, 0}) {
        ASSERT_TRUE(_file.addRecordTimestamp(created() + static_cast<quint32>(step)));
    }
    EXPECT_EQ(recordsHex(),
              "020a"
              "020a"
              "031801"
              "020a"
              "03cafe");
}

TEST_F(DataFileWriteTest, AStepAcrossTheEndOf32BitsIsAStep) {
    begin();
    ASSERT_TRUE(_file.addRecordTimestamp(UINT_MAX));
    ASSERT_TRUE(_file.addRecordTimestamp(4));
    ASSERT_TRUE(_file.addRecordTimestamp(UINT_MAX));
    EXPECT_EQ(recordsHex(),
              "01ffffffff0205"
              "02fb");
}

TEST_F(DataFileWriteTest, WritingTheHeaderBeginsTheStepsAtTheCreation) {
    ASSERT_TRUE(_file.create(kPath, 0));
    _clock.advance(100);
    ASSERT_TRUE(_file.writeHeader());
    ASSERT_TRUE(_file.addRecordTimestamp(1'700'000'000 + 100));
    EXPECT_EQ(recordsHex(), "0264");
}

TEST_F(DataFileWriteTest, TheFirstTimeAfterOpeningIsAlwaysAbsolute) {
    for (const quint32 time : {0U, 1'699'999'999U, 1'700'000'000U, 1'700'000'005U, 1'700'900'000U,
                               1'700'967'231U, 1'701'032'768U, UINT_MAX}) {
        writeTestFile(kPath, DataFileBytes::header());
        ASSERT_TRUE(_file.open(kPath, 0));
        EXPECT_TRUE(_file.addRecordTimestamp(time));
        EXPECT_TRUE(_file.addRecordTimestamp(time + 1));
        EXPECT_EQ(recordsHex(), (QByteArray(1, 1) + DataFileBytes::littleEndian(time) +
                                 QByteArray::fromHex("0201"))
                                    .toHex());
    }
}

TEST_F(DataFileWriteTest, ATimeThatIsWrittenShortIsSilentAndDoesNotCount) {
    for (const quint32 step : {5U, 500U, 50'000U}) {
        begin();
        for (rlim_t room = 80; room < 82; ++room) {
            std::optional<FullDisk> full(std::in_place, room);
            const bool isWritten = _file.addRecordTimestamp(created() + step);
            full.reset();
            EXPECT_FALSE(isWritten);
            EXPECT_EQ(_file.location(), 80);
        }
        ASSERT_TRUE(_file.seekToFirstRecord());
        EXPECT_TRUE(_file.addRecordTimestamp(created() + step));
        EXPECT_EQ(_file.location(), contents().size());
        EXPECT_GE(contents().size(), 82);
    }
    EXPECT_TRUE(_log.lines().isEmpty());
}

TEST_F(DataFileWriteTest, ATimeOfAClosedFileIsFalseAndSilent) {
    EXPECT_FALSE(_file.addRecordTimestamp(1'700'000'000));
    EXPECT_TRUE(_log.lines().isEmpty());
}

TEST_F(DataFileWriteTest, ARecordIsInTheFileWhenItsWriteReturns) {
    begin();
    for (int i = 1; i <= 100; ++i) {
        ASSERT_TRUE(writeRecord("04 010203040506070809"));
        ASSERT_EQ(contents().size(), 80 + 10 * i);
        ASSERT_EQ(_file.location(), 80 + 10 * i);
    }
}

TEST_F(DataFileWriteTest, ARecordThatIsWrittenShortIsLoggedAtEveryLength) {
    for (rlim_t room = 80; room < 90; ++room) {
        _log.clear();
        begin();
        std::optional<FullDisk> full(std::in_place, room);
        const bool isWritten = writeRecord("04 010203040506070809");
        full.reset();
        EXPECT_FALSE(isWritten) << room;
        EXPECT_EQ(_log.lines(),
                  QList<QByteArray>{"DataFile: writeRecord() failed to write 10 bytes"});
        EXPECT_EQ(_file.location(), 80);
        EXPECT_EQ(contents().size(), static_cast<qsizetype>(room));
    }
}

TEST_F(DataFileWriteTest, ARecordOfAClosedFileOrOfNegativeLengthIsLogged) {
    EXPECT_FALSE(_file.writeRecord("\x04", 1));
    begin();
    EXPECT_FALSE(_file.writeRecord("\x04", -1));
    EXPECT_TRUE(_file.writeRecord("\x04", 0));
    EXPECT_EQ(contents().size(), 80);
    EXPECT_EQ(_log.lines(),
              (QList<QByteArray>{"DataFile: writeRecord() failed to write 1 bytes",
                                 "DataFile: writeRecord() failed to write -1 bytes"}));
}

TEST_F(DataFileWriteTest, AnOpenedFileIsAppendedTo) {
    const QByteArray existing = DataFileBytes::header({{50, 3}}) + QByteArray::fromHex("0205");
    writeTestFile(kPath, existing);
    ASSERT_TRUE(_file.open(kPath, 0));
    ASSERT_TRUE(_file.addRecordTimestamp(1'700'000'000));
    ASSERT_TRUE(writeRecord("32 0102"));
    EXPECT_EQ(contents(), existing + QByteArray::fromHex("01 00F15365 32 0102"));
}

TEST_F(DataFileWriteTest, WhatIsAppendedCanBeReadBackByTheSameObject) {
    begin();
    ASSERT_TRUE(writeRecord("06 0102030405060708090A0B0C"));
    ASSERT_TRUE(_file.seekToFirstRecord());
    char buffer[256];
    int type = -1;
    EXPECT_EQ(_file.readRecord(buffer, 256, type), 13);
    EXPECT_EQ(_file.readRecord(buffer, 256, type), -1);
    ASSERT_TRUE(writeRecord("67 0A0B0C0D"));
    ASSERT_TRUE(_file.seekToOffset(93));
    EXPECT_EQ(_file.readRecord(buffer, 256, type), 5);
    EXPECT_EQ(QByteArray(buffer, 5).toHex(), "670a0b0c0d");
}

TEST_F(DataFileWriteTest, AWriteGoesWhereTheReaderStandsAndIsReadAsWritten) {
    begin();
    ASSERT_TRUE(writeRecord("0205 0206 0207"));
    ASSERT_TRUE(_file.seekToFirstRecord());
    char buffer[256];
    int type = -1;
    ASSERT_EQ(_file.readRecord(buffer, 256, type), 2);  // the block now holds all three
    ASSERT_TRUE(writeRecord("0299"));
    EXPECT_EQ(_file.location(), 84);
    EXPECT_EQ(recordsHex(), "020502990207");
    ASSERT_TRUE(_file.seekToOffset(82));
    ASSERT_EQ(_file.readRecord(buffer, 256, type), 2);
    EXPECT_EQ(buffer[1], '\x99');
}

TEST_F(DataFileWriteTest, RandomFilesAreReadBackAsTheyWereWritten) {
    std::mt19937 random(11);
    for (int round = 0; round < 50; ++round) {
        ASSERT_TRUE(_file.create(kPath, 0));
        const int types = static_cast<int>(random() % 7) + 1;
        for (int i = 0; i < types; ++i) {
            ASSERT_EQ(_file.addRecordType(QStringLiteral("type"), 40 + i), i);
            ASSERT_TRUE(_file.addRecordTypeMnemonic(i, QStringLiteral("m"), 1,
                                                    static_cast<int>(random() % 255)));
        }
        ASSERT_TRUE(_file.writeHeader());
        QList<std::pair<quint32, QByteArray>> written;
        quint32 time = created();
        for (int i = 0; i < 300; ++i) {
            // Forward only, and no step that is read as another one.
            constexpr quint32 kSteps[] = {0, 1, 60, 127, 128, 32767, 32768, 100'000};
            time += kSteps[random() % 8];
            const int type = 40 + static_cast<int>(random() % static_cast<unsigned>(types));
            QByteArray record(_file.recordTypeLength(type), static_cast<char>(random()));
            record[0] = static_cast<char>(type);
            ASSERT_TRUE(_file.addRecordTimestamp(time));
            ASSERT_TRUE(_file.writeRecord(record.constData(), static_cast<int>(record.size())));
            written += {time, record};
        }
        QList<std::pair<quint32, QByteArray>> read;
        quint32 current = created();
        PlainRecordReader plain(contents());
        for (const QByteArray& record : plain.rest()) {
            current = RecordTime::after(record.leftJustified(5, 0).constData(), current);
            if (!RecordTime::isTimeRecord(record.at(0))) {
                read += {current, record};
            }
        }
        ASSERT_EQ(read, written) << round;
    }
}

TEST_F(DataFileWriteTest, ClosingAndDestructionKeepWhatWasWritten) {
    begin();
    ASSERT_TRUE(writeRecord("0205"));
    EXPECT_TRUE(_file.close());
    EXPECT_FALSE(_file.close());
    EXPECT_EQ(recordsHex(), "0205");
    {
        DataFile other(QStringLiteral("other"));
        ASSERT_TRUE(other.open(kPath, 0));
        ASSERT_TRUE(other.writeRecord("\x02\x06", 2));
    }
    EXPECT_EQ(recordsHex(), "02050206");
}

}  // namespace

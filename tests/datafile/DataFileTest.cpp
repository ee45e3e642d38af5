#include "tests/datafile/DataFileFixture.h"

#include <QDir>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <limits>

using DataFileBytes::Described;

namespace {

TEST_F(DataFileTest, ItIsAQObjectWithAMetaObjectOfItsOwn) {
    EXPECT_STREQ(_file.metaObject()->className(), "DataFile");
    QObject parent;
    auto* child = new DataFile(QStringLiteral("child"), &parent);
    EXPECT_EQ(child->parent(), &parent);
}

TEST_F(DataFileTest, TheSourceIsCutTo63CharactersInMemory) {
    EXPECT_EQ(DataFile(QString(63, 'a')).source(), QString(63, 'a'));
    EXPECT_EQ(DataFile(QString(64, 'a')).source(), QString(63, 'a'));
    EXPECT_EQ(DataFile(QString(5000, 'a')).source(), QString(63, 'a'));
    EXPECT_EQ(DataFile(QString()).source(), QString());
}

TEST_F(DataFileTest, AFileOf80BytesWithHeaderSize80OpensAndHasNoRecord) {
    ASSERT_TRUE(open(DataFileBytes::header()));
    EXPECT_TRUE(_file.seekToFirstRecord());
    EXPECT_EQ(read(), -1);
    EXPECT_EQ(_file.location(), 80);
    EXPECT_TRUE(_log.lines().isEmpty());
}

TEST_F(DataFileTest, AFileShorterThan80BytesIsRefusedWithTheMessage) {
    for (int bytes = 0; bytes < 80; ++bytes) {
        _log.clear();
        EXPECT_FALSE(open(DataFileBytes::header().left(bytes))) << bytes;
        EXPECT_EQ(_log.lines(),
                  QList<QByteArray>{"Data file is smaller than a valid header size!"});
        expectClosed();
    }
}

TEST_F(DataFileTest, AHeaderSizeOutside80To8192OrBeyondTheFileIsRefusedSilently) {
    for (const quint32 size :
         {0U, 1U, 79U, 8193U, 10'000U, 10'001U, 0x7FFFFFFFU, 0x80000000U, 0x80000050U, UINT_MAX}) {
        QByteArray contents = DataFileBytes::header().leftJustified(10'000, 0);
        DataFileBytes::setField(contents, 8, size);
        EXPECT_FALSE(open(contents)) << size;
        expectClosed();
    }
    EXPECT_TRUE(_log.lines().isEmpty());
}

TEST_F(DataFileTest, AHeaderThatClaimsOneByteMoreThanTheFileIsRefusedSilently) {
    QByteArray contents = DataFileBytes::header().leftJustified(500, 0);
    DataFileBytes::setField(contents, 8, 501);
    EXPECT_FALSE(open(contents));
    DataFileBytes::setField(contents, 8, 500);
    EXPECT_TRUE(open(contents));
    EXPECT_TRUE(_log.lines().isEmpty());
}

TEST_F(DataFileTest, AHeaderOf8192BytesIsRead) {
    QByteArray contents = DataFileBytes::header().leftJustified(8192, 0) + "\x02\x05";
    DataFileBytes::setField(contents, 8, 8192);
    ASSERT_TRUE(openAtRecords(contents));
    EXPECT_EQ(_file.location(), 8192);
    EXPECT_EQ(readHex(), "0205");
}

TEST_F(DataFileTest, SevenRecordTypesCanBeReadAndEightCannot) {
    const std::initializer_list<Described> seven = {{50, 2}, {51, 3}, {52, 4}, {53, 5},
                                                    {54, 6}, {55, 7}, {56, 8}};
    EXPECT_TRUE(open(DataFileBytes::header(seven)));
    EXPECT_EQ(_file.recordTypeLength(56), 8);
    EXPECT_FALSE(open(DataFileBytes::header(
        {{50, 2}, {51, 3}, {52, 4}, {53, 5}, {54, 6}, {55, 7}, {56, 8}, {57, 9}})));
    EXPECT_TRUE(_log.lines().isEmpty());
}

TEST_F(DataFileTest, AMissingFileIsRefusedSilentlyAndNotMade) {
    EXPECT_FALSE(_file.open(kPath, 0));
    EXPECT_FALSE(_file.open(QStringLiteral("/root/data/missing/day.gdf"), 0));
    EXPECT_FALSE(_file.open(QString(), 0));
    EXPECT_EQ(readTestFile(kPath), "(missing)");
    EXPECT_TRUE(_log.lines().isEmpty());
    EXPECT_TRUE(_warnings.lines().isEmpty());
    expectClosed();
}

TEST_F(DataFileTest, WhatIsNoRegularFileIsRefusedSilently) {
    ASSERT_EQ(::mkfifo("/root/data/fifo", 0600), 0);
    ASSERT_EQ(::symlink("loop", "/root/data/loop"), 0);
    const int server = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{AF_UNIX, "/root/data/socket"};
    ASSERT_EQ(::bind(server, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    for (const char* name : {"/root/data/fifo", "/root/data/loop", "/root/data/socket",
                             "/root/data", "/dev/zero", "/dev/null", "/proc/self/status"}) {
        EXPECT_FALSE(_file.open(QString::fromLatin1(name), 0)) << name;
        EXPECT_FALSE(_file.create(QString::fromLatin1(name), 0)) << name;
        expectClosed();
    }
    ::close(server);
    EXPECT_TRUE(_log.lines().isEmpty());
    EXPECT_TRUE(_warnings.lines().isEmpty());
}

TEST_F(DataFileTest, ALinkToADataFileIsFollowed) {
    writeTestFile(kPath, DataFileBytes::header());
    ASSERT_EQ(::symlink("day.gdf", "/root/data/link"), 0);
    EXPECT_TRUE(_file.open(QStringLiteral("/root/data/link"), 0));
}

TEST_F(DataFileTest, AFileThatMayNotBeWrittenIsRefused) {
    writeTestFile(kPath, DataFileBytes::header());
    ASSERT_EQ(::chmod(qPrintable(kPath), 0444), 0);
    const bool mayBeWritten = ::access(qPrintable(kPath), W_OK) == 0;  // root may
    EXPECT_EQ(_file.open(kPath, 0), mayBeWritten);
}

TEST_F(DataFileTest, AnOpenFileKnowsItsNameModeAndHeader) {
    const QByteArray header = DataFileBytes::header({{50, 9}});
    writeTestFile(kPath, header + "\x02\x05");
    ASSERT_TRUE(_file.open(kPath, 77));
    EXPECT_EQ(_file.filename(), kPath);
    EXPECT_EQ(_file.mode(), 77);
    EXPECT_EQ(_file.headerSize(), 1104);
    EXPECT_EQ(QByteArray(_file.header(), 1104), header);
    EXPECT_EQ(_file.source(), "source");
}

TEST_F(DataFileTest, AnOpenedFileStandsAtItsEnd) {
    ASSERT_TRUE(open(DataFileBytes::header() + "\x02\x05\x02\x06"));
    EXPECT_EQ(_file.location(), 84);
    EXPECT_EQ(_file.currentOffset(), 84);
    EXPECT_EQ(_file.size(), 84);
    EXPECT_TRUE(_file.endOfFile());
    EXPECT_EQ(read(), -1);
}

TEST_F(DataFileTest, OpeningAndReadingChangeNothingInTheFile) {
    const QByteArray contents = DataFileBytes::header({{50, 9}}) + someRecords();
    ASSERT_TRUE(openAtRecords(contents));
    restOf(_file);
    _file.close();
    EXPECT_EQ(readTestFile(kPath), contents);
}

TEST_F(DataFileTest, OpeningAnotherFileLeavesTheFirst) {
    ASSERT_TRUE(openAtRecords("0205 0206"));
    _file.pushLocation();
    const QString other = QStringLiteral("/root/data/other.gdf");
    writeTestFile(other, DataFileBytes::header({{50, 3}}) + QByteArray::fromHex("320102"));
    ASSERT_TRUE(_file.open(other, 0));
    EXPECT_EQ(_file.location(), 1107);
    _file.popLocation();  // the stack is empty again
    EXPECT_EQ(_file.location(), 1107);
    ASSERT_TRUE(_file.seekToFirstRecord());
    EXPECT_EQ(readHex(), "320102");
}

TEST_F(DataFileTest, AFailedOpenClosesWhatWasOpen) {
    ASSERT_TRUE(open(DataFileBytes::header({{50, 9}})));
    EXPECT_FALSE(_file.open(QStringLiteral("/root/data/missing"), 0));
    expectClosed();
    EXPECT_EQ(_file.recordTypeLength(50), -1);
    ASSERT_TRUE(open(DataFileBytes::header()));
    writeTestFile(QStringLiteral("/root/data/short"), "short");
    EXPECT_FALSE(_file.open(QStringLiteral("/root/data/short"), 0));
    expectClosed();
}

TEST_F(DataFileTest, AClosedObjectAnswersEverythingWithFailure) {
    expectClosed();
    EXPECT_FALSE(_file.seekToOffset(0));
    EXPECT_FALSE(_file.seekToFirstRecord());
    EXPECT_TRUE(_file.endOfFile());
    EXPECT_EQ(_file.readData(_buffer, 10), -1);
    EXPECT_EQ(_file.findRecordType(QStringLiteral("")), -1);
    EXPECT_EQ(_file.findRecordType(0), -1);
    EXPECT_EQ(_file.recordTypeLength(50), -1);
    EXPECT_EQ(_file.recordTypeLength(1), 5);
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(_file.pushLocation(), -1);
    }
    _file.popLocation();
    EXPECT_EQ(_file.location(), 0);
    EXPECT_TRUE(_log.lines().isEmpty());
}

TEST_F(DataFileTest, ClosingForgetsTheFileAndASecondCloseIsFalse) {
    ASSERT_TRUE(openAtRecords("0205"));
    EXPECT_GE(_file.pushLocation(), 0);
    EXPECT_TRUE(_file.close());
    expectClosed();
}

TEST_F(DataFileTest, NoDescriptorStaysOpen) {
    const auto openCount = [] {
        return QDir(QStringLiteral("/proc/self/fd")).entryList(QDir::AllEntries).size();
    };
    const qsizetype before = openCount();
    for (int round = 0; round < 20; ++round) {
        DataFile file(QStringLiteral("source"));
        writeTestFile(kPath, DataFileBytes::header().left(round % 2 == 0 ? 80 : 79));
        file.open(kPath, 0);
        file.open(kPath, 0);
    }
    EXPECT_EQ(openCount(), before);
}

TEST_F(DataFileTest, ARecordTypeIsFoundByNameInAnyCase) {
    QByteArray header = DataFileBytes::header({{50, 2}, {51, 3}, {52, 4}});
    header.replace(80, 6, QByteArray("Gauge", 6));
    header.replace(1104, 6, QByteArray("\xC4rger", 5) + '\0');
    header.replace(2128, 31, QByteArray(31, 'z'));
    ASSERT_TRUE(open(header));
    EXPECT_EQ(_file.findRecordType(QStringLiteral("Gauge")), 0);
    EXPECT_EQ(_file.findRecordType(QStringLiteral("gAUGE")), 0);
    EXPECT_EQ(_file.findRecordType(QStringLiteral("ÄRGER")), 1);
    EXPECT_EQ(_file.findRecordType(QStringLiteral("ärger")), 1);
    EXPECT_EQ(_file.findRecordType(QString(31, 'Z')), 2);
    EXPECT_EQ(_file.findRecordType(QStringLiteral("gaug")), -1);
    EXPECT_EQ(_file.findRecordType(QStringLiteral("gauges")), -1);
    EXPECT_EQ(_file.findRecordType(QString()), -1);
}

TEST_F(DataFileTest, ARecordTypeIsFoundByTheFirstDescriptorOfItsCode) {
    ASSERT_TRUE(open(DataFileBytes::header({{50, 2}, {51, 3}, {50, 4}, {2, 9}, {0, 9}})));
    EXPECT_EQ(_file.findRecordType(50), 0);
    EXPECT_EQ(_file.findRecordType(51), 1);
    EXPECT_EQ(_file.findRecordType(2), 3);
    EXPECT_EQ(_file.findRecordType(0), 4);
    for (const int code : {-1, 1, 52, 255, 256, 50 + 256, INT_MAX, INT_MIN}) {
        EXPECT_EQ(_file.findRecordType(code), -1) << code;
    }
}

TEST_F(DataFileTest, TheLengthOfARecordTypeIsThatOfTheFormatOrTheDescriptor) {
    ASSERT_TRUE(open(DataFileBytes::header({{50, 2}, {51, 255}, {52, 0}, {100, 4}, {3, 99}})));
    const std::pair<int, int> rows[] = {{INT_MIN, 1}, {-1, 1},  {0, 1},    {1, 5},    {2, 2},
                                        {3, 3},       {4, -1},  {50, 2},   {51, 255}, {52, 0},
                                        {53, -1},     {100, 4}, {255, -1}, {306, -1}};
    for (const auto& [code, length] : rows) {
        EXPECT_EQ(_file.recordTypeLength(code), length) << code;
    }
}

TEST_F(DataFileTest, TheBuiltInTableIsAskedByVersionAndCode) {
    for (int code = 0; code < 256; ++code) {
        for (const int version : {0, 1, 2, -1}) {
            const int payload = DataFileBytes::builtInPayload(static_cast<quint32>(version), code);
            EXPECT_EQ(DataFile::getRecordTypeLength(version, code), std::max(payload, 0)) << code;
        }
    }
}

TEST_F(DataFileTest, ACodeOutsideTheBuiltInTableIsLoggedAndHasNoPayload) {
    for (const int code : {0, 12, 128, 256, -1, INT_MIN}) {
        _log.clear();
        EXPECT_EQ(DataFile::getRecordTypeLength(2, code), 0);
        EXPECT_EQ(_log.lines(),
                  QList<QByteArray>{"UNKNOWN RECORD TYPE " + QByteArray::number(code)});
    }
    _log.clear();
    EXPECT_EQ(DataFile::getRecordTypeLength(2, 11), 0);
    EXPECT_TRUE(_log.lines().isEmpty());
}

TEST_F(DataFileTest, PoppingAnEmptyStackDoesNothing) {
    ASSERT_TRUE(openAtRecords("0205 0206"));
    EXPECT_EQ(readHex(), "0205");
    for (int i = 0; i < 3; ++i) {
        _file.popLocation();
        EXPECT_EQ(_file.location(), 82);
    }
    EXPECT_EQ(readHex(), "0206");
}

TEST_F(DataFileTest, PushingReturnsThePositionAndPoppingComesBackToIt) {
    ASSERT_TRUE(openAtRecords("0205 0206 0207"));
    EXPECT_EQ(readHex(), "0205");
    EXPECT_EQ(_file.pushLocation(), 82);
    ASSERT_TRUE(_file.seekToFirstRecord());
    EXPECT_EQ(_file.location(), 80);
    EXPECT_EQ(readHex(), "0205");
    EXPECT_EQ(readHex(), "0206");
    EXPECT_EQ(readHex(), "0207");
    _file.popLocation();
    EXPECT_EQ(_file.location(), 82);
    EXPECT_EQ(_file.currentOffset(), 82);
    EXPECT_EQ(readHex(), "0206");
}

TEST_F(DataFileTest, SixtyFourLocationsAreKeptAndA65thIsRefused) {
    ASSERT_TRUE(open(DataFileBytes::header().leftJustified(1000, 0)));
    for (int i = 0; i < 63; ++i) {
        ASSERT_TRUE(_file.seekToOffset(100 + i));
        ASSERT_EQ(_file.pushLocation(), 100 + i);
    }
    ASSERT_TRUE(_file.seekToOffset(500));
    EXPECT_EQ(_file.pushLocation(), -1);
    EXPECT_EQ(_file.pushLocation(), -1);
    EXPECT_EQ(_file.location(), 500);
    for (int i = 62; i >= 0; --i) {
        _file.popLocation();
        ASSERT_EQ(_file.location(), 100 + i);
        ASSERT_EQ(_file.currentOffset(), 100 + i);
    }
    _file.popLocation();
    EXPECT_EQ(_file.location(), 100);
}

TEST_F(DataFileTest, ASeekThatFailsLeavesThePositionAlone) {
    ASSERT_TRUE(openAtRecords("0205"));
    for (const qint64 offset : {qint64{-1}, std::numeric_limits<qint64>::min()}) {
        EXPECT_FALSE(_file.seekToOffset(offset));
        EXPECT_EQ(_file.location(), 80);
    }
    EXPECT_EQ(readHex(), "0205");
    EXPECT_TRUE(_warnings.lines().isEmpty());
}

TEST_F(DataFileTest, ASeekBeyondTheEndIsNoFailureAndHasNoRecord) {
    ASSERT_TRUE(open(DataFileBytes::header()));
    EXPECT_TRUE(_file.seekToOffset(1'000'000));
    EXPECT_EQ(_file.location(), 1'000'000);
    EXPECT_TRUE(_file.endOfFile());
    EXPECT_EQ(read(), -1);
    EXPECT_EQ(_file.readData(_buffer, 10), 0);
    EXPECT_EQ(_file.size(), 80);
}

TEST_F(DataFileTest, TheLockIsRecursive) {
    ASSERT_TRUE(openAtRecords("0205"));
    _file.lock();
    _file.lock();
    EXPECT_EQ(readHex(), "0205");
    _file.unlock();
    _file.unlock();
}

}  // namespace

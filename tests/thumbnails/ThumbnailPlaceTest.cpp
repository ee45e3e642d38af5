#include "tests/support/Files.h"
#include "tests/thumbnails/ThumbnailFixture.h"

#include <csignal>

#include <sys/resource.h>

namespace {

/// Type 40 has records of 10 bytes and type 41 of 4; a block is 24 bytes.
class ThumbnailPlaceTest : public ThumbnailFixture {
protected:
    static constexpr int kHeaderBytes = 100;
    static constexpr quint32 kDay2 = kMonthStart + 86400;
    static inline const QString kPath = QStringLiteral("/root/data/t.gdt");
    static inline const QByteArray kHeader = QByteArray(kHeaderBytes, 'h');

    void SetUp() override { openThumb(_thumb, kHeader); }

    bool place(quint32 time, int type, const QByteArray& record, int dayIndex = 1) {
        return _manager.writeThumbRecord(_thumb, _position, kHeaderBytes, _slotMap, dayIndex,
                                         kMonthStart, time, type,
                                         record.leftJustified(256, 0).constData());
    }

    /// Where block `interval` of the month begins in the file.
    static int block(int interval) { return kHeaderBytes + 24 * interval; }
    QByteArray body() const { return readTestFile(kPath).mid(kHeaderBytes); }

    QFile _thumb{kPath};
    int _position = kHeaderBytes;
    QMap<int, int> _slotMap = {{40, 15}, {-40, 0}, {41, 9}, {-41, 15}, {-100, 24}};
};

TEST_F(ThumbnailPlaceTest, ASlotIsATimeRecordAndTheRecord) {
    ASSERT_TRUE(place(kMonthStart + 5, 40, "(23456789", 0));
    // 01, time 1714521605, type 40, payload
    EXPECT_EQ(body().toHex(), QByteArray("010586316628323334353637383900"));
}

TEST_F(ThumbnailPlaceTest, TheTypesOfOneBlockLieBesideEachOther) {
    ASSERT_TRUE(place(kMonthStart, 40, "(23456789a", 0));
    ASSERT_TRUE(place(kMonthStart + 1, 41, ")234", 0));
    EXPECT_EQ(body().toHex(), QByteArray("010086316628323334353637383961"
                                         "010186316629323334"));
}

TEST_F(ThumbnailPlaceTest, ARecordIsCutToItsSlot) {
    ASSERT_TRUE(place(kMonthStart, 41, ")2345678", 0));
    EXPECT_EQ(body().toHex(), QByteArray(30, '0') + "010086316629323334");
}

TEST_F(ThumbnailPlaceTest, TheLastSecondOfTheDayIsPlaced) {
    ASSERT_TRUE(place(kDay2 + 86399, 40, "("));
    EXPECT_EQ(readTestFile(kPath).size(), block(191) + 15);
    EXPECT_TRUE(_log.lines().isEmpty());
}

TEST_F(ThumbnailPlaceTest, TheFirstSecondOfTheDayIsPlaced) {
    ASSERT_TRUE(place(kDay2, 41, ")"));
    EXPECT_EQ(readTestFile(kPath).size(), block(96) + 24);
}

TEST_F(ThumbnailPlaceTest, MidnightOfTheNextDayIsRefusedAsNotInThisDay) {
    EXPECT_FALSE(place(kDay2 + 86400, 40, "("));
    EXPECT_EQ(
        _log.lines(),
        QList<QByteArray>{
            "ThumbnailManager: writeThumbRecord() timestamp is not in this day! 4708 (ri 192, "
            "ts 1714694400, sf 1714521600, ts-df 172800)"});
    EXPECT_TRUE(body().isEmpty());
    EXPECT_EQ(_position, kHeaderBytes);
}

TEST_F(ThumbnailPlaceTest, TheSecondBeforeTheDayIsRefusedAsNotInThisDay) {
    EXPECT_FALSE(place(kDay2 - 1, 41, ")"));
    EXPECT_EQ(_log.lines(),
              QList<QByteArray>{
                  "ThumbnailManager: writeThumbRecord() timestamp is not in this day! 2395 (ri 95, "
                  "ts 1714607999, sf 1714521600, ts-df 86399)"});
}

TEST_F(ThumbnailPlaceTest, ATimeBeforeTheMonthIsRefusedWithItsNumbersWrappedRound) {
    EXPECT_FALSE(place(kMonthStart - 1, 40, "(", 0));
    // 4294967295 / 900 = 4772185; 4772185 * 24 + 100 = 114532540
    EXPECT_EQ(_log.lines(),
              QList<QByteArray>{"ThumbnailManager: writeThumbRecord() timestamp is not in this "
                                "day! 114532540 (ri 4772185, ts 1714521599, sf 1714521600, ts-df "
                                "-1)"});
    EXPECT_TRUE(body().isEmpty());
}

TEST_F(ThumbnailPlaceTest, ATypeWithoutASlotIsRefusedSilently) {
    EXPECT_FALSE(place(kDay2, 42, "*"));
    EXPECT_FALSE(place(kDay2 + 86400, 42, "*")) << "before the day is looked at";
    EXPECT_TRUE(_log.lines().isEmpty());
    EXPECT_TRUE(body().isEmpty());
}

TEST_F(ThumbnailPlaceTest, ASlotThatNoRecordFitsIsNone) {
    for (const int length : {-1, 0, 4, 262, 100'000}) {
        _slotMap[43] = length;
        EXPECT_FALSE(place(kDay2, 43, "+")) << length;
    }
    EXPECT_TRUE(body().isEmpty());
    EXPECT_TRUE(_log.lines().isEmpty());
}

TEST_F(ThumbnailPlaceTest, ASlotForTheTimeAloneAndTheLongestOne) {
    _slotMap = {{43, 5}, {-43, 0}, {44, 261}, {-44, 5}, {-100, 266}};
    ASSERT_TRUE(place(kMonthStart, 43, "+", 0));
    ASSERT_TRUE(place(kMonthStart, 44, QByteArray(256, ','), 0));
    EXPECT_EQ(body(), QByteArray::fromHex("0100863166"
                                          "0100863166") +
                          QByteArray(256, ','));
}

TEST_F(ThumbnailPlaceTest, Block100OfAnEmptyThumbnailExtendsItWithZerosThatReadAsEmptyRecords) {
    QByteArray header(80, 0);
    header[0] = 2;
    header[8] = 80;
    QFile thumb("/root/data/100.gdt");
    openThumb(thumb, header);
    int position = 80;
    ASSERT_TRUE(_manager.writeThumbRecord(thumb, position, 80, {{5, 15}, {-5, 0}, {-100, 15}}, 1,
                                          kMonthStart, kMonthStart + 90'000, 5,
                                          "\x05"
                                          "23456789a"));
    const QByteArray zeros(100 * 15, 0);
    EXPECT_EQ(readTestFile(thumb.fileName()),
              header + zeros + QByteArray::fromHex("0190e5326605") + "23456789a");
    DataFile file("100");
    ASSERT_TRUE(file.open(thumb.fileName(), 0));
    ASSERT_TRUE(file.seekToFirstRecord());
    char record[256];
    int type = -1;
    for (int i = 0; i < 1500; ++i) {
        ASSERT_EQ(file.readRecord(record, sizeof record, type), 1);
        ASSERT_EQ(type, 0);
    }
    EXPECT_EQ(file.readRecord(record, sizeof record, type), 5);
    EXPECT_EQ(type, 1);
    EXPECT_EQ(QByteArray(record, 5).toHex(), "0190e53266");
    EXPECT_EQ(file.readRecord(record, sizeof record, type), 10);
    EXPECT_EQ(QByteArray(record, 10),
              "\x05"
              "23456789a");
    EXPECT_EQ(file.readRecord(record, sizeof record, type), -1);
}

TEST_F(ThumbnailPlaceTest, AnEarlierBlockIsFilledInPlace) {
    ASSERT_TRUE(place(kDay2 + 1800, 40, "(later"));
    ASSERT_TRUE(place(kDay2, 40, "(earlier"));
    const QByteArray file = readTestFile(kPath);
    EXPECT_EQ(file.size(), block(98) + 15);
    EXPECT_EQ(file.mid(block(96) + 5, 8), "(earlier");
    EXPECT_EQ(file.mid(block(98) + 5, 6), "(later");
    EXPECT_EQ(file.mid(block(97), 24), QByteArray(24, 0));
}

TEST_F(ThumbnailPlaceTest, ThePositionIsKeptJustAfterTheSlot) {
    ASSERT_TRUE(place(kDay2, 40, "("));
    EXPECT_EQ(_position, block(96) + 15);
    ASSERT_TRUE(place(kDay2, 41, ")"));
    EXPECT_EQ(_position, block(97));
    EXPECT_EQ(_thumb.pos(), _position);
}

TEST_F(ThumbnailPlaceTest, WhereThePositionFitsTheFileIsNotSought) {
    _position = block(96);
    ASSERT_TRUE(place(kDay2, 40, "(23456789a"));
    EXPECT_EQ(readTestFile(kPath).size(), kHeaderBytes + 15) << "written where the file stood";
    EXPECT_EQ(readTestFile(kPath).left(kHeaderBytes), kHeader);
}

TEST_F(ThumbnailPlaceTest, KeptARecordOfCode100StandsWhereTheNextBlockBegins) {
    _slotMap = {{40, 15}, {-40, 0}, {100, 17}, {-100, 32}};
    ASSERT_TRUE(place(kMonthStart, 100, "d", 0));
    EXPECT_EQ(body().toHex(), QByteArray(64, '0') +
                                  "0100863166"
                                  "64" +
                                  QByteArray(22, '0'));
    ASSERT_TRUE(place(kMonthStart + 900, 40, "(", 0));
    EXPECT_EQ(body().mid(32, 15).toHex(), "018489316628" + QByteArray(18, '0'))
        << "and the next block's own record goes over it";
}

TEST_F(ThumbnailPlaceTest, AFileThatCannotBeExtendedIsLoggedAsAFailedSeek) {
    _thumb.close();
    ASSERT_TRUE(_thumb.open(QIODevice::ReadOnly | QIODevice::Unbuffered));
    EXPECT_FALSE(place(kDay2, 40, "("));
    EXPECT_EQ(_log.lines(),
              QList<QByteArray>{"ThumbnailManager: Failed to seek in thumbnail file!"});
    EXPECT_EQ(_position, kHeaderBytes);
    EXPECT_TRUE(body().isEmpty());
}

TEST_F(ThumbnailPlaceTest, AFileThatCannotBeWrittenIsLogged) {
    _thumb.close();
    ASSERT_TRUE(_thumb.open(QIODevice::ReadOnly | QIODevice::Unbuffered));
    EXPECT_FALSE(place(kMonthStart, 40, "(", 0));
    EXPECT_EQ(_log.lines(),
              QList<QByteArray>{"ThumbnailManager: writeThumbRecord() failed to write record!"});
    EXPECT_TRUE(body().isEmpty());
}

TEST_F(ThumbnailPlaceTest, ADayThatIsBeforeItsMonthHasNoBlocks) {
    EXPECT_FALSE(place(kMonthStart - 100, 40, "(", -1));
    EXPECT_EQ(_log.lines(),
              QList<QByteArray>{"ThumbnailManager: Failed to seek in thumbnail file!"});
    EXPECT_TRUE(body().isEmpty());
}

TEST_F(ThumbnailPlaceTest, ADayThatTheMonthDoesNotHaveGoesOnAfterIt) {
    ASSERT_TRUE(place(kMonthStart + 98 * 86400, 40, "(", 98));
    EXPECT_EQ(readTestFile(kPath).size(), block(98 * 96) + 15);
}

/// After a write that broke off, the file no longer stands where a whole slot ends.
TEST_F(ThumbnailPlaceTest, ASlotAfterAnInterruptedOneStandsInItsOwnPlace) {
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit before;
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    const rlimit limit{kHeaderBytes + 7, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    const bool isPlaced = place(kMonthStart, 40, "(23456789a", 0);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
    EXPECT_FALSE(isPlaced);
    EXPECT_EQ(_log.lines(),
              QList<QByteArray>{"ThumbnailManager: writeThumbRecord() failed to write record!"});
    ASSERT_TRUE(place(kMonthStart, 41, ")234", 0));
    EXPECT_EQ(body().mid(15).toHex(), QByteArray("010086316629323334"));
    ASSERT_TRUE(place(kMonthStart, 40, "(23456789a", 0));
    EXPECT_EQ(body().toHex(), QByteArray("010086316628323334353637383961"
                                         "010086316629323334"));
}

}  // namespace

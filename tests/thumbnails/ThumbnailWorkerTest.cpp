#include "tests/support/DataFileBytes.h"
#include "tests/support/Files.h"
#include "tests/support/RecordedSource.h"
#include "tests/thumbnails/ThumbnailFixture.h"

namespace {

/// Type 40 has records of 3 bytes, type 41 of 2; their slots are 8 and 7 bytes, a block 15. What
/// was placed is seen as "seconds of the day: payload".
class ThumbnailWorkerTest : public ThumbnailFixture {
protected:
    static constexpr quint32 kNoon = kMonthStart + 43200;
    static inline const QString kPath = QStringLiteral("/root/data/t.gdt");

    static RecordedSource source() { return RecordedSource().describe(40, 3).describe(41, 2); }

    /// How many records were to be placed on the first of the month.
    int walk(const RecordedSource& source) {
        DataFile file("source");
        openSource(file, source.bytes);
        return walk(file);
    }

    int walk(DataFile& file) {
        _thumb.close();
        openThumb(_thumb, QByteArray(kHeaderBytes, 0));
        return _manager.appendDayWorker(kHeaderBytes, _slotMap, 0, kMonthStart, file, _thumb);
    }

    QList<QByteArray> placed() const {
        QList<QByteArray> texts;
        const QByteArray body = readTestFile(kPath).mid(kHeaderBytes);
        for (qsizetype block = 0; block < body.size(); block += 15) {
            addSlot(texts, body.mid(block, 8));
            addSlot(texts, body.mid(block + 8, 7));
        }
        return texts;
    }

    static constexpr int kHeaderBytes = 10;
    QMap<int, int> _slotMap = {{40, 8}, {-40, 0}, {41, 7}, {-41, 8}, {-100, 15}};
    QFile _thumb{kPath};

private:
    static void addSlot(QList<QByteArray>& texts, const QByteArray& slot) {
        if (slot.isEmpty() || slot.at(0) == 0) {
            return;
        }
        quint32 time = 0;
        for (int i = 4; i >= 1; --i) {
            time = time << 8 | static_cast<quint8>(slot.at(i));
        }
        texts += QByteArray::number(time - kMonthStart) + ": " + slot.mid(6);
    }
};

using Placed = QList<QByteArray>;

TEST_F(ThumbnailWorkerTest, TheFirstRecordOfEachTypeOfAnIntervalIsPlaced) {
    EXPECT_EQ(walk(source()
                       .at(kNoon)
                       .record(40, "ab")
                       .record(40, "cd")
                       .shortStep(1)
                       .record(41, "e")
                       .record(40, "fg")
                       .record(41, "h")),
              2);
    EXPECT_EQ(placed(), (Placed{"43200: ab", "43201: e"}));
    EXPECT_TRUE(_log.lines().isEmpty());
}

TEST_F(ThumbnailWorkerTest, ARecord900SecondsAfterTheIntervalsStartIsPlaced) {
    EXPECT_EQ(walk(source().at(kNoon).record(40, "ab").step(900).record(40, "cd")), 2);
    EXPECT_EQ(placed(), (Placed{"43200: ab", "44100: cd"}));
}

TEST_F(ThumbnailWorkerTest, ARecord899SecondsAfterTheIntervalsStartIsNotPlaced) {
    EXPECT_EQ(walk(source().at(kNoon).record(40, "ab").step(899).record(40, "cd")), 1);
    EXPECT_EQ(placed(), Placed{"43200: ab"});
}

TEST_F(ThumbnailWorkerTest, IntervalsAreAnchoredAtTheTimeThatOpensThem) {
    EXPECT_EQ(walk(source()
                       .at(kNoon + 800)
                       .record(40, "ab")
                       .step(200)
                       .record(40, "cd")
                       .step(700)
                       .record(40, "ef")),
              2)
        << "the next quarter of an hour has begun with the second, and no new interval";
    EXPECT_EQ(placed(), (Placed{"44000: ab", "44900: ef"}));
}

TEST_F(ThumbnailWorkerTest, ATypeThatComesLateInItsIntervalIsStillPlaced) {
    EXPECT_EQ(walk(source().at(kNoon).record(40, "ab").step(850).record(41, "c")), 2);
    EXPECT_EQ(placed(), (Placed{"43200: ab", "44050: c"}));
}

TEST_F(ThumbnailWorkerTest, OfTwoIntervalsWithinOneQuarterOfAnHourTheLaterCounts) {
    EXPECT_EQ(walk(source()
                       .at(kNoon + 100)
                       .record(40, "ab")
                       .step(810)
                       .record(41, "c")
                       .step(100)
                       .record(41, "d")),
              3);
    EXPECT_EQ(placed(), (Placed{"43300: ab", "44210: d"}));
}

TEST_F(ThumbnailWorkerTest, RecordsBeforeTheFirstTimeAreNeverPlaced) {
    RecordedSource early = source();
    DataFileBytes::setField(early.bytes, 4, kNoon);
    EXPECT_EQ(walk(early.record(40, "ab").record(41, "c").shortStep(5).record(40, "de")), 1);
    EXPECT_EQ(placed(), Placed{"43205: de"}) << "and the first step counts from the creation";
}

TEST_F(ThumbnailWorkerTest, AFileOfDataAloneGivesNothing) {
    EXPECT_EQ(walk(source().record(40, "ab").record(41, "c")), 0);
    EXPECT_EQ(walk(source()), 0);
    EXPECT_TRUE(placed().isEmpty());
}

TEST_F(ThumbnailWorkerTest, KeptAShortStepIsReadUnsigned) {
    walk(source().at(kNoon).shortStep(-1).record(40, "ab"));
    EXPECT_EQ(placed(), Placed{"43455: ab"}) << "255 seconds later, not one earlier";
}

TEST_F(ThumbnailWorkerTest, ALongStepIsReadSigned) {
    walk(source().at(kNoon).step(-1).record(40, "ab"));
    EXPECT_EQ(placed(), Placed{"43199: ab"});
    walk(source().at(kNoon).step(-32768).record(40, "ab"));
    EXPECT_EQ(placed(), Placed{"10432: ab"});
    walk(source().at(kNoon).step(32767).record(40, "ab"));
    EXPECT_EQ(placed(), Placed{"75967: ab"});
}

TEST_F(ThumbnailWorkerTest, AnAbsoluteTimeIsUnsigned) {
    EXPECT_EQ(walk(source().at(0xFFFFFFFF).record(40, "ab")), 1);
    EXPECT_EQ(_log.lines(),
              QList<QByteArray>{
                  "ThumbnailManager: writeThumbRecord() timestamp is not in this day! 43007425 (ri "
                  "2867161, ts -1, sf 1714521600, ts-df -1714521601)"});
}

TEST_F(ThumbnailWorkerTest, AStepBackBeginsNoIntervalUpTo60Days) {
    EXPECT_EQ(walk(source().at(kNoon).record(40, "ab").at(kNoon - 5'184'000).record(40, "cd")), 1);
    EXPECT_EQ(placed(), Placed{"43200: ab"});
}

TEST_F(ThumbnailWorkerTest, AStepBackOfMoreThan60DaysBeginsAnInterval) {
    EXPECT_EQ(walk(source().at(kNoon).record(40, "ab").at(kNoon - 5'184'001).record(40, "cd")), 2);
    EXPECT_EQ(placed(), Placed{"43200: ab"}) << "the other was not in the day, and counted";
}

TEST_F(ThumbnailWorkerTest, ADroppedRecordStillCountsAndTheWalkGoesOn) {
    EXPECT_EQ(walk(source()
                       .at(kMonthStart - 1)
                       .record(40, "ab")
                       .at(kNoon)
                       .record(40, "cd")
                       .at(kMonthStart + 86400)
                       .record(40, "ef")
                       .record(41, "g")
                       .record(40, "hi")),
              4);
    EXPECT_EQ(placed(), Placed{"43200: cd"});
    EXPECT_EQ(_log.lines().size(), 3);
}

TEST_F(ThumbnailWorkerTest, ARecordThatCannotBeWrittenCountsAndTheWalkGoesOn) {
    DataFile file("source");
    openSource(file, source().at(kMonthStart).record(40, "ab").step(900).record(40, "cd").bytes);
    writeTestFile(kPath, QByteArray(kHeaderBytes, 0));
    ASSERT_TRUE(_thumb.open(QIODevice::ReadOnly | QIODevice::Unbuffered));
    ASSERT_TRUE(_thumb.seek(kHeaderBytes));
    EXPECT_EQ(_manager.appendDayWorker(kHeaderBytes, _slotMap, 0, kMonthStart, file, _thumb), 2);
    EXPECT_EQ(_log.lines(),
              (QList<QByteArray>{"ThumbnailManager: writeThumbRecord() failed to write record!",
                                 "ThumbnailManager: Failed to seek in thumbnail file!"}));
}

TEST_F(ThumbnailWorkerTest, RecordsThatHaveNoSlotAreSkipped) {
    RecordedSource rich = source().describe(50, 200).at(kNoon);
    rich.record(0, {})
        .record(50, QByteArray(199, '\x01'))
        .record(11, {})
        .record(100, "01234567890");
    EXPECT_EQ(walk(rich.record(40, "ab")), 1);
    EXPECT_EQ(placed(), Placed{"43200: ab"});
}

TEST_F(ThumbnailWorkerTest, AnUnknownTypeIsLoggedAndSkippedAsOneByte) {
    EXPECT_EQ(walk(source().at(kNoon).record(60, {}).record(40, "ab")), 1);
    EXPECT_EQ(placed(), Placed{"43200: ab"});
    EXPECT_EQ(_log.lines(), QList<QByteArray>{"UNKNOWN RECORD TYPE 60"});
}

TEST_F(ThumbnailWorkerTest, ATimeRecordThatTheHeaderDescribesIsDataAndNoTime) {
    _slotMap[1] = 10;
    _slotMap[-1] = 15;
    EXPECT_EQ(walk(source().at(kNoon).record(40, "ab")), 0) << "no interval ever begins";
    EXPECT_EQ(walk(source().step(1).at(kNoon).record(40, "ab")), 2);
}

TEST_F(ThumbnailWorkerTest, ARecordThatIsShorterThanItsSlotIsFollowedByZeros) {
    _slotMap = {{40, 12}, {-40, 0}, {-100, 12}};
    EXPECT_EQ(walk(source().at(kMonthStart).record(40, "ab").record(41, "c").record(41, "d")), 1);
    EXPECT_EQ(readTestFile(kPath).mid(kHeaderBytes).toHex(),
              "0100863166"
              "286162"
              "00000000");
}

TEST_F(ThumbnailWorkerTest, ARecordThatTheFileCutsShortIsFollowedByZeros) {
    EXPECT_EQ(walk(source().at(kMonthStart).record(41, "c").record(40, "a")), 2);
    EXPECT_EQ(placed(), (Placed{QByteArray("0: a\0", 5), "0: c"}));
}

TEST_F(ThumbnailWorkerTest, ATypeByteWithoutItsPayloadIsTheEnd) {
    EXPECT_EQ(walk(source().at(kMonthStart).record(40, {})), 0);
}

TEST_F(ThumbnailWorkerTest, ATimeThatTheFileCutsShortIsFilledUpWithZeros) {
    RecordedSource cut = source();
    EXPECT_EQ(walk(cut.at(kNoon).record(40, "ab").record(3, "\x01")), 1);
    EXPECT_EQ(placed(), Placed{"43200: ab"});
}

TEST_F(ThumbnailWorkerTest, OneRecordIsFoundAcrossEveryBorderOfTheReadBlocks) {
    for (int padding = 65536 - 256 - 1104 - 20; padding < 65536 - 1104 + 20; padding += 3) {
        RecordedSource longOne = source();
        longOne.bytes += QByteArray(padding, 0);
        ASSERT_EQ(walk(longOne.at(kNoon).record(40, "ab").record(41, "c")), 2) << padding;
        ASSERT_EQ(placed(), (Placed{"43200: ab", "43200: c"})) << padding;
    }
}

TEST_F(ThumbnailWorkerTest, ASourceThatCannotBeSoughtIsLoggedAndGivesNothing) {
    DataFile closed("source");
    EXPECT_EQ(walk(closed), 0);
    EXPECT_EQ(_log.lines(), QList<QByteArray>{"ThumbnailManager: FAILED TO SEEK TO FIRST RECORD!"});
    EXPECT_EQ(closed.location(), 0);
}

TEST_F(ThumbnailWorkerTest, TheSourceStandsWhereItStoodBefore) {
    DataFile file("source");
    openSource(file, source().at(kNoon).record(40, "ab").bytes);
    ASSERT_TRUE(file.seekToOffset(1000));
    ASSERT_EQ(walk(file), 1);
    EXPECT_EQ(file.currentOffset(), 1000);
    EXPECT_EQ(file.location(), 1000);
}

TEST_F(ThumbnailWorkerTest, TheBufferIsOneOf65536BytesAndGoesBackToTheCache) {
    void* const buffer = _cache.acquireBuffer(65536);
    _cache.releaseBuffer(buffer);
    walk(source().at(kNoon).record(40, "ab"));
    EXPECT_EQ(_cache.acquireBuffer(65536), buffer);
    EXPECT_NE(_cache.acquireBuffer(1), nullptr);
}

TEST_F(ThumbnailWorkerTest, ADayTwiceLeavesTheFileByteForByteTheSame) {
    RecordedSource day = source().at(kMonthStart);
    for (int i = 0; i < 90; ++i) {
        day.record(40, "ab").record(41, QByteArray(1, static_cast<char>(i))).step(950);
    }
    ASSERT_EQ(walk(day), 180);
    const QByteArray once = readTestFile(kPath);
    DataFile file("source");
    openSource(file, day.bytes);
    ASSERT_TRUE(_thumb.seek(kHeaderBytes));
    EXPECT_EQ(_manager.appendDayWorker(kHeaderBytes, _slotMap, 0, kMonthStart, file, _thumb), 180);
    EXPECT_TRUE(isSameFile(readTestFile(kPath), once));
}

}  // namespace

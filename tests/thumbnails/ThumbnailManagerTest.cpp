#include "tests/support/Files.h"
#include "tests/support/QtWarnings.h"
#include "tests/support/RecordedSource.h"
#include "tests/thumbnails/ThumbnailFixture.h"

#include <QDir>

namespace {

/// What categories of many sources have beyond that, shown with gauges.
class ThumbnailManagerTest : public ThumbnailFixture {
protected:
    ThumbnailManagerTest() { _manager.setJob("J"); }

    static void record(const QString& source) {
        writeTestFile(QStringLiteral("/mmc/J/gauges/2024-05-02/%1/calcData.gdf").arg(source),
                      RecordedSource().at(kMonthStart + 86400).record(5, QByteArray(9, 'v')).bytes);
    }
    static QByteArray done(const char* source) {
        return QByteArray(
                   "ThumbnailManager: appendDaySingleGauge added 1 records to gauge "
                   "thumbnail file 2024-05-") +
               source + " for day 2";
    }
};

TEST_F(ThumbnailManagerTest, EveryFolderOfTheDayIsASourceAndNothingElseIs) {
    for (const char* source : {"A", "b c", ".hidden", "with-2024-05-01"}) {
        record(source);
    }
    writeTestFile("/mmc/J/gauges/2024-05-02/file", "no folder");
    writeTestFile("/mmc/J/gauges/2024-05-02/calcData.gdf", "no folder");
    _manager.appendDayGauges("2024-05-02");
    EXPECT_EQ(_log.lines().size(), 4);
    for (const char* source : {"A", "b c", ".hidden", "with-2024-05-01"}) {
        EXPECT_TRUE(_log.contains(done(source))) << source;
    }
}

TEST_F(ThumbnailManagerTest, ASourceThatFailsDoesNotStopTheOthers) {
    record("A");
    record("Z");
    writeTestFile("/mmc/J/gauges/2024-05-02/M/calcData.gdf", "short");
    ASSERT_TRUE(QDir().mkpath("/mmc/J/gauges/2024-05-02/N"));
    _manager.appendDayGauges("2024-05-02");
    EXPECT_TRUE(_log.contains(done("A")));
    EXPECT_TRUE(_log.contains(done("Z")));
    EXPECT_TRUE(_log.contains("Data file is smaller than a valid header size!"));
    for (const char* source : {"M", "N"}) {
        EXPECT_TRUE(_log.contains(QByteArray("ThumbnailManager: appendDaySingleGauge failed to "
                                             "open gauge file for date 2024-05-02, gauge ") +
                                  source));
    }
    EXPECT_EQ(_log.lines().size(), 5);
}

TEST_F(ThumbnailManagerTest, PlaceholdersInASourcesNameStayWhatTheyAre) {
    record("%1 %2 %3 %4");
    _manager.appendDayGauges("2024-05-02");
    EXPECT_EQ(_log.lines(), QList<QByteArray>{done("%1 %2 %3 %4")});
    EXPECT_TRUE(QFile::exists("/root/data/J/gauges/thumbnails/2024-05-%1 %2 %3 %4.gdt"));
}

TEST_F(ThumbnailManagerTest, ASourceThatLeadsOutFails) {
    writeTestFile("/root/config/calcData.gdf", RecordedSource().bytes);
    _manager.appendDaySingleGauge("2024-05-02", "../../../../root/config");
    EXPECT_EQ(_log.lines(),
              QList<QByteArray>{"ThumbnailManager: appendDaySingleGauge failed to open gauge file "
                                "for date 2024-05-02, gauge ../../../../root/config"});
    EXPECT_TRUE(QDir("/root/data").isEmpty());
}

TEST_F(ThumbnailManagerTest, AFolderThatIsTheCurrentOneIsNoWayOut) {
    const QString before = QDir::currentPath();
    ASSERT_TRUE(QDir::setCurrent("/root/data"));
    _manager.setRootAndArchiveFolder(".", ".");
    writeTestFile("/root/data/J/gauges/2024-05-02/A/calcData.gdf",
                  RecordedSource().at(kMonthStart + 86400).record(5, QByteArray(9, 'v')).bytes);
    _manager.appendDayGauges("2024-05-02");
    ASSERT_TRUE(QDir::setCurrent(before));
    EXPECT_EQ(_log.lines(), QList<QByteArray>{done("A")});
}

/// The example of docs/formats.md.
TEST_F(ThumbnailManagerTest, AThumbnailFileHasTheBytesThatItsDescriptionShows) {
    RecordedSource source;
    source.at(kMonthStart + 1200).record(103, QByteArray::fromHex("0000c03f"));
    source.step(1507).record(103, QByteArray::fromHex("00000040"));
    writeTestFile("/mmc/J/ostrevin/2024-05-01/S/rawData.gdf", source.bytes);
    _manager.appendDayOstrevin("2024-05-01");
    const QByteArray header = QByteArray::fromHex(
                                  "02000000"
                                  "00863166"
                                  "50000000") +
                              QByteArray("source").leftJustified(68, 0);
    const QByteArray nothing(10, 0);
    const QByteArray block1 = QByteArray::fromHex(
        "01b08a3166"
        "670000c03f");
    const QByteArray block3 = QByteArray::fromHex(
        "0193903166"
        "6700000040");
    EXPECT_TRUE(isSameFile(readTestFile("/root/data/J/ostrevin/thumbnails/2024-05-S.gdt"),
                           header + nothing + block1 + nothing + block3));
}

TEST_F(ThumbnailManagerTest, TheDataFileThatIsReadIsNeverChanged) {
    record("A");
    const QByteArray before = readTestFile("/mmc/J/gauges/2024-05-02/A/calcData.gdf");
    _manager.appendDayGauges("2024-05-02");
    EXPECT_TRUE(isSameFile(readTestFile("/mmc/J/gauges/2024-05-02/A/calcData.gdf"), before));
}

TEST_F(ThumbnailManagerTest, ADayOnceMoreLeavesTheFileByteForByteTheSame) {
    record("A");
    _manager.appendDayGauges("2024-05-02");
    const QByteArray once = readTestFile("/root/data/J/gauges/thumbnails/2024-05-A.gdt");
    _manager.appendDayGauges("2024-05-02");
    EXPECT_TRUE(isSameFile(readTestFile("/root/data/J/gauges/thumbnails/2024-05-A.gdt"), once));
}

TEST_F(ThumbnailManagerTest, QtHasNothingToComplainAbout) {
    QtWarnings warnings;
    record("A");
    ASSERT_TRUE(QDir().mkpath("/root/data/J/inputs/thumbnails/2024-05-I.gdt"));
    writeTestFile("/mmc/J/inputs/2024-05-02/I/rawData.gdf", RecordedSource().bytes);
    for (const char* job : {"J", "", "..", "no such job"}) {
        _manager.setJob(job);
        for (const QString date : {"2024-05-02", ""}) {
            _manager.appendDayGauges(date);
            _manager.appendDayInputs(date);
            _manager.appendDaySystem(date);
        }
    }
    EXPECT_EQ(warnings.lines(), QList<QByteArray>());
}

}  // namespace

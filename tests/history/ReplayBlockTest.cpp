#include "tests/history/ReplayFixture.h"
#include "tests/support/FailingSeek.h"

#include <QDir>

#include <ostream>
#include <string>

#include <sys/stat.h>

namespace {

using ReplayBlockTest = ReplayFixture;

TEST_F(ReplayBlockTest, AGaugesBlockByteForByteKept) {
    put("/root/data/gauges", kDay, "1234/calcData.gdf",
        RecordedSource().at(100).record(5, gauge('\xfe', 1.5F, -2.5F)));
    const QList<QByteArray> blocks = blocksOf(replay("1234=3"));
    ASSERT_EQ(blocks.size(), 1);
    EXPECT_EQ(blocks[0].toHex(' '),
              "00 47 33 73 74 61 74 75 73 00 fe 00 00 00"
              " 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00");
}

struct TypeRow {
    std::string name;
    int type;
    QByteArray payload;
    const char* block;  ///< without the zeros that it ends with
    int used;
};

std::ostream& operator<<(std::ostream& stream, const TypeRow& row) {
    return stream << row.name;
}

class ReplayTypeTest : public ReplayFixture, public testing::WithParamInterface<TypeRow> {};

TEST_P(ReplayTypeTest, ItsBlockByteForByteKept) {
    put("/root/data/system", kDay, "systemData.gdf",
        RecordedSource().at(100).record(GetParam().type, GetParam().payload));
    const QList<QByteArray> blocks = blocksOf(replay(""));
    ASSERT_EQ(blocks.size(), 1);
    const QByteArray expected = padded(QByteArray::fromHex(GetParam().block), GetParam().used);
    EXPECT_EQ(blocks[0].toHex(' ').toStdString(), expected.toHex(' ').toStdString());
}

INSTANTIATE_TEST_SUITE_P(
    Types, ReplayTypeTest,
    testing::Values(
        // "LC" over "LV", which is as long.
        TypeRow{"GaugeCard", 90, QByteArray::fromHex("ffffffff 0000803f 00000040"),
                "01 4c4300 00000040", 16},
        // "SsysFlags" 7, then the last two bytes of "SsysCurrent".
        TypeRow{"SystemPower", 252, QByteArray::fromHex("0000803f 11223344 00004040 ffff 07"),
                "00 53737973466c61677300 07000000 3344", 72},
        // "ScardSize" 3 over two of the same length.
        TypeRow{"SystemStorage", 254, QByteArray::fromHex("01000000 02000000 03000000"),
                "00 536361726453697a6500 03000000", 45},
        // "Sconnections" 200, longer than all before it.
        TypeRow{"SystemStatus", 255, QByteArray::fromHex("0000803f 00000040 03000000 ffffffff c8"),
                "00 53636f6e6e656374696f6e7300 c8000000", 70},
        // A type without values still makes a block.
        TypeRow{"Other", 20, QByteArray(8, 'x'), "", 0}),
    [](const auto& row) { return row.param.name; });

TEST_F(ReplayBlockTest, ARecordsTypeDecidesAndNotItsFolder) {
    put("/root/data/gauges", kDay, "1/calcData.gdf",
        RecordedSource().at(100).record(90, QByteArray(12, '\x01')));
    EXPECT_EQ(blocksOf(replay("1=1")).value(0).left(4), QByteArray("\1LC\0", 4));
    put("/root/data/system", kDay, "systemData.gdf", RecordedSource().at(200).record(5, gauge(6)));
    EXPECT_EQ(blocksOf(replay("1=1")).value(0).left(14), statusItem(0, 6)) << "channel 0";
}

TEST_F(ReplayBlockTest, AShortRecordsMissingBytesRead0) {
    RecordedSource source;
    source.describe(5, 1).describe(9, 21).at(100);
    source.record(9, QByteArray(20, '\xff')).record(5, {});
    put("/root/data/gauges", kDay, "1/calcData.gdf", source);
    EXPECT_EQ(blocksOf(replay("1=1")), QList<QByteArray>{padded(statusItem(1, 0), 32)});
}

TEST_F(ReplayBlockTest, ABlockIsFullWithTheFirstRecordThatDoesNotFitAny) {
    QList<quint32> times;
    for (quint32 i = 0; i < 300; ++i) {
        times.append(100 + i);
    }
    putGauge("1", times);
    const QList<QByteArray> blocks = blocksOf(replay("1=1"));
    // 32 bytes a record: 128 just fit.
    EXPECT_EQ(blocks, (QList<QByteArray>{padded(statusItem(1, 129), 129 * 32),
                                         padded(statusItem(1, 258 - 256), 129 * 32),
                                         padded(statusItem(1, 300 - 256), 42 * 32)}));
}

TEST_F(ReplayBlockTest, ABlockThatIsJustFullAtTheEndIsTheLast) {
    QList<quint32> times(128, 100);
    putGauge("1", times);
    EXPECT_EQ(blocksOf(replay("1=1")).size(), 1);
    times.append(100);
    putGauge("1", times);
    EXPECT_EQ(blocksOf(replay("1=1")).size(), 1);
    times.append(100);
    putGauge("1", times);
    EXPECT_EQ(blocksOf(replay("1=1")).size(), 2);
}

TEST_F(ReplayBlockTest, AFileThatCannotBeOpenedOrHasNoDataIsLeftOutSilently) {
    ASSERT_TRUE(QDir().mkpath("/root/data/gauges/2024-05-01/folder/calcData.gdf"));
    ASSERT_TRUE(QDir().mkpath("/root/data/gauges/2024-05-01/pipe"));
    ASSERT_EQ(mkfifo("/root/data/gauges/2024-05-01/pipe/calcData.gdf", 0600), 0);
    ASSERT_TRUE(QDir().mkpath("/root/data/gauges/2024-05-01/none"));
    QByteArray liar = DataFileBytes::header();
    DataFileBytes::setField(liar, 8, 8193);
    writeTestFile("/root/data/gauges/2024-05-01/liar/calcData.gdf", liar + QByteArray(9000, 5));
    put("/root/data/gauges", kDay, "empty/calcData.gdf", RecordedSource());
    put("/root/data/gauges", kDay, "times/calcData.gdf", RecordedSource().at(5).shortStep(9));
    writeTestFile("/root/data/gauges/2024-05-01/file", "no folder");
    putGauge("good", {100});
    const ChildReport report =
        replay("folder=1|pipe=2|none=3|liar=4|empty=5|times=6|file=7|good=8");
    EXPECT_EQ(blocksOf(report), QList<QByteArray>{padded(statusItem(8, 1), 32)});
    EXPECT_EQ(report.lines, QList<QByteArray>{kLaunched});
}

TEST_F(ReplayBlockTest, AFileThatCannotBeSoughtIsLeftOut) {
    putGauge("1", {100});
    const FailingSeek seek;
    const ChildReport report = replay("1=1");
    EXPECT_EQ(report.status, 0);
    EXPECT_TRUE(blocksOf(report).isEmpty());
}

TEST_F(ReplayBlockTest, AFileOfASourceThatIsCutAnywhereIsReplayedAsFarAsItGoes) {
    const QByteArray whole =
        RecordedSource().at(100).record(5, gauge(1)).at(200).record(5, gauge(2)).bytes;
    for (qsizetype length = 80; length <= whole.size(); ++length) {
        writeTestFile("/root/data/gauges/2024-05-01/1/calcData.gdf", whole.left(length));
        const QList<QByteArray> blocks = blocksOf(replay("1=1"));
        const int records = (length > 80 + 6 ? 1 : 0) + (length > 80 + 21 ? 1 : 0);
        ASSERT_EQ(blocks.size(), records > 0 ? 1 : 0) << length;
        EXPECT_EQ(blocks.value(0).size(), 32 * records) << length;
    }
}

TEST_F(ReplayBlockTest, TheFilesOfADayAreClosedBehindIt) {
    for (const char* day : {"2024-05-01", "2024-05-02", "2024-05-03"}) {
        for (const char* name : {"a", "b", "c"}) {
            putGauge(name, {100}, day);
        }
    }
    const ChildReport report = replay("a=1|b=2|c=3", [this] {
        DebugText::plain("%d open", static_cast<int>(QDir("/proc/self/fd").count()));
        acknowledgeLast();
    });
    QList<QByteArray> open = report.lines;
    open.removeIf([](const QByteArray& line) { return !line.endsWith(" open"); });
    ASSERT_EQ(open.size(), 3);
    EXPECT_EQ(open[0], open[1]);
    EXPECT_EQ(open[0], open[2]);
}

}  // namespace

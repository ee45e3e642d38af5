#include "tests/tools/RecordingBytes.h"
#include "tests/tools/StoragectlFixture.h"

#include <QDir>
#include <QJsonDocument>

namespace {

using namespace RecordingBytes;

constexpr char kCaption[] =
    "Thumbnail: the first sample of each 15 minutes, neither mean nor extreme.";

/// A thumbnail of two quarters of an hour, and days of the same source.
class PlotCommandTest : public StoragectlFixture {
protected:
    static QByteArray thumbnail() {
        return header("flow-1", kMayDay) + at(kMayDay) + gauge(1) + QByteArray(15, '\0') +
               at(kMayDay + 900) + gauge(3);
    }
    static QByteArray day(int number, const QList<float>& values) {
        const quint32 begin = kMayDay + 86'400 * static_cast<quint32>(number - 1);
        QByteArray bytes = header("flow-1", begin) + at(begin);
        for (const float value : values) {
            bytes += gauge(value) + QByteArray::fromHex("020A");
        }
        return bytes;
    }
    void write(const QByteArray& path, const QByteArray& bytes) {
        QDir().mkpath(QString::fromUtf8(local(path.left(path.lastIndexOf('/')))));
        writeLocal(path, bytes);
    }
    std::string thumbnailPath() const {
        return local("data/job/gauges/thumbnails/2024-05-flow-1.gdt").toStdString();
    }
};

TEST_F(PlotCommandTest, AThumbnailOnTheTerminalSaysWhatItIs) {
    write("data/job/gauges/thumbnails/2024-05-flow-1.gdt", thumbnail());
    EXPECT_EQ(run({"plot", "--width", "40", "--value", "value", thumbnailPath()}), 0);
    EXPECT_TRUE(data.startsWith("flow-1: gauge.value, first sample of each 15 minutes\n"));
    EXPECT_TRUE(
        data.contains("           2024-05-01T00:00:00+00:00 to 2024-05-01T00:15:00+00:00\n"));
    EXPECT_TRUE(data.endsWith(QByteArray(kCaption) + '\n'));
    EXPECT_EQ(data.count('\n'), 1 + 16 + 4);
}

TEST_F(PlotCommandTest, AThumbnailAsCsvHasItsSamplesUnderFirst) {
    write("data/job/gauges/thumbnails/2024-05-flow-1.gdt", thumbnail());
    EXPECT_EQ(run({"plot", "--csv", "--value", "value", "--tz", "Asia/Kolkata", thumbnailPath()}),
              0);
    EXPECT_EQ(data,
              "time,source,value,first,minimum,maximum,mean,samples\n"
              "2024-05-01T05:30:00+05:30,flow-1,gauge.value,1,,,,\n"
              "2024-05-01T05:45:00+05:30,flow-1,gauge.value,3,,,,\n");
    EXPECT_EQ(talk, QByteArray("storagectl: ") + kCaption + '\n');
}

TEST_F(PlotCommandTest, RawDrawsTheDaysOfTheMonthFromLowestToHighest) {
    write("mmc/job/gauges/2024-05-01/flow-1/calcData.gdf", day(1, {1, 9, 2}));
    write("data/job/gauges/2024-05-02/flow-1/calcData.gdf", day(2, {4, 5}));
    write("mmc/job/gauges/2024-06-01/flow-1/calcData.gdf", day(32, {7}));
    write("mmc/job/gauges/2024-05-01/flow-2/calcData.gdf", day(1, {8}));
    EXPECT_EQ(run({"plot", "--raw", "--csv", "--value", "value", thumbnailPath()}), 0);
    EXPECT_EQ(data,
              "time,source,value,first,minimum,maximum,mean,samples\n"
              "2024-05-01T00:00:00+00:00,flow-1,gauge.value,,1,9,4,3\n"
              "2024-05-02T00:00:00+00:00,flow-1,gauge.value,,4,5,4.5,2\n");
    EXPECT_EQ(talk, "");
    EXPECT_EQ(run({"plot", "--raw", "--width", "40", "--value", "value", thumbnailPath()}), 0);
    EXPECT_TRUE(
        data.endsWith("Recorded samples: from the lowest to the highest of each step of time.\n"));
    EXPECT_FALSE(data.contains("first sample"));
}

TEST_F(PlotCommandTest, SamplesOfAWrongClockAreNotOfTheMonth) {
    write("mmc/job/gauges/2024-05-01/flow-1/calcData.gdf",
          day(1, {1, 2}) + at(946'684'800) + gauge(9) + at(kMayDay + 31 * 86'400) + gauge(9));
    EXPECT_EQ(run({"plot", "--raw", "--csv", "--value", "value", thumbnailPath()}), 0);
    EXPECT_FALSE(data.contains("2000-01-01"));
    EXPECT_FALSE(data.contains(",9"));
}

TEST_F(PlotCommandTest, ADamagedDayIsSaidAndTheOthersAreDrawn) {
    write("mmc/job/gauges/2024-05-01/flow-1/calcData.gdf", day(1, {1}));
    write("mmc/job/gauges/2024-05-02/flow-1/calcData.gdf", {});
    EXPECT_EQ(run({"plot", "--raw", "--csv", thumbnailPath()}), 3);
    EXPECT_TRUE(data.contains(",flow-1,gauge.value,,1,1,1,1\n"));
    EXPECT_TRUE(talk.contains("2024-05-02/flow-1/calcData.gdf: empty, not even a header"));
    EXPECT_TRUE(talk.contains("1 of its 2 days are drawn in part or not"));
}

TEST_F(PlotCommandTest, AMonthWithoutDaysIsNotFound) {
    EXPECT_EQ(run({"plot", "--raw", thumbnailPath()}), 4);
    EXPECT_TRUE(talk.contains("no day of it is recorded"));
    EXPECT_TRUE(talk.contains("mmc/job/gauges/2024-05-01/flow-1/calcData.gdf"));
}

TEST_F(PlotCommandTest, RawOfAnotherNameIsWrongUsage) {
    EXPECT_EQ(run({"plot", "--raw", local("x.gdf").toStdString()}), 2);
}

TEST_F(PlotCommandTest, RawOfTheUnitIsReadThroughTheDaemon) {
    daemon.files["/mmc/job/gauges/2024-05-01/flow-1/calcData.gdf"].contents = day(1, {1});
    daemon.files["/root/data/job/gauges/2024-05-02/flow-1/calcData.gdf"].contents = day(2, {2});
    EXPECT_EQ(run({"plot", "--raw", "--csv", "--value", "value",
                   "/root/data/job/gauges/thumbnails/2024-05-flow-1.gdt"}),
              0);
    EXPECT_EQ(data.count('\n'), 3);
    EXPECT_TRUE(data.endsWith(",flow-1,gauge.value,,2,2,2,1\n"));
}

TEST_F(PlotCommandTest, DaysOfOneSourceAreOnePanel) {
    write("a.gdf", day(1, {1}));
    write("b.gdf", day(2, {2}));
    EXPECT_EQ(run({"plot", "--width", "40", "--value", "value", local("a.gdf").toStdString(),
                   local("b.gdf").toStdString()}),
              0);
    EXPECT_EQ(data.count("flow-1: gauge.value\n"), 1);
    EXPECT_TRUE(data.contains("2024-05-01T00:00:00+00:00 to 2024-05-02T00:00:00+00:00"));
}

TEST_F(PlotCommandTest, AnSvgIsWrittenAndNamed) {
    write("data/job/gauges/thumbnails/2024-05-flow-1.gdt", thumbnail());
    EXPECT_EQ(run({"plot", thumbnailPath(), "--svg", local("a.svg").toStdString()}), 0);
    EXPECT_TRUE(readLocal("a.svg").contains(kCaption));
    EXPECT_EQ(data, "");
    EXPECT_TRUE(talk.contains(kCaption));
    EXPECT_EQ(run({"plot", thumbnailPath(), "--svg", local("none/a.svg").toStdString()}), 6);
    EXPECT_EQ(run({"plot", thumbnailPath(), "--svg", "a.svg", "--csv"}), 2);
}

TEST_F(PlotCommandTest, JsonHasTheSameRows) {
    write("a.gdf", day(1, {1, 3}));
    EXPECT_EQ(run({"--json", "plot", "--value", "value", local("a.gdf").toStdString()}), 0);
    const QList<QByteArray> lines = data.trimmed().split('\n');
    ASSERT_EQ(lines.size(), 2);
    EXPECT_EQ(QJsonDocument::fromJson(lines[1])["maximum"], 3);
    EXPECT_EQ(QJsonDocument::fromJson(lines[1])["time"], "2024-05-01T00:00:10+00:00");
}

TEST_F(PlotCommandTest, NothingToDrawIsNotFound) {
    write("a.gdf", day(1, {}));
    EXPECT_EQ(run({"plot", local("a.gdf").toStdString()}), 4);
    write("a.gdf", day(1, {1}));
    EXPECT_EQ(run({"plot", "--value", "flow", local("a.gdf").toStdString()}), 4);
    EXPECT_TRUE(talk.contains("it has gauge.value"));
    EXPECT_EQ(run({"plot", "--from", "2025-01-01", local("a.gdf").toStdString()}), 4);
    write("a.gdf", day(1, {std::nanf("")}));
    EXPECT_EQ(run({"plot", "--value", "value", local("a.gdf").toStdString()}), 4);
}

TEST_F(PlotCommandTest, ADamagedFileIsDrawnAsFarAsItGoes) {
    write("a.gdf", day(1, {1, 2, 3}).chopped(4));
    EXPECT_EQ(run({"plot", "--width", "40", local("a.gdf").toStdString()}), 5);
    EXPECT_TRUE(data.contains("flow-1: gauge.value\n"));
    EXPECT_TRUE(talk.contains("damaged: "));
}

}  // namespace

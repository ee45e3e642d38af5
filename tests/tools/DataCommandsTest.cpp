#include "tests/tools/RecordingBytes.h"
#include "tests/tools/StoragectlFixture.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <sys/stat.h>

namespace {

using namespace RecordingBytes;

class DataCommandsTest : public StoragectlFixture {
protected:
    int runOn(std::vector<std::string> command, const QByteArray& bytes) {
        writeLocal("day.gdf", bytes);
        command.push_back(local("day.gdf").toStdString());
        return run(command);
    }
    QByteArray path() const { return local("day.gdf"); }
};

const QByteArray kDay =
    header("flow-1", kMayDay) + at(kMayDay) + gauge(1.5F) + QByteArray::fromHex("020A") + gauge(-2);

TEST_F(DataCommandsTest, InfoOfADay) {
    EXPECT_EQ(runOn({"data", "info"}, kDay), 0);
    EXPECT_EQ(data, path() +
                        "\n  source   flow-1\n"
                        "  kind     recording\n"
                        "  created  2024-05-01T00:00:00+00:00\n"
                        "  bytes    107, of which the header has 80 (version 2, describes 0 record "
                        "types)\n"
                        "  records  2, 2 time steps, 0 empty bytes\n"
                        "  span     2024-05-01T00:00:00+00:00 to 2024-05-01T00:00:10+00:00, "
                        "00:00:10\n"
                        "  type 5   gauge, 2 records of 10 bytes, not described by the header\n"
                        "           2024-05-01T00:00:00+00:00 to 2024-05-01T00:00:10+00:00\n"
                        "           value (real 32), temperature (real 32), status (unsigned 8)\n"
                        "  gaps     0 above 30 s (the usual step is 10 s)\n"
                        "  jumps    the clock was set back 0 times\n");
    EXPECT_EQ(talk, "");
}

TEST_F(DataCommandsTest, InfoNamesGapsAndJumps) {
    EXPECT_EQ(
        runOn({"data", "info"}, kDay + at(kMayDay + 90'010) + gauge(1) + at(kMayDay) + gauge(1)),
        0);
    EXPECT_TRUE(
        data.contains("  jumps    the clock was set back 1 time\n"
                      "           2024-05-02T01:00:10+00:00 to 2024-05-01T00:00:00+00:00, "
                      "1 d 01:00:10 back\n"))
        << data.toStdString();
}

TEST_F(DataCommandsTest, InfoAsJson) {
    EXPECT_EQ(runOn({"--json", "data", "info"}, kDay), 0);
    const QJsonObject object = QJsonDocument::fromJson(data).object();
    EXPECT_EQ(object["command"], "data info");
    EXPECT_EQ(object["records"], 2);
    EXPECT_EQ(object["last"], "2024-05-01T00:00:10+00:00");
    EXPECT_EQ(object["types"][0]["values"][0]["name"], "value");
    EXPECT_EQ(object["damage"].toArray().size(), 0);
}

TEST_F(DataCommandsTest, ADumpIsCsvWithAColumnAValue) {
    EXPECT_EQ(runOn({"data", "dump"}, kDay), 0);
    EXPECT_EQ(data,
              "time,seconds,type,record,gauge.value,gauge.temperature,gauge.status\n"
              "2024-05-01T00:00:00+00:00,1714521600,5,gauge,1.5,20.5,3\n"
              "2024-05-01T00:00:10+00:00,1714521610,5,gauge,-2,20.5,3\n");
}

TEST_F(DataCommandsTest, ADumpAsJsonIsOneObjectALine) {
    EXPECT_EQ(runOn({"--json", "data", "dump"}, kDay), 0);
    const QList<QByteArray> lines = data.trimmed().split('\n');
    ASSERT_EQ(lines.size(), 2);
    const QJsonObject object = QJsonDocument::fromJson(lines[1]).object();
    EXPECT_EQ(object["seconds"], 1'714'521'610);
    EXPECT_EQ(object["record"], "gauge");
    EXPECT_EQ(object["values"]["value"], -2);
    EXPECT_FALSE(object.contains("hex"));
}

TEST_F(DataCommandsTest, WhatNoNameExplainsIsDumpedInHex) {
    const QByteArray odd = header("x", kMayDay, {descriptor("a,\"b\"", 42, {{"v", 1}, {"w", 3}})});
    EXPECT_EQ(runOn({"data", "dump"}, odd + QByteArray::fromHex("2A 07 010203") +
                                          QByteArray::fromHex("69") + QByteArray(32, '\7')),
              0);
    EXPECT_EQ(data,
              "time,seconds,type,record,\"a,\"\"b\"\".v\",\"a,\"\"b\"\".w\",hex\n"
              "2024-05-01T00:00:00+00:00,1714521600,42,\"a,\"\"b\"\"\",7,010203,2a07010203\n"
              "2024-05-01T00:00:00+00:00,1714521600,105,type 105,,,69" +
                  QByteArray(32, '\7').toHex() + "\n");
}

TEST_F(DataCommandsTest, ANumberThatIsNoneIsTextInJson) {
    EXPECT_EQ(runOn({"--json", "data", "dump"}, header("x", 0) + gauge(std::nanf(""))), 0);
    EXPECT_EQ(QJsonDocument::fromJson(data)["values"]["value"], "nan");
}

TEST_F(DataCommandsTest, ValuesAndTypesAreSelectedByNameInAnyCase) {
    const QByteArray both = kDay + QByteArray::fromHex("FE 01000000 02000000 03000000");
    EXPECT_EQ(runOn({"data", "dump", "--value", "VALUE"}, both), 0);
    EXPECT_TRUE(data.startsWith("time,seconds,type,record,gauge.value\n")) << data.toStdString();
    EXPECT_EQ(data.count('\n'), 3);
    EXPECT_EQ(runOn({"data", "dump", "--value", "status", "--value", "value"}, both), 0);
    EXPECT_TRUE(data.startsWith("time,seconds,type,record,gauge.value,gauge.status\n"));
    EXPECT_EQ(runOn({"data", "dump", "--type", "storage", "--value", "storage.sdiskfree"}, both),
              0);
    EXPECT_TRUE(data.endsWith(",254,storage,1\n")) << data.toStdString();
    EXPECT_EQ(runOn({"data", "dump", "--type", "254"}, both), 0);
    EXPECT_TRUE(data.endsWith(",254,storage,1,2,3\n")) << data.toStdString();
}

TEST_F(DataCommandsTest, AValueThatTheFileHasNotIsNotFoundAndTheOthersAreNamed) {
    EXPECT_EQ(runOn({"data", "dump", "--value", "flow"}, kDay), 4);
    EXPECT_TRUE(talk.contains("it has gauge.value, gauge.temperature, gauge.status"));
}

TEST_F(DataCommandsTest, TimesAreSelectedWithBothEnds) {
    EXPECT_EQ(runOn({"data", "dump", "--from", "2024-05-01T00:00:10"}, kDay), 0);
    EXPECT_EQ(data.count('\n'), 2);
    EXPECT_EQ(runOn({"data", "dump", "--to", "2024-05-01T00:00:00"}, kDay), 0);
    EXPECT_EQ(data.count('\n'), 2);
    EXPECT_EQ(runOn({"data", "dump", "--from", "2024-05-01", "--to", "2024-05-01"}, kDay), 0);
    EXPECT_EQ(data.count('\n'), 3);
    EXPECT_EQ(runOn({"data", "dump", "--to", "2024-04-30"}, kDay), 0);
    EXPECT_EQ(data.count('\n'), 1);
}

TEST_F(DataCommandsTest, ATimeMayLeaveItsSecondsOut) {
    EXPECT_EQ(
        runOn({"data", "dump", "--from", "2024-05-01T00:00", "--to", "2024-05-01T00:00"}, kDay), 0);
    EXPECT_EQ(data.count('\n'), 2);
}

TEST_F(DataCommandsTest, TimesAroundAChangeOfTheClockHaveTheirOffsets) {
    // 2024-10-27T00:30:00 UTC, then an hour later: both are 02:30 in Berlin.
    const QByteArray bytes =
        header("x", 0) + at(1'729'989'000) + gauge(1) + at(1'729'992'600) + gauge(2);
    EXPECT_EQ(runOn({"data", "dump", "--tz", "Europe/Berlin", "--value", "value"}, bytes), 0);
    EXPECT_TRUE(data.contains("\n2024-10-27T02:30:00+02:00,1729989000,"));
    EXPECT_TRUE(data.contains("\n2024-10-27T02:30:00+01:00,1729992600,"));
    // A day of that zone: until 23:00 UTC.
    EXPECT_EQ(runOn({"data", "dump", "--tz", "Europe/Berlin", "--from", "2024-10-28"}, bytes), 0);
    EXPECT_EQ(data.count('\n'), 1);
}

TEST_F(DataCommandsTest, WrongZonesAndTimesAreWrongUsage) {
    for (const std::vector<std::string>& wrong :
         std::vector<std::vector<std::string>>{{"--tz", "Europe/Atlantis"},
                                               {"--tz", ""},
                                               {"--from", "yesterday"},
                                               {"--from", "2024-05-01T25:00:00"},
                                               {"--from", "2024-05-01T25:00"},
                                               {"--from", "2024-05-01T"},
                                               {"--from", "2024-02-30"},
                                               {"--from", "2024-05-02", "--to", "2024-05-01"}}) {
        std::vector<std::string> command{"data", "dump"};
        command.insert(command.end(), wrong.begin(), wrong.end());
        EXPECT_EQ(runOn(command, kDay), 2) << wrong[1];
    }
    EXPECT_EQ(run({"data"}), 2);
    EXPECT_EQ(run({"data", "info"}), 2);
}

TEST_F(DataCommandsTest, DamageIsSaidAndWhatCanBeReadIsShown) {
    EXPECT_EQ(runOn({"data", "info"}, kDay.chopped(1)), 5);
    EXPECT_TRUE(data.contains("  records  1,"));
    EXPECT_TRUE(data.endsWith("  DAMAGED  the last record is cut: it has 9 of its 10 bytes\n"));
    EXPECT_EQ(runOn({"data", "dump"}, kDay.chopped(1)), 5);
    EXPECT_TRUE(data.endsWith("\n2024-05-01T00:00:10+00:00,1714521610,5,gauge,-2,20.5,\n"));
    EXPECT_EQ(talk, "storagectl: " + path() +
                        ": damaged: the last record is cut: it has 9 of its 10 bytes\n");
}

TEST_F(DataCommandsTest, EmptyFilesAndBareHeadersAreToldApart) {
    EXPECT_EQ(runOn({"data", "info"}, {}), 5);
    EXPECT_EQ(talk, "storagectl: " + path() + ": empty, not even a header\n");
    EXPECT_EQ(runOn({"data", "info"}, kDay.first(80)), 0);
    EXPECT_TRUE(data.endsWith("  records  0, 0 time steps, 0 empty bytes\n"));
    EXPECT_EQ(runOn({"data", "dump"}, kDay.first(80)), 0);
    EXPECT_EQ(data, "time,seconds,type,record\n");
}

TEST_F(DataCommandsTest, ALocalFileNeedsNoBroker) {
    brokerPresent = false;
    EXPECT_EQ(runOn({"data", "info"}, kDay), 0);
    EXPECT_EQ(run({"data", "info", "/root/data/x.gdf"}), 10);
}

TEST_F(DataCommandsTest, AMissingLocalFileAndADirectoryAreLocalFailures) {
    EXPECT_EQ(run({"data", "info", local("none.gdf").toStdString()}), 6);
    EXPECT_EQ(run({"data", "dump", folder.path().toStdString()}), 6);
    ASSERT_EQ(mkfifo(local("fifo").constData(), 0600), 0);
    EXPECT_EQ(run({"data", "info", local("fifo").toStdString()}), 6);
}

TEST_F(DataCommandsTest, AUnitsFileIsReadThroughTheDaemonAndNotChanged) {
    daemon.files["/mmc/job/a.gdf"].contents = kDay;
    EXPECT_EQ(run({"data", "dump", "/mmc/job/a.gdf"}), 0);
    EXPECT_EQ(data.count('\n'), 3);
    EXPECT_EQ(daemon.files["/mmc/job/a.gdf"].contents, kDay);
    EXPECT_EQ(daemon.count(MESSAGE_FILE_WRITE), 0);
    for (const Message& request : daemon.requests) {
        if (request.command() == MESSAGE_FILE_OPEN) {
            EXPECT_EQ(request.parameterAsInt32(1), storagectl::FileService::ReadOnly);
        }
    }
}

TEST_F(DataCommandsTest, AUnitsFileThatIsNotThereIsNotFound) {
    EXPECT_EQ(run({"data", "info", "/mmc/job/a.gdf"}), 4);
}

TEST_F(DataCommandsTest, WithLocalEveryPathIsLocal) {
    daemon.files["/mmc/job/a.gdf"].contents = kDay;
    EXPECT_EQ(run({"data", "info", "--local", "/mmc/job/a.gdf"}), 6);
    EXPECT_TRUE(daemon.requests.empty());
}

TEST_F(DataCommandsTest, OfSeveralFilesTheGoodOnesAreShown) {
    writeLocal("a.gdf", kDay);
    writeLocal("b.gdf", {});
    EXPECT_EQ(run({"data", "info", local("a.gdf").toStdString(), local("b.gdf").toStdString()}), 3);
    EXPECT_TRUE(data.contains("  records  2"));
}

}  // namespace

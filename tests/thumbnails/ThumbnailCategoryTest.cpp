#include "tests/support/Files.h"
#include "tests/support/RecordedSource.h"
#include "tests/thumbnails/ThumbnailFixture.h"

#include <QDir>

namespace {

using CategoryWalk = void (ThumbnailManager::*)(const QString& date);
using SourceWalk = void (ThumbnailManager::*)(const QString& date, const QString& source);

/// What tells a category: "%D" stands for the date, "%M" for the month, "%S" for the source.
struct Row {
    const char* name;
    CategoryWalk category;
    SourceWalk single;  ///< null where there is one source only
    const char* dataFile;
    const char* thumbnailFolder;
    const char* thumbnailFile;
    int fallbackType;
    int slotBytes;
    const char* invalidDate;
    const char* noDataFile;
    const char* noThumbnail;
    const char* done;  ///< of one record on day 2
};

const Row kRows[] = {
    {"gauges", &ThumbnailManager::appendDayGauges, &ThumbnailManager::appendDaySingleGauge,
     "/mmc/J/gauges/%D/%S/calcData.gdf", "/root/data/J/gauges/thumbnails",
     "/root/data/J/gauges/thumbnails/%M-%S.gdt", 5, 15,
     "appendDaySingleGauge passed invalid date string \"%D\"",
     "appendDaySingleGauge failed to open gauge file for date %D, gauge %S",
     "appendDaySingleGauge failed to open gauge thumbnail file %M-%S",
     "appendDaySingleGauge added 1 records to gauge thumbnail file %M-%S for day 2"},
    {"gaugecards", &ThumbnailManager::appendDayGaugeCards,
     &ThumbnailManager::appendDaySingleGaugeCard, "/mmc/J/gaugecards/%D/%S/rawData.gdf",
     "/root/data/J/gaugecards/thumbnails", "/root/data/J/gaugecards/thumbnails/%M-%S.gdt", 90, 18,
     "appendDaySingleGaugeCard passed invalid date string \"%D\"",
     "appendDaySingleGaugeCard failed to open gaugecard file for date %D, gauge %S",
     "appendDaySingleGaugeCard failed to open gaugecard thumbnail file %M-%S",
     "appendDaySingleGaugeCard added 1 records to gaugecard thumbnail file %M-%S for day 2"},
    {"inputs", &ThumbnailManager::appendDayInputs, &ThumbnailManager::appendDaySingleInput,
     "/mmc/J/inputs/%D/%S/rawData.gdf", "/root/data/J/inputs/thumbnails",
     "/root/data/J/inputs/thumbnails/%M-%S.gdt", 100, 17,
     "appendDaySingleInput passed invalid date string \"%D\"",
     "appendDaySingleInput failed to open input file for date %D, input %S",
     "appendDaySingleInput failed to open input thumbnail file %M-%S",
     "appendDaySingleInput added 1 records to input thumbnail file %M-%S for day 2"},
    {"wireless", &ThumbnailManager::appendDayWireless, &ThumbnailManager::appendDaySingleWireless,
     "/mmc/J/wireless/%D/%S/rawData.gdf", "/root/data/J/wireless/thumbnails",
     "/root/data/J/wireless/thumbnails/%M-%S.gdt", 20, 14,
     "appendDaySingleWireless passed invalid date string \"%D\"",
     "appendDaySingleWireless failed to open wireless file for date %D, wireless %S",
     "appendDaySingleWireless failed to open wireless thumbnail file %M-%S",
     "appendDaySingleWireless added 1 records to wireless thumbnail file %M-%S for day 2"},
    {"ostrevin", &ThumbnailManager::appendDayOstrevin, &ThumbnailManager::appendDaySingleOstrevin,
     "/mmc/J/ostrevin/%D/%S/rawData.gdf", "/root/data/J/ostrevin/thumbnails",
     "/root/data/J/ostrevin/thumbnails/%M-%S.gdt", 103, 10,
     "appendDaySingleOstrevin passed invalid date string \"%D\"",
     "appendDaySingleOstrevin failed to open ostrevin file for date %D, ostrevin %S",
     "appendDaySingleOstrevin failed to open ostrevin thumbnail file %M-%S",
     "appendDaySingleOstrevin added 1 records to ostrevin thumbnail file %M-%S for day 2"},
    // KEPT: the last two name another operation.
    {"system", &ThumbnailManager::appendDaySystem, nullptr, "/mmc/J/system/%D/systemData.gdf",
     "/root/data/J/system/thumbnails", "/root/data/J/system/thumbnails/%M.gdt", 255, 23,
     "appendDaySystem passed invalid date string \"%D\"",
     "appendDaySystem failed to open system file for date %D (filename \"%F\")",
     "appendDaySingleInput failed to open thumbnail file %M for system",
     "appendDaySingleInput added 1 records to system thumbnail file %M for day 2"},
};

class ThumbnailCategoryTest : public ThumbnailFixture, public testing::WithParamInterface<Row> {
protected:
    ThumbnailCategoryTest() { _manager.setJob("J"); }

    static QString filled(const char* pattern, const QString& date = "2024-05-02",
                          const QString& source = "S1") {
        QString text = QString::fromLatin1(pattern);
        text.replace("%F", GetParam().dataFile);
        return text.replace("%D", date).replace("%M", date.left(7)).replace("%S", source);
    }
    static QByteArray logged(const char* pattern, const QString& date = "2024-05-02",
                             const QString& source = "S1") {
        return "ThumbnailManager: " + filled(pattern, date, source).toUtf8();
    }

    /// One record of the fallback code at 00:15:00 of the 2nd.
    static QByteArray recording() {
        const int payload = GetParam().slotBytes - 6;
        return RecordedSource()
            .at(kMonthStart + 86400 + 900)
            .record(GetParam().fallbackType, QByteArray(payload, 'v'))
            .bytes;
    }
    void record(const QString& source = "S1") {
        writeTestFile(filled(GetParam().dataFile, "2024-05-02", source), recording());
    }
    void walkSingle(const QString& date, const QString& source = "S1") {
        if (GetParam().single) {
            (_manager.*GetParam().single)(date, source);
        } else {
            (_manager.*GetParam().category)(date);
        }
    }
    void walk(const QString& date = "2024-05-02") { (_manager.*GetParam().category)(date); }

    static QStringList thumbnails() {
        return QDir(GetParam().thumbnailFolder).entryList(QDir::Files, QDir::Name);
    }
};

TEST_P(ThumbnailCategoryTest, ADayOfASourceBecomesBlocksOfItsMonth) {
    record();
    walk();
    const int blockOf0015 = 96 + 1;
    const int slotBytes = GetParam().slotBytes;
    QByteArray expected = RecordedSource().bytes;
    expected.replace(4, 4, QByteArray::fromHex("00863166"));  // 1714521600
    // KEPT: code 100's slot stands where the next block begins.
    const int slot = GetParam().fallbackType == 100 ? blockOf0015 + 1 : blockOf0015;
    expected += QByteArray(slot * slotBytes, 0) + QByteArray::fromHex("0104db3266") +
                static_cast<char>(GetParam().fallbackType) + QByteArray(slotBytes - 6, 'v');
    EXPECT_TRUE(isSameFile(readTestFile(filled(GetParam().thumbnailFile)), expected));
    EXPECT_EQ(_log.lines(), QList<QByteArray>{logged(GetParam().done)});
}

TEST_P(ThumbnailCategoryTest, AMissingDataFileIsLogged) {
    walkSingle("2024-05-02");
    EXPECT_EQ(_log.lines(), QList<QByteArray>{logged(GetParam().noDataFile)});
    EXPECT_TRUE(thumbnails().isEmpty());
}

TEST_P(ThumbnailCategoryTest, ADataFileWithABadHeaderIsLogged) {
    writeTestFile(filled(GetParam().dataFile), QByteArray(80, 0));
    walkSingle("2024-05-02");
    EXPECT_EQ(_log.lines(), QList<QByteArray>{logged(GetParam().noDataFile)});
    EXPECT_TRUE(thumbnails().isEmpty());
}

TEST_P(ThumbnailCategoryTest, AThumbnailThatCannotBeOpenedIsLogged) {
    record();
    ASSERT_TRUE(QDir().mkpath(filled(GetParam().thumbnailFile)));
    walkSingle("2024-05-02");
    EXPECT_EQ(_log.lines(), (QList<QByteArray>{"ThumbnailManager: failed to open thumbnail file!",
                                               logged(GetParam().noThumbnail)}));
}

TEST_P(ThumbnailCategoryTest, ADateOfAnotherShapeIsLoggedByEachSource) {
    for (const char* date :
         {"", "2024-2-3", "2024-05-2", "2024-05-022", "24-05-02", "2024/05/02", "2024-05-0a",
          " 2024-05-02", "2024-05-02\n", "2024-05-02 ", "x2024-05-02", "2024-05_02", "-024-05-02",
          "\u0662\u0660\u0662\u0664-05-02", "2024-05-0\u0662"}) {
        _log.clear();
        walkSingle(QString::fromUtf8(date));
        QByteArray escaped = QByteArray(date).replace("\n", "\\x0a");
        for (const char byte : QByteArray(date)) {
            if (static_cast<quint8>(byte) >= 0x80) {
                const QByteArray one(1, byte);
                escaped.replace(one, "\\x" + one.toHex());
            }
        }
        EXPECT_EQ(_log.lines(),
                  QList<QByteArray>{logged(GetParam().invalidDate, QString::fromUtf8(escaped))})
            << date;
    }
}

TEST_P(ThumbnailCategoryTest, ADatePassesByItsShapeAlone) {
    for (const char* date : {"2024-13-45", "0000-00-00", "9999-99-99"}) {
        _log.clear();
        walkSingle(date);
        EXPECT_EQ(_log.lines(), QList<QByteArray>{logged(GetParam().noDataFile, date)});
    }
}

TEST_P(ThumbnailCategoryTest, ADayWithoutAFolderDoesNothingButMakeTheThumbnailFolder) {
    ASSERT_FALSE(QDir(GetParam().thumbnailFolder).exists());
    walk();
    EXPECT_TRUE(QDir(GetParam().thumbnailFolder).exists());
    EXPECT_TRUE(thumbnails().isEmpty());
    const bool hasSources = GetParam().single != nullptr;
    EXPECT_EQ(_log.lines().size(), hasSources ? 0 : 1);
}

TEST_P(ThumbnailCategoryTest, TheFirstDayCreatesTheMonthsFileAndLaterDaysExtendIt) {
    record();
    walk();
    const QByteArray first = readTestFile(filled(GetParam().thumbnailFile));
    const int payload = GetParam().slotBytes - 6;
    RecordedSource later;
    later.at(kMonthStart + 4 * 86400).record(GetParam().fallbackType, QByteArray(payload, 'w'));
    writeTestFile(filled(GetParam().dataFile, "2024-05-05"), later.bytes);
    walk("2024-05-05");
    const QByteArray both = readTestFile(filled(GetParam().thumbnailFile));
    EXPECT_TRUE(isSameFile(both.left(first.size()), first));
    EXPECT_TRUE(both.endsWith(QByteArray(payload, 'w')));
    EXPECT_EQ(thumbnails().size(), 1);
}

TEST_P(ThumbnailCategoryTest, AnotherMonthHasItsOwnFile) {
    record();
    walk();
    RecordedSource june;
    june.at(kMonthStart + 31 * 86400).record(GetParam().fallbackType, QByteArray(40, 'w'));
    writeTestFile(filled(GetParam().dataFile, "2024-06-01"), june.bytes);
    walk("2024-06-01");
    EXPECT_EQ(thumbnails().size(), 2);
    const QByteArray file = readTestFile(filled(GetParam().thumbnailFile, "2024-06-01"));
    EXPECT_EQ(file.mid(4, 4).toHex(), QByteArray("80645a66")) << "1717200000";
}

TEST_P(ThumbnailCategoryTest, FoldersAndJobAreThoseLastSet) {
    _manager.setRootAndArchiveFolder("/root/data/elsewhere", "/root/data/card/");
    _manager.setJob("other job");
    const QString dataFile = filled(GetParam().dataFile).mid(qsizetype(sizeof "/mmc/J") - 1);
    const QString thumbnail =
        filled(GetParam().thumbnailFile).mid(qsizetype(sizeof "/root/data/J") - 1);
    writeTestFile("/root/data/card/other job" + dataFile, recording());
    walk();
    EXPECT_EQ(_log.lines(), QList<QByteArray>{logged(GetParam().done)});
    EXPECT_TRUE(QFile::exists("/root/data/elsewhere/other job" + thumbnail));
}

TEST_P(ThumbnailCategoryTest, TheEmptyJobOfTheStartIsALevelWithoutAName) {
    _manager.setJob(QString());
    const QString dataFile = filled(GetParam().dataFile).mid(qsizetype(sizeof "/mmc/J") - 1);
    writeTestFile("/mmc" + dataFile, recording());
    walk();
    EXPECT_EQ(_log.lines(), QList<QByteArray>{logged(GetParam().done)});
}

TEST_P(ThumbnailCategoryTest, PlaceholdersInAJobsNameStayWhatTheyAre) {
    _manager.setJob("%3 %4 %1");
    const QString dataFile = filled(GetParam().dataFile).mid(qsizetype(sizeof "/mmc/J") - 1);
    writeTestFile("/mmc/%3 %4 %1" + dataFile, recording());
    walk();
    EXPECT_EQ(_log.lines(), QList<QByteArray>{logged(GetParam().done)});
}

TEST_P(ThumbnailCategoryTest, AJobThatLeadsOutOfItsFolderMakesEachSourceFail) {
    for (const char* job : {"..", "../outside", "a/../../outside", "/../outside", "../data"}) {
        _manager.setJob(job);
        _log.clear();
        walkSingle("2024-05-02");
        const QByteArray expected =
            logged(GetParam().noDataFile).replace("/mmc/J", "/mmc/" + QByteArray(job));
        EXPECT_EQ(_log.lines(), QList<QByteArray>{expected}) << job;
    }
    EXPECT_EQ(QDir("/root").entryList(QDir::AllEntries | QDir::NoDotAndDotDot, QDir::Name),
              (QStringList{"config", "data"}));
    EXPECT_TRUE(QDir("/root/data").isEmpty());
}

TEST_P(ThumbnailCategoryTest, AJobThatLeadsOutIsNotEvenRead) {
    writeTestFile(filled(GetParam().dataFile).replace("/mmc/J", "/root/config/J"), recording());
    _manager.setJob("../root/config/J");
    walk();
    ASSERT_EQ(_log.lines().size(), 1);
    EXPECT_TRUE(_log.lines().first().contains("failed to open ")) << _log.lines().first().data();
    EXPECT_TRUE(QDir("/root/data").isEmpty());
}

INSTANTIATE_TEST_SUITE_P(Categories, ThumbnailCategoryTest, testing::ValuesIn(kRows),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace

#include "tests/thumbnails/ThumbnailModel.h"

#include "tests/support/Files.h"
#include "tests/thumbnails/RandomRecordings.h"
#include "tests/thumbnails/ThumbnailFixture.h"

#include <QDir>

#include <algorithm>

namespace {

using SourceWalk = void (ThumbnailManager::*)(const QString& date, const QString& source);

struct Category {
    const char* name;
    SourceWalk append;
    const char* dataFile;
    int fallbackType;
};

const Category kCategories[] = {
    {"gauges", &ThumbnailManager::appendDaySingleGauge, "calcData", 5},
    {"gaugecards", &ThumbnailManager::appendDaySingleGaugeCard, "rawData", 90},
    {"inputs", &ThumbnailManager::appendDaySingleInput, "rawData", 100},
    {"wireless", &ThumbnailManager::appendDaySingleWireless, "rawData", 20},
    {"ostrevin", &ThumbnailManager::appendDaySingleOstrevin, "rawData", 103},
};

/// Every file and every log line as a model has them that takes each step by itself.
class ThumbnailModelTest : public ThumbnailFixture, public testing::WithParamInterface<Category> {
protected:
    static constexpr int kSources = 140;  ///< of each of the five categories
    /// Beyond that, lines of one kind are counted and not written.
    static constexpr int kLinesInASecond = 100;

    ThumbnailModelTest() { useQuickFolders(); }

    /// One day of one source, in the real one and in the model.
    void append(const QByteArray& recording, int day, const QString& source,
                ThumbnailModel& model) {
        const QString date = QString::asprintf("2024-05-%02d", day);
        const QString folder = QStringLiteral("%1/job/%2").arg(kQuickArchive, GetParam().name);
        writeTestFile(
            folder + QStringLiteral("/%1/%2/%3.gdf").arg(date, source, GetParam().dataFile),
            recording);
        _log.clear();
        DebugText::forgetRepeats();
        model.log.clear();
        (_manager.*GetParam().append)(date, source);
        const int count = model.appendDay(recording, day);
        expectSameLog(model, count, day, source);
        const QString path = QStringLiteral("%1/job/%2/thumbnails/2024-05-%3.gdt")
                                 .arg(kQuickRoot, GetParam().name, source);
        const QByteArray none = "(missing)";
        ASSERT_TRUE(isSameFile(readTestFile(path), model.file.value_or(none)));
    }

    void expectSameLog(const ThumbnailModel& model, int count, int day, const QString& source) {
        QList<QByteArray> lines = _log.lines();
        ASSERT_FALSE(lines.isEmpty());
        const QByteArray last = lines.takeLast();
        if (count == ThumbnailModel::kNoSource) {
            EXPECT_TRUE(last.contains(" failed to open ") && last.contains(" file for date "))
                << last.constData();
        } else if (count == ThumbnailModel::kNoThumbnail) {
            EXPECT_TRUE(last.contains(" thumbnail file 2024-05-")) << last.constData();
        } else {
            const QByteArray number = QByteArray::number(count);
            EXPECT_TRUE(last.contains(" added " + number + " records to ")) << last.constData();
            EXPECT_TRUE(
                last.endsWith("-" + source.toUtf8() + " for day " + QByteArray::number(day)));
        }
        if (model.log.size() <= kLinesInASecond) {
            EXPECT_EQ(lines, model.log);
        }
    }
};

TEST_P(ThumbnailModelTest, RandomSourcesOfSeveralDaysInAnyOrder) {
    ASSERT_TRUE(
        QDir().mkpath(QStringLiteral("%1/job/%2/thumbnails").arg(kQuickRoot, GetParam().name)));
    int placed = 0;
    for (int i = 0; i < kSources; ++i) {
        RandomRecordings random(static_cast<unsigned>(1000 * GetParam().fallbackType + i));
        ThumbnailModel model("2024-05", GetParam().fallbackType);
        const int days = random.number(1, 4);
        for (int turn = 0; turn < days; ++turn) {
            const int day = random.oneIn(3) ? random.number(1, 3) : random.number(1, 31);
            const quint32 dayStart = kMonthStart + static_cast<quint32>(day - 1) * 86400;
            const QByteArray recording =
                random.oneIn(6) ? random.noise() : random.day(dayStart, GetParam().fallbackType);
            SCOPED_TRACE("source " + std::to_string(i) + " day " + std::to_string(day));
            const QString source = QStringLiteral("S%1").arg(i);
            ASSERT_NO_FATAL_FAILURE(append(recording, day, source, model));
            const QByteArray once = model.file.value_or(QByteArray());
            ASSERT_NO_FATAL_FAILURE(append(recording, day, source, model)) << "a second time";
            ASSERT_EQ(model.file.value_or(QByteArray()), once) << "which changes nothing";
        }
        const QByteArray file = model.file.value_or(QByteArray());
        placed += file.size() > 80 + 7 * 1024;
        if (HasFailure()) {
            return;
        }
    }
    EXPECT_GT(placed, kSources / 4) << "not all of them can be too strange";
}

INSTANTIATE_TEST_SUITE_P(Categories, ThumbnailModelTest, testing::ValuesIn(kCategories),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace

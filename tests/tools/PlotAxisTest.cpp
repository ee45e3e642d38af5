#include "tools/storagectl/PlotAxis.h"

#include <gtest/gtest.h>
#include <QDateTime>
#include <QStringList>

namespace {

using namespace storagectl;

QStringList labels(const QList<PlotAxis::Mark>& marks) {
    QStringList texts;
    for (const PlotAxis::Mark& mark : marks) {
        texts.append(mark.label);
    }
    return texts;
}

qint64 utc(const char* time) {
    return QDateTime::fromString(QString(time) + 'Z', Qt::ISODate).toSecsSinceEpoch();
}

TEST(PlotAxisTest, ValuesAreRoundAndEncloseWhatIsDrawn) {
    EXPECT_EQ(labels(PlotAxis::valueMarks(7.3, 48.1, 5)), QStringList({"0", "20", "40", "60"}));
    EXPECT_EQ(labels(PlotAxis::valueMarks(-0.3, 0.2, 6)),
              QStringList({"-0.3", "-0.2", "-0.1", "0.0", "0.1", "0.2"}));
    EXPECT_EQ(labels(PlotAxis::valueMarks(0, 1, 3)), QStringList({"0.0", "0.5", "1.0"}));
}

TEST(PlotAxisTest, ASingleValueHasRoomAroundIt) {
    EXPECT_EQ(labels(PlotAxis::valueMarks(0, 0, 3)), QStringList({"-1", "0", "1"}));
    EXPECT_EQ(labels(PlotAxis::valueMarks(50, 50, 3)), QStringList({"45", "50", "55"}));
}

TEST(PlotAxisTest, ExtremeValuesHaveAFewMarksOfFewCharacters) {
    for (const auto& [low, high] : {std::pair(-3.4e38, 3.4e38), std::pair(1e-38, 2e-38),
                                    std::pair(1e9, 1e9 + 1e-3), std::pair(-1.0, 3.4e38)}) {
        const QList<PlotAxis::Mark> marks = PlotAxis::valueMarks(low, high, 5);
        EXPECT_GE(marks.size(), 2);
        EXPECT_LE(marks.size(), 7);
        const double tolerance = (marks.last().at - marks.first().at) * 1e-9;
        EXPECT_LE(marks.first().at, low + tolerance);
        EXPECT_GE(marks.last().at, high - tolerance);
        for (const PlotAxis::Mark& mark : marks) {
            EXPECT_LE(mark.label.size(), 10) << mark.label.toStdString();
        }
    }
}

TEST(PlotAxisTest, TimesAreThoseOfTheZonesClock) {
    const QTimeZone india("Asia/Kolkata");  // +05:30
    EXPECT_EQ(labels(PlotAxis::timeMarks(utc("2024-05-01T00:00:00"), utc("2024-05-01T23:59:59"),
                                         india, 4)),
              QStringList({"06:00", "12:00", "18:00", "00:00"}));
}

TEST(PlotAxisTest, InSpringTheHourThatIsLeftOutHasNoMark) {
    const QTimeZone berlin("Europe/Berlin");
    const QList<PlotAxis::Mark> marks =
        PlotAxis::timeMarks(utc("2024-03-31T00:00:00"), utc("2024-03-31T04:00:00"), berlin, 6);
    EXPECT_EQ(labels(marks), QStringList({"01:00", "03:00", "04:00", "05:00", "06:00"}));
    EXPECT_EQ(marks[1].at - marks[0].at, 3600);
}

TEST(PlotAxisTest, InAutumnTheHourThatComesTwiceHasOneMark) {
    const QTimeZone berlin("Europe/Berlin");
    const QList<PlotAxis::Mark> marks =
        PlotAxis::timeMarks(utc("2024-10-26T23:00:00"), utc("2024-10-27T03:00:00"), berlin, 6);
    EXPECT_EQ(labels(marks), QStringList({"01:00", "02:00", "03:00", "04:00"}));
    EXPECT_EQ(marks[3].at - marks[0].at, 4 * 3600);
}

TEST(PlotAxisTest, LongSpansAreMarkedByDate) {
    EXPECT_EQ(labels(PlotAxis::timeMarks(utc("2024-05-01T00:00:00"), utc("2024-05-31T23:59:59"),
                                         QTimeZone::utc(), 5)),
              QStringList({"05-01", "05-11", "05-21", "05-31"}));
    EXPECT_EQ(labels(PlotAxis::timeMarks(0, 0xFFFFFFFF, QTimeZone::utc(), 3)).first(),
              "1970-01-01");
}

TEST(PlotAxisTest, AStepIsTheShortestThatIsEnough) {
    EXPECT_EQ(PlotAxis::timeStep(86'400, 3000), 30);
    EXPECT_EQ(PlotAxis::timeStep(31 * 86'400, 3000), 900);
    EXPECT_EQ(PlotAxis::timeStep(0, 1), 1);
}

}  // namespace

#include "tools/storagectl/BrailleCanvas.h"
#include "tools/storagectl/SvgPlot.h"
#include "tools/storagectl/TerminalPlot.h"

#include <gtest/gtest.h>
#include <QXmlStreamReader>

#include <cmath>

namespace {

using namespace storagectl;

/// One panel of 30 characters, that is 38 columns of 1 second each from noon on.
Plot smallPlot(bool isThumbnail = false) {
    Plot plot;
    plot.from = 1'714'564'800;
    plot.to = plot.from + TerminalPlot::columnsFor(30) - 1;
    PlotPanel panel;
    panel.source = "flow-1";
    panel.value = "gauge.value";
    panel.isThumbnail = isThumbnail;
    panel.longestStep = 3;
    panel.columns.resize(static_cast<std::size_t>(TerminalPlot::columnsFor(30)));
    plot.panels.append(panel);
    return plot;
}

void add(Plot& plot, std::size_t column, double value) {
    plot.panels[0].columns[column].add(plot.columnTime(static_cast<qint64>(column)), value);
}

QString svgText(const QByteArray& document, const QString& element, int& count) {
    QXmlStreamReader reader(document);
    QString texts;
    count = 0;
    while (!reader.atEnd()) {
        if (reader.readNext() == QXmlStreamReader::StartElement && reader.name() == element) {
            ++count;
            texts += element == "text" ? reader.readElementText() + '\n' : QString();
        }
    }
    EXPECT_FALSE(reader.hasError()) << reader.errorString().toStdString();
    return texts;
}

TEST(PlotDrawingTest, ALineLeadsThroughEveryDotBetween) {
    BrailleCanvas canvas(3, 2);
    canvas.line(0, 7, 5, 0);
    EXPECT_EQ(canvas.row(0), " ⢀⠎");
    EXPECT_EQ(canvas.row(1), "⡰⠁ ");
}

TEST(PlotDrawingTest, DotsOutsideAreNotDrawn) {
    BrailleCanvas canvas(1, 1);
    canvas.line(-5, -5, -1, 9);
    canvas.dot(2, 0);
    canvas.dot(0, 4);
    EXPECT_EQ(canvas.row(0), " ");
}

TEST(PlotDrawingTest, ARampOnTheTerminal) {
    Plot plot = smallPlot();
    for (std::size_t column = 0; column < 38; ++column) {
        add(plot, column, static_cast<double>(column) / 37);
    }
    EXPECT_EQ(TerminalPlot::draw(plot, 30, 4),
              QStringList({"flow-1: gauge.value",  //
                           "        1 ┤              ⢀⡠⠤⠒⠉", "          │         ⢀⡠⠤⠒⠉⠁",
                           "          │    ⢀⣀⠤⠒⠊⠁", "        0 ┤⣀⠤⠒⠊⠁",
                           "          └┬──────────────────", "         12:00",
                           "           2024-05-01T12:00:00+00:00 to 2024-05-01T12:00:37+00:00",
                           "Recorded samples: from the lowest to the highest of each step of "
                           "time."}));
}

TEST(PlotDrawingTest, AGapInTimeIsAGapInTheCurve) {
    Plot plot = smallPlot();
    for (const std::size_t column : {0U, 2U, 20U, 23U, 37U}) {
        add(plot, column, 0.5);
    }
    add(plot, 30, 0);
    add(plot, 30, 1);
    const QStringList lines = TerminalPlot::draw(plot, 30, 2);
    EXPECT_EQ(lines[1], "        1 ┤               ⡇");
    EXPECT_EQ(lines[2], "        0 ┤⠉⠁        ⠉⠉   ⡇  ⠈");
}

TEST(PlotDrawingTest, EveryDrawingOfThumbnailsSaysWhatTheyAre) {
    Plot plot = smallPlot(true);
    add(plot, 0, 1);
    const QString terminal = TerminalPlot::draw(plot, 30, 2).join('\n');
    EXPECT_TRUE(terminal.startsWith("flow-1: gauge.value, first sample of each 15 minutes\n"));
    EXPECT_TRUE(terminal.endsWith(
        "\nThumbnail: the first sample of each 15 minutes, neither mean nor extreme."));
    int count = 0;
    const QString svg = svgText(SvgPlot::draw(plot), "text", count);
    EXPECT_TRUE(svg.contains("first sample of each 15 minutes, neither mean nor extreme."));
    EXPECT_FALSE(svg.contains("mean in"));
    EXPECT_FALSE(svg.contains("The line is their mean"));
}

TEST(PlotDrawingTest, AnSvgOfRecordingsHasABandAndAMeanForEachStretch) {
    Plot plot = smallPlot();
    for (const std::size_t column : {0U, 1U, 2U, 20U, 21U}) {
        add(plot, column, 0);
        add(plot, column, 10);
    }
    const QByteArray document = SvgPlot::draw(plot);
    EXPECT_EQ(document.count("class=\"band\""), 2);
    EXPECT_EQ(document.count("class=\"line\""), 2);
    // From 10 down to 0, the mean in the middle of 30 to 230.
    EXPECT_TRUE(document.contains("d=\"M84.5 30.0 85.5 30.0 86.5 30.0 L86.5 230.0 85.5 230.0 "));
    EXPECT_TRUE(document.contains("d=\"M84.5 130.0 85.5 130.0 86.5 130.0 \""));
    int count = 0;
    EXPECT_TRUE(svgText(document, "text", count).contains("The line is their mean."));
}

TEST(PlotDrawingTest, AnSvgOfThumbnailsHasALineAndNoBand) {
    Plot plot = smallPlot(true);
    add(plot, 5, 1);
    const QByteArray document = SvgPlot::draw(plot);
    EXPECT_EQ(document.count("class=\"band\""), 0);
    EXPECT_EQ(document.count("class=\"line\""), 1);
}

TEST(PlotDrawingTest, HostileNamesLeaveAnSvgWellFormed) {
    Plot plot = smallPlot();
    plot.panels[0].source = QString("</text><script>&\"'") + QChar(0x1B) + QChar(0xFFFE) +
                            QChar(0x202E) + QChar(0xFFFF) + QChar(0);
    add(plot, 5, 1);
    int scripts = 0;
    svgText(SvgPlot::draw(plot), "script", scripts);
    EXPECT_EQ(scripts, 0);
    int count = 0;
    EXPECT_TRUE(svgText(SvgPlot::draw(plot), "text", count).contains("</text><script>&\"'\\x1b"));
}

TEST(PlotDrawingTest, EveryPanelIsDrawn) {
    Plot plot = smallPlot();
    add(plot, 5, 1);
    plot.panels.append(plot.panels[0]);
    plot.panels[1].value = "gauge.status";
    EXPECT_EQ(TerminalPlot::draw(plot, 30, 2).size(), 3 + 3 + 2 + 2);
    int count = 0;
    const QString texts = svgText(SvgPlot::draw(plot), "text", count);
    EXPECT_TRUE(texts.contains("gauge.value\n"));
    EXPECT_TRUE(texts.contains("gauge.status\n"));
}

}  // namespace

#include "tools/storagectl/TerminalPlot.h"

#include "tools/storagectl/BrailleCanvas.h"
#include "tools/storagectl/PlotAxis.h"

#include <sys/ioctl.h>
#include <unistd.h>
#include <cmath>

namespace storagectl::TerminalPlot {

namespace {

using PlotAxis::Mark;

/// Labels of values, a space and the axis.
constexpr int kLabelCharacters = 9;
constexpr int kGutterCharacters = kLabelCharacters + 2;
constexpr int kCharactersATimeMark = 14;
constexpr int kRowsAValueMark = 4;
constexpr int kUsualWidth = 80;
constexpr int kRowsOfOnePanel = 16;
constexpr int kRowsOfEachPanel = 8;

/// Where values stand among the dots.
struct Scale {
    double low;
    double high;
    int height;

    int dotOf(double value) const {
        return static_cast<int>(std::lround((high - value) / (high - low) * (height - 1)));
    }
};

void drawCurve(const PlotPanel& panel, const Scale& scale, BrailleCanvas& canvas) {
    int previous = -1;
    for (int x = 0; x < static_cast<int>(panel.columns.size()); ++x) {
        const PlotColumn& column = panel.columns[static_cast<std::size_t>(x)];
        if (column.samples == 0) {
            continue;
        }
        canvas.line(x, scale.dotOf(column.minimum), x, scale.dotOf(column.maximum));
        if (previous >= 0) {
            const PlotColumn& earlier = panel.columns[static_cast<std::size_t>(previous)];
            if (column.follows(earlier, panel.longestStep)) {
                canvas.line(previous, scale.dotOf(earlier.last), x, scale.dotOf(column.first));
            }
        }
        previous = x;
    }
}

QStringList panelLines(const PlotPanel& panel, int width, int rows) {
    BrailleCanvas canvas(width - kGutterCharacters, rows);
    const QList<Mark> marks = PlotAxis::valueMarks(panel.minimum(), panel.maximum(),
                                                   std::max(2, rows / kRowsAValueMark + 1));
    const Scale scale{marks.first().at, marks.last().at, canvas.height()};
    drawCurve(panel, scale, canvas);
    QStringList labels(rows);
    for (const Mark& mark : marks) {
        labels[scale.dotOf(mark.at) / 4] = mark.label;
    }
    QStringList lines{panel.title()};
    for (int row = 0; row < rows; ++row) {
        const QString axis = labels[row].isEmpty() ? " │" : " ┤";
        lines.append(labels[row].rightJustified(kLabelCharacters) + axis + canvas.row(row));
    }
    return lines;
}

/// The axis with its marks, and their labels below.
QStringList timeLines(const Plot& plot, int width) {
    const int room = width - kGutterCharacters;
    QString axis = QString(kLabelCharacters, ' ') + " └" + QString(room, u'─');
    QString labels(width, ' ');
    qsizetype free = 0;
    for (const Mark& mark :
         PlotAxis::timeMarks(plot.from, plot.to, plot.zone, room / kCharactersATimeMark)) {
        const qint64 column =
            (static_cast<qint64>(mark.at) - plot.from) * room / (plot.to - plot.from + 1);
        const qsizetype at = kGutterCharacters + column;
        axis[at] = u'┬';
        const qsizetype begin = std::min(at - mark.label.size() / 2, width - mark.label.size());
        if (begin >= free) {
            labels.replace(begin, mark.label.size(), mark.label);
            free = begin + mark.label.size() + 1;
        }
    }
    return {axis, labels};
}

}  // namespace

int widthFor(int wanted) {
    if (wanted > 0) {
        return wanted;
    }
    winsize size = {};
    const bool isKnown = ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return isKnown ? qBound(kNarrowest, int{size.ws_col}, kWidest) : kUsualWidth;
}

int rowsFor(qsizetype panels) {
    return panels == 1 ? kRowsOfOnePanel : kRowsOfEachPanel;
}

int columnsFor(int width) {
    return 2 * (width - kGutterCharacters);
}

QStringList draw(const Plot& plot, int width, int rows) {
    QStringList lines;
    for (const PlotPanel& panel : plot.panels) {
        lines += panelLines(panel, width, rows);
    }
    lines += timeLines(plot, width);
    lines.append(QString(kGutterCharacters, ' ') + plot.span());
    lines += plot.captions();
    for (QString& line : lines) {
        while (line.endsWith(' ')) {
            line.chop(1);
        }
    }
    return lines;
}

}  // namespace storagectl::TerminalPlot

#include "tools/storagectl/SvgPlot.h"

#include "tools/storagectl/Output.h"
#include "tools/storagectl/PlotAxis.h"

#include <QXmlStreamWriter>

namespace storagectl::SvgPlot {

namespace {

using PlotAxis::Mark;

constexpr int kLeft = 84;
constexpr int kRight = 24;
constexpr int kWidth = kLeft + kColumns + kRight;
constexpr int kTitleHeight = 30;
constexpr int kCurveHeight = 200;
constexpr int kPanelHeight = kTitleHeight + kCurveHeight + 16;
constexpr int kTimeHeight = 44;
constexpr int kCaptionHeight = 20;
constexpr int kValueMarks = 6;
constexpr int kTimeMarks = 9;

constexpr char kStyle[] =
    "text{font:13px sans-serif;fill:#333}.title{font-weight:bold}.caption{fill:#666}"
    ".grid{stroke:#e2e2e2}.frame{stroke:#999;fill:none}"
    ".band{fill:#2a6fb0;fill-opacity:.3;stroke:none}"
    ".line{stroke:#1d5a96;stroke-width:1.3;fill:none;stroke-linejoin:round}";

/// XML has no way to write some characters, not even escaped.
QString writable(const QString& text) {
    QString result = escaped(text);
    for (QChar& letter : result) {
        const bool isNoCharacter = letter.unicode() >= 0xFFFE;
        letter = isNoCharacter ? QChar(QChar::ReplacementCharacter) : letter;
    }
    return result;
}

QString number(double value) {
    return QString::number(value, 'f', 1);
}

class Drawing {
public:
    explicit Drawing(const Plot& plot) : _plot(plot), _xml(&_bytes) {}

    QByteArray draw() {
        const int height = static_cast<int>(_plot.panels.size()) * kPanelHeight + kTimeHeight +
                           static_cast<int>(_plot.captions().size()) * kCaptionHeight;
        _xml.setAutoFormatting(true);
        _xml.setAutoFormattingIndent(1);
        _xml.writeStartDocument();
        _xml.writeStartElement("svg");
        _xml.writeDefaultNamespace("http://www.w3.org/2000/svg");
        _xml.writeAttribute("width", QString::number(kWidth));
        _xml.writeAttribute("height", QString::number(height));
        _xml.writeAttribute("viewBox", QString("0 0 %1 %2").arg(kWidth).arg(height));
        _xml.writeTextElement("style", kStyle);
        _xml.writeEmptyElement("rect");
        attributes({{"width", "100%"}, {"height", "100%"}, {"fill", "#fff"}});
        for (const PlotPanel& panel : _plot.panels) {
            drawPanel(panel);
            _top += kPanelHeight;
        }
        drawTimes();
        _xml.writeEndDocument();
        return _bytes;
    }

private:
    using Attributes = std::initializer_list<std::pair<const char*, QString>>;

    void attributes(Attributes list) {
        for (const auto& [name, value] : list) {
            _xml.writeAttribute(QLatin1String(name), value);
        }
    }

    void text(double x, double y, const char* anchor, const char* style, const QString& words) {
        _xml.writeStartElement("text");
        attributes({{"x", number(x)}, {"y", number(y)}, {"text-anchor", anchor}});
        if (*style != '\0') {
            attributes({{"class", style}});
        }
        _xml.writeCharacters(writable(words));
        _xml.writeEndElement();
    }

    void path(const char* style, const QString& data) {
        _xml.writeEmptyElement("path");
        attributes({{"class", style}, {"d", data}});
    }

    double xOf(std::size_t column) const { return kLeft + static_cast<double>(column) + 0.5; }
    double yOf(double value) const {
        return _top + kTitleHeight + (_high - value) / (_high - _low) * kCurveHeight;
    }

    void drawPanel(const PlotPanel& panel) {
        const QList<Mark> marks =
            PlotAxis::valueMarks(panel.minimum(), panel.maximum(), kValueMarks);
        _low = marks.first().at;
        _high = marks.last().at;
        text(kLeft, _top + kTitleHeight - 10, "start", "title", panel.title());
        for (const Mark& mark : marks) {
            path("grid", QString("M%1 %2h%3").arg(kLeft).arg(number(yOf(mark.at))).arg(kColumns));
            text(kLeft - 8, yOf(mark.at) + 4, "end", "", mark.label);
        }
        for (const Mark& mark : timeMarks()) {
            path("grid", QString("M%1 %2v%3")
                             .arg(number(xOfTime(mark.at)))
                             .arg(_top + kTitleHeight)
                             .arg(kCurveHeight));
        }
        if (!panel.isThumbnail) {
            drawBand(panel);
        }
        drawLine(panel);
        path("frame", QString("M%1 %2h%3v%4h-%3z")
                          .arg(kLeft)
                          .arg(_top + kTitleHeight)
                          .arg(kColumns)
                          .arg(kCurveHeight));
    }

    /// Stretches of columns between which there is no gap.
    QList<QList<std::size_t>> stretches(const PlotPanel& panel) const {
        QList<QList<std::size_t>> result;
        const PlotColumn* earlier = nullptr;
        for (std::size_t i = 0; i < panel.columns.size(); ++i) {
            const PlotColumn& column = panel.columns[i];
            if (column.samples == 0) {
                continue;
            }
            if (earlier == nullptr || !column.follows(*earlier, panel.longestStep)) {
                result.append(QList<std::size_t>());
            }
            result.last().append(i);
            earlier = &column;
        }
        return result;
    }

    QString point(double x, double y) const { return number(x) + ' ' + number(y) + ' '; }

    void drawBand(const PlotPanel& panel) {
        for (const QList<std::size_t>& stretch : stretches(panel)) {
            QString upper;
            QString lower;
            for (const std::size_t i : stretch) {
                upper += point(xOf(i), yOf(panel.columns[i].maximum));
                lower.prepend(point(xOf(i), yOf(panel.columns[i].minimum)));
            }
            path("band", 'M' + upper + 'L' + lower + 'Z');
        }
    }

    void drawLine(const PlotPanel& panel) {
        for (const QList<std::size_t>& stretch : stretches(panel)) {
            QString line;
            for (const std::size_t i : stretch) {
                const PlotColumn& column = panel.columns[i];
                const double x = xOf(i);
                line += panel.isThumbnail
                            ? point(x, yOf(column.first)) + point(x, yOf(column.minimum)) +
                                  point(x, yOf(column.maximum)) + point(x, yOf(column.last))
                            : point(x, yOf(column.mean()));
            }
            // A single point has no length to be seen by.
            path("line", 'M' + line + (stretch.size() == 1 ? "h1" : ""));
        }
    }

    QList<Mark> timeMarks() const {
        return PlotAxis::timeMarks(_plot.from, _plot.to, _plot.zone, kTimeMarks);
    }
    double xOfTime(double time) const {
        return kLeft + (time - static_cast<double>(_plot.from)) /
                           static_cast<double>(_plot.to - _plot.from + 1) * kColumns;
    }

    void drawTimes() {
        for (const Mark& mark : timeMarks()) {
            text(xOfTime(mark.at), _top + 4, "middle", "", mark.label);
        }
        text(kLeft, _top + 26, "start", "caption", _plot.span());
        double y = _top + kTimeHeight;
        for (const QString& caption : _plot.captions()) {
            const bool hasMean = caption != QLatin1String(kThumbnailCaption);
            text(kLeft, y, "start", "caption",
                 caption + (hasMean ? " The line is their mean." : ""));
            y += kCaptionHeight;
        }
    }

    const Plot& _plot;
    QByteArray _bytes;
    QXmlStreamWriter _xml;
    double _top = 0;
    double _low = 0;  ///< the ends of the panel's axis
    double _high = 1;
};

}  // namespace

QByteArray draw(const Plot& plot) {
    return Drawing(plot).draw();
}

}  // namespace storagectl::SvgPlot

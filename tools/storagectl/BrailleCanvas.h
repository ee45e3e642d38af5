#pragma once

#include <QString>

#include <vector>

namespace storagectl {

/// Dots in braille characters, each 2 dots wide and 4 high; (0, 0) is at the top left.
class BrailleCanvas {
public:
    BrailleCanvas(int characters, int rows);

    int width() const { return 2 * _characters; }
    int height() const { return 4 * _rows; }

    /// A dot outside is not drawn.
    void dot(int x, int y);
    void line(int x0, int y0, int x1, int y1);
    /// A row's characters, a space where there is no dot.
    QString row(int row) const;

private:
    int _characters;
    int _rows;
    std::vector<quint8> _cells;
};

}  // namespace storagectl

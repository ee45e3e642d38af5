#include "tools/storagectl/BrailleCanvas.h"

#include <algorithm>
#include <cstdlib>

namespace storagectl {

namespace {

constexpr char16_t kBrailleBegin = 0x2800;
/// Bits of the dots of one character, by column and row.
constexpr quint8 kDots[2][4] = {{0x01, 0x02, 0x04, 0x40}, {0x08, 0x10, 0x20, 0x80}};

}  // namespace

BrailleCanvas::BrailleCanvas(int characters, int rows)
    : _characters(characters),
      _rows(rows),
      _cells(static_cast<std::size_t>(characters) * static_cast<std::size_t>(rows)) {}

void BrailleCanvas::dot(int x, int y) {
    if (x >= 0 && x < width() && y >= 0 && y < height()) {
        _cells[static_cast<std::size_t>(y / 4 * _characters + x / 2)] |= kDots[x % 2][y % 4];
    }
}

void BrailleCanvas::line(int x0, int y0, int x1, int y1) {
    const int steps = std::max({std::abs(x1 - x0), std::abs(y1 - y0), 1});
    const auto between = [steps](int from, int to, int step) {
        const int twice = 2 * (to - from) * step;
        return from + (twice + (twice < 0 ? -steps : steps)) / (2 * steps);
    };
    for (int step = 0; step <= steps; ++step) {
        dot(between(x0, x1, step), between(y0, y1, step));
    }
}

QString BrailleCanvas::row(int row) const {
    QString text;
    for (int i = 0; i < _characters; ++i) {
        const quint8 dots = _cells[static_cast<std::size_t>(row * _characters + i)];
        text += dots == 0 ? QChar(' ') : QChar(char16_t(kBrailleBegin + dots));
    }
    return text;
}

}  // namespace storagectl

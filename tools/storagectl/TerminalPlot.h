#pragma once

#include "tools/storagectl/Plot.h"

#include <QStringList>

namespace storagectl::TerminalPlot {

inline constexpr int kNarrowest = 30;
inline constexpr int kWidest = 1000;

/// The width asked for, or where that is 0 the terminal's.
int widthFor(int wanted);
/// Rows for each of so many panels.
int rowsFor(qsizetype panels);

/// Columns that a plot of `width` characters wants.
int columnsFor(int width);

/// A plot in braille characters, one panel above the other over one time axis, with captions: at
/// most `width` characters wide, `rows` for each panel. REQUIRES: `columnsFor(width)` columns.
QStringList draw(const Plot& plot, int width, int rows);

}  // namespace storagectl::TerminalPlot

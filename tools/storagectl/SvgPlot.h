#pragma once

#include "tools/storagectl/Plot.h"

namespace storagectl::SvgPlot {

/// Columns that a drawing wants: one a pixel.
inline constexpr int kColumns = 860;

/// A plot as an SVG document, one panel above the other over one time axis, with captions.
/// Thumbnails are a line; recordings are a band from lowest to highest with their mean in it.
QByteArray draw(const Plot& plot);

}  // namespace storagectl::SvgPlot

#pragma once

#include "tools/storagectl/PlotSources.h"

namespace storagectl {

class Output;

/// Writes what a plot would draw as CSV, or with --json as objects: of thumbnails every sample,
/// under "first"; of recordings minimum, maximum, mean and number of samples of equal steps of
/// time, at most some thousands.
void writePlotRows(Output& output, const PlotSources& sources, qint64 from, qint64 to,
                   const QTimeZone& zone);

}  // namespace storagectl

#include "thumbnails/ThumbnailCategories.h"

namespace ThumbnailCategories {

const ThumbnailCategory kGauges = {
    .thumbnailFolder = "%1/%2/gauges/thumbnails",
    .dayFolder = "%1/%2/gauges/%3/",
    .dataFile = "%1/%2/gauges/%3/%4/calcData.gdf",
    .thumbnailFile = "%1/%2/gauges/thumbnails/%3-%4.gdt",
    .fallbackType = 5,
    .invalidDate = "appendDaySingleGauge passed invalid date string \"%s\"",
    .noDataFile = "appendDaySingleGauge failed to open gauge file for date %s, gauge %s",
    .noThumbnail = "appendDaySingleGauge failed to open gauge thumbnail file %s-%s",
    .done = "appendDaySingleGauge added %d records to gauge thumbnail file %s-%s for day %d",
};

const ThumbnailCategory kGaugeCards = {
    .thumbnailFolder = "%1/%2/gaugecards/thumbnails",
    .dayFolder = "%1/%2/gaugecards/%3/",
    .dataFile = "%1/%2/gaugecards/%3/%4/rawData.gdf",
    .thumbnailFile = "%1/%2/gaugecards/thumbnails/%3-%4.gdt",
    .fallbackType = 90,
    .invalidDate = "appendDaySingleGaugeCard passed invalid date string \"%s\"",
    .noDataFile = "appendDaySingleGaugeCard failed to open gaugecard file for date %s, gauge %s",
    .noThumbnail = "appendDaySingleGaugeCard failed to open gaugecard thumbnail file %s-%s",
    .done =
        "appendDaySingleGaugeCard added %d records to gaugecard thumbnail file %s-%s for day %d",
};

const ThumbnailCategory kInputs = {
    .thumbnailFolder = "%1/%2/inputs/thumbnails",
    .dayFolder = "%1/%2/inputs/%3/",
    .dataFile = "%1/%2/inputs/%3/%4/rawData.gdf",
    .thumbnailFile = "%1/%2/inputs/thumbnails/%3-%4.gdt",
    .fallbackType = 100,
    .invalidDate = "appendDaySingleInput passed invalid date string \"%s\"",
    .noDataFile = "appendDaySingleInput failed to open input file for date %s, input %s",
    .noThumbnail = "appendDaySingleInput failed to open input thumbnail file %s-%s",
    .done = "appendDaySingleInput added %d records to input thumbnail file %s-%s for day %d",
};

const ThumbnailCategory kWireless = {
    .thumbnailFolder = "%1/%2/wireless/thumbnails",
    .dayFolder = "%1/%2/wireless/%3/",
    .dataFile = "%1/%2/wireless/%3/%4/rawData.gdf",
    .thumbnailFile = "%1/%2/wireless/thumbnails/%3-%4.gdt",
    .fallbackType = 20,
    .invalidDate = "appendDaySingleWireless passed invalid date string \"%s\"",
    .noDataFile = "appendDaySingleWireless failed to open wireless file for date %s, wireless %s",
    .noThumbnail = "appendDaySingleWireless failed to open wireless thumbnail file %s-%s",
    .done = "appendDaySingleWireless added %d records to wireless thumbnail file %s-%s for day %d",
};

const ThumbnailCategory kOstrevin = {
    .thumbnailFolder = "%1/%2/ostrevin/thumbnails",
    .dayFolder = "%1/%2/ostrevin/%3/",
    .dataFile = "%1/%2/ostrevin/%3/%4/rawData.gdf",
    .thumbnailFile = "%1/%2/ostrevin/thumbnails/%3-%4.gdt",
    .fallbackType = 103,
    .invalidDate = "appendDaySingleOstrevin passed invalid date string \"%s\"",
    .noDataFile = "appendDaySingleOstrevin failed to open ostrevin file for date %s, ostrevin %s",
    .noThumbnail = "appendDaySingleOstrevin failed to open ostrevin thumbnail file %s-%s",
    .done = "appendDaySingleOstrevin added %d records to ostrevin thumbnail file %s-%s for day %d",
};

// KEPT: two of its messages carry another operation's name; whoever reads logs looks for them so.
const ThumbnailCategory kSystem = {
    .thumbnailFolder = "%1/%2/system/thumbnails",
    .dayFolder = nullptr,
    .dataFile = "%1/%2/system/%3/systemData.gdf",
    .thumbnailFile = "%1/%2/system/thumbnails/%3.gdt",
    .fallbackType = 255,
    .invalidDate = "appendDaySystem passed invalid date string \"%s\"",
    .noDataFile = "appendDaySystem failed to open system file for date %s (filename \"%s\")",
    .noThumbnail = "appendDaySingleInput failed to open thumbnail file %s for system",
    .done = "appendDaySingleInput added %d records to system thumbnail file %s for day %d",
};

}  // namespace ThumbnailCategories

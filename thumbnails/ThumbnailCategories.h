#pragma once

/// What tells the six categories of data sources apart. In the paths %1 is the root folder or
/// the archive folder, %2 the job, %3 the date (the month in `thumbnailFile`), %4 the source.
struct ThumbnailCategory {
    const char* thumbnailFolder;
    const char* dayFolder;  ///< holds a folder a source; null where there is one source only
    const char* dataFile;
    const char* thumbnailFile;
    /// The record code for a data file that describes no types, or more than 7.
    int fallbackType;

    const char* invalidDate;  ///< %s date
    const char* noDataFile;   ///< %s date, %s source (without sources: the data file's path)
    const char* noThumbnail;  ///< %s month, %s source (without sources: the month alone)
    const char* done;         ///< %d records, %s month, %s source (if there are any), %d day

    bool hasSources() const { return dayFolder != nullptr; }
};

namespace ThumbnailCategories {

extern const ThumbnailCategory kGauges;
extern const ThumbnailCategory kGaugeCards;
extern const ThumbnailCategory kInputs;
extern const ThumbnailCategory kWireless;
extern const ThumbnailCategory kOstrevin;
extern const ThumbnailCategory kSystem;

}  // namespace ThumbnailCategories

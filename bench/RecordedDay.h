#pragma once

#include <QByteArray>
#include <QString>

#include <cstdint>

/// A day's data file at one sample a second, as the benchmarks of all readers use it: of a gauge,
/// 86,400 records of 10 bytes, each after a 2-byte time step.
namespace RecordedDay {

inline constexpr int kSamples = 86400;
inline constexpr int kHeaderBytes = 1104;
inline constexpr int kMinutes = 30;
inline constexpr int kSlotBytes = 15;  ///< of a thumbnail of it

/// Midnight (UTC) of a date "yyyy-MM-dd", in seconds since 1970.
std::uint32_t midnight(const QString& date);

/// What is recorded each second, as the header describes it.
struct Kind {
    const char* name;
    char type;
    int recordBytes;
};
inline constexpr Kind kGauge{"gauge", 5, 10};
inline constexpr Kind kGaugeCard{"gaugecard", 90, 13};
inline constexpr Kind kSystem{"system", static_cast<char>(255), 18};

/// Writes the file, with the folders on the way. `repeats` makes it longer: so many times the same
/// day, one after the other. Throws where that fails.
void write(const QString& path, const QString& date, int repeats = 1, const Kind& kind = kGauge);

/// The same reduction to a thumbnail by the shortest way: a loop over 64 KB blocks that knows this
/// file's record lengths, and one write a slot. The thumbnail file exists. Returns the samples that
/// it wrote; throws where a file cannot be read or written.
int bareThumbnail(const char* dataFile, const char* thumbnailFile, const QString& date,
                  bool isSynced);

/// The same loop for a lookup: the first sample of each of `kMinutes` minutes from `start` on.
/// Returns how many it has put into `values`.
int bareLookup(const char* dataFile, std::uint32_t start, float* values);

}  // namespace RecordedDay

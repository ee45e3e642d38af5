#pragma once

#include <QByteArray>
#include <QString>

#include <cstdint>

/// A day's data file of one gauge at one sample a second, as the benchmarks of all readers use
/// it: 86,400 records of 10 bytes, each after a 2-byte time step.
namespace RecordedDay {

inline constexpr int kSamples = 86400;
inline constexpr int kHeaderBytes = 1104;
inline constexpr int kSlotBytes = 15;  ///< of a thumbnail of it

/// Midnight (UTC) of a date "yyyy-MM-dd", in seconds since 1970.
std::uint32_t midnight(const QString& date);

/// The file's bytes. `repeats` makes it longer: so many times the same day, one after the other.
QByteArray bytes(const QString& date, int repeats = 1);

/// Writes them, with the folders on the way. Throws where that fails.
void write(const QString& path, const QString& date, int repeats = 1);

/// The same reduction to a thumbnail by the shortest way: a loop over 64 KB blocks that knows this
/// file's record lengths, and one write a slot. The thumbnail file exists. Returns the samples that
/// it wrote; throws where a file cannot be read or written.
int bareThumbnail(const char* dataFile, const char* thumbnailFile, const QString& date,
                  bool isSynced);

}  // namespace RecordedDay

#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// What a unit has recorded, as bytes of its data files, put together apart from the code that
/// reads them.
namespace recordings {

/// 2024-05-01 00:00:00 UTC.
inline constexpr std::int32_t kMay = 1714521600;
inline constexpr std::int32_t kDaySeconds = 86400;

/// A header of 80 bytes that describes no record types: version 2, no source name.
std::string header(std::int32_t created);
std::string absoluteTime(std::int32_t time);
/// At most 255.
std::string shortStep(int seconds);
std::string floatBytes(float value);
/// `count` of them from `first` on, `step` apart.
std::string floats(float first, int count, float step = 1);
/// A gauge's record: two values and a status.
std::string gauge(float first, float second, char status);

/// A day's file of a gauge with a record every `step` seconds from `start` on, the n-th of the
/// values `first` + n and -(`first` + n) and the status n.
std::string gaugeDay(std::int32_t start, int step, int records, float first = 0);

/// Where the gauge g1 of the archive well7 has its days in May, on the card, and its thumbnails.
std::string wellDayFile(int day);
std::string wellThumbnailFile();
/// A file with one record at 01:00 of that day, and what such days leave in the month's
/// thumbnails: blocks of one slot.
std::string wellDay(int day);
std::string wellThumbnails(const std::vector<int>& days);

}  // namespace recordings

#pragma once

#include <QMap>
#include <QString>

/// Where things stand in a thumbnail file: after the header, one block for each 15 minutes of the
/// month, and in it one slot for each record type: the byte 1, the record's time, the record.
/// Pure arithmetic.
namespace ThumbnailLayout {

inline constexpr unsigned kIntervalSeconds = 900;
inline constexpr unsigned kDaySeconds = 86400;
/// What a slot has in front of its record: a time record.
inline constexpr int kSlotHeadBytes = 5;
/// Record types whose slot would have this many bytes or more get none.
inline constexpr int kSlotLimitBytes = 125;
/// More than a hundred days (a date's day has two digits) of the longest blocks need. A day "00"
/// has no blocks: its time lies before the month, and the number of its interval wraps round.
inline constexpr qint64 kMaximumFileBytes = 16 * 1024 * 1024;

/// The slot map has, for each record type with a slot, its length under `type` and its offset in
/// the block under `-type`, and the length of a block under this key.
/// KEPT: for type 100 that is one key for two things, and the block's length wins, so its records
/// stand where the next block begins. Files already written rely on it.
inline constexpr int kStrideKey = -100;

/// From a header in memory. `fallbackType` gets the only slot where the header states no
/// record types, or more than 7.
QMap<int, int> slotMap(const char* header, int headerSize, int fallbackType);

/// The first second of a month "yyyy-MM" in UTC, in seconds since 1970; 0 for no such month.
unsigned monthStart(const QString& month);

/// The number of the 15 minutes of the month in which `time` lies.
inline unsigned interval(unsigned time, unsigned monthStart) {
    return (time - monthStart) / kIntervalSeconds;
}

/// Whether `time` lies in the day with this index, from 0.
inline bool isInDay(unsigned time, int dayIndex, unsigned monthStart) {
    return time - (static_cast<unsigned>(dayIndex) * kDaySeconds + monthStart) < kDaySeconds;
}

/// Where a type's slot of an interval begins in the file. REQUIRES: the type has a slot.
qint64 slotOffset(const QMap<int, int>& slotMap, int headerSize, unsigned interval, int type);

}  // namespace ThumbnailLayout

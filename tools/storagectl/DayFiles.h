#pragma once

#include <QByteArray>
#include <QByteArrayList>

namespace storagectl {

/// Where the recordings of a day lie, of the source and for the month that a thumbnail file is
/// named by.
class DayFiles {
public:
    /// "ROOT/JOB/CATEGORY/thumbnails/yyyy-MM-SOURCE.gdt", or "yyyy-MM.gdt" in "system".
    explicit DayFiles(const QByteArray& thumbnailPath);

    /// False where the path is not named like a thumbnail file.
    bool isValid() const { return !_month.isEmpty(); }
    const QByteArray& month() const { return _month; }
    /// "flow-1", or "system".
    QByteArray source() const { return _source.isEmpty() ? _category : _source; }
    int days() const { return _days; }
    /// Where a day (from 1) may lie, the likeliest place first: a root named "data" has its card
    /// in "mmc" beside it, and "/root/data" in "/mmc".
    QByteArrayList candidates(int day) const;

private:
    QByteArrayList _roots;
    QByteArray _job;
    QByteArray _category;
    QByteArray _month;
    QByteArray _source;
    int _days = 0;
};

}  // namespace storagectl

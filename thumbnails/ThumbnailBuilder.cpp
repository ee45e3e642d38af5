#include "core/shared/PutInPlace.h"
#include "core/shared/RegularFile.h"
#include "datafile/DataFile.h"
#include "datafile/MemoryCache.h"
#include "datafile/RecordTime.h"
#include "thumbnails/ThumbnailLayout.h"
#include "thumbnails/ThumbnailManager.h"

#include <array>
#include <cstring>

#include <unistd.h>

using namespace DataFileFormat;

namespace {

constexpr int kBlockBytes = 65536;
/// Taken instead of a header's length that cannot be: one described type.
constexpr int kAssumedHeaderBytes = kFixedHeaderBytes + kDescriptorBytes;
/// A step back by more than this begins a new interval, as one forward by an interval does.
constexpr quint32 kLongStepBackSeconds = 60 * ThumbnailLayout::kDaySeconds;
/// The largest a slot can be.
constexpr int kMaximumSlotBytes = kMaximumRecordBytes + ThumbnailLayout::kSlotHeadBytes;

int usableHeaderSize(quint32 stated) {
    if (stated > kMaximumHeaderBytes) {
        DebugText::plain("Weird header size: %d", static_cast<int>(stated));
        return kAssumedHeaderBytes;
    }
    return static_cast<int>(stated);
}

/// What a record of each type is to the walk of a day.
enum class Role : quint8 { None, Time, Wanted, HadInThisInterval };

class Roles {
public:
    explicit Roles(const QMap<int, int>& slotMap) {
        for (int type = kAbsoluteTime; type <= kTimeStep; ++type) {
            _roles[type] = Role::Time;
        }
        for (auto slot = slotMap.upperBound(0); slot != slotMap.end(); ++slot) {
            if (slot.key() < kMaximumRecordBytes) {
                _slots.append(slot.key());
                _roles[slot.key()] = Role::HadInThisInterval;
            }
        }
    }

    Role of(int type) const { return _roles[type]; }
    void noteHad(int type) { _roles[type] = Role::HadInThisInterval; }
    void beginInterval() {
        for (const int type : _slots) {
            _roles[type] = Role::Wanted;
        }
    }

private:
    std::array<Role, kMaximumRecordBytes> _roles{};
    QList<int> _slots;
};

/// Intervals are anchored at the time that opened them, not at multiples of 15 minutes.
class Interval {
public:
    bool isBegunBy(quint32 time) {
        const bool isLongForward = time - _start >= ThumbnailLayout::kIntervalSeconds;
        const bool isInside = _start - time <= kLongStepBackSeconds;
        if (_start != 0 && (!isLongForward || isInside)) {
            return false;
        }
        _start = time;
        return true;
    }

private:
    quint32 _start = 0;
};

/// What lies between the file's end and `offset` becomes zeros, which read as empty records.
bool moveTo(QFile& thumb, qint64 offset) {
    if (offset > ThumbnailLayout::kMaximumFileBytes) {
        return false;
    }
    return (thumb.size() >= offset || thumb.resize(offset)) && thumb.seek(offset);
}

}  // namespace

bool ThumbnailManager::appendDayOpenThumb(const QString& month, DataFile& source, QFile& thumb,
                                          int& headerSize, int fallbackType,
                                          QMap<int, int>& slotMap) {
    QByteArray header;
    if (!(thumb.exists() ? openThumb(thumb, header) : createThumb(month, source, thumb, header))) {
        return false;
    }
    headerSize = static_cast<int>(header.size());
    slotMap = ThumbnailLayout::slotMap(header.constData(), headerSize, fallbackType);
    return true;
}

bool ThumbnailManager::createThumb(const QString& month, const DataFile& source, QFile& thumb,
                                   QByteArray& header) {
    // Beside its place until its header is whole, so that a full disk or a sudden end leaves no
    // thumbnail file that nobody can read.
    const QByteArray place = QFile::encodeName(thumb.fileName());
    const QByteArray beside = place + ".new";
    QFile made;
    if (!RegularFile::open(made, QFile::decodeName(beside),
                           QIODevice::WriteOnly | QIODevice::Truncate)) {
        DebugText::send(_debug, "failed to create thumbnail file!");
        return false;
    }
    header =
        QByteArray(source.header(), usableHeaderSize(static_cast<quint32>(source.headerSize())));
    setField(header.data(), kCreatedOffset, ThumbnailLayout::monthStart(month));
    if (made.write(header) < header.size() || !putInPlace(made.handle(), beside, place)) {
        DebugText::send(_debug, "failed to write thumbnail file!");
        ::unlink(beside.constData());
        return false;
    }
    return openInPlace(thumb) && thumb.seek(header.size());
}

bool ThumbnailManager::openInPlace(QFile& thumb) {
    if (!RegularFile::openNamed(thumb, QIODevice::ReadWrite | QIODevice::ExistingOnly)) {
        DebugText::send(_debug, "failed to open thumbnail file!");
        return false;
    }
    return true;
}

bool ThumbnailManager::openThumb(QFile& thumb, QByteArray& header) {
    if (!openInPlace(thumb)) {
        return false;
    }
    header = thumb.read(kFixedHeaderBytes);
    if (header.size() < kFixedHeaderBytes) {
        DebugText::send(_debug, "failed to read thumbnail file!");
        return false;
    }
    const int size = usableHeaderSize(field(header.constData(), kHeaderSizeOffset));
    if (size > kFixedHeaderBytes) {
        header += thumb.read(size - kFixedHeaderBytes);
    }
    if (header.size() != size) {
        DebugText::plain("Failed to read remaining header contents");
        return false;
    }
    return true;
}

int ThumbnailManager::appendDayWorker(int headerSize, const QMap<int, int>& slotMap, int dayIndex,
                                      unsigned monthStart, DataFile& source, QFile& thumb) {
    int position = static_cast<int>(thumb.pos());
    source.pushLocation();
    if (!source.seekToFirstRecord()) {
        DebugText::send(_debug, "FAILED TO SEEK TO FIRST RECORD!");
        source.popLocation();
        return 0;
    }
    Roles roles(slotMap);
    Interval interval;
    quint32 time = field(source.header(), kCreatedOffset);
    int count = 0;
    const auto visit = [&](const char* record, int type, int length) {
        const Role role = roles.of(type);
        if (role == Role::Time) {
            time = RecordTime::after(record, time);
            if (interval.isBegunBy(time)) {
                roles.beginInterval();
            }
        } else if (role == Role::Wanted) {
            roles.noteHad(type);
            // The slot may be longer than the record, and what follows here is the next one.
            char alone[kMaximumRecordBytes] = {};
            std::memcpy(alone, record, static_cast<std::size_t>(length));
            writeThumbRecord(thumb, position, headerSize, slotMap, dayIndex, monthStart, time, type,
                             alone);
            ++count;
        }
        return true;
    };
    void* const buffer = g_memoryCache->acquireBuffer(kBlockBytes);
    source.stream(static_cast<char*>(buffer), kBlockBytes).forEach(visit);
    g_memoryCache->releaseBuffer(buffer);
    source.popLocation();
    return count;
}

bool ThumbnailManager::writeThumbRecord(QFile& thumb, int& position, int headerSize,
                                        const QMap<int, int>& slotMap, int dayIndex,
                                        unsigned monthStart, unsigned time, int type,
                                        const char* record) {
    const unsigned interval = ThumbnailLayout::interval(time, monthStart);
    const int length = slotMap.value(type);
    if (length < ThumbnailLayout::kSlotHeadBytes || length > kMaximumSlotBytes) {
        return false;
    }
    const qint64 offset = ThumbnailLayout::slotOffset(slotMap, headerSize, interval, type);
    if (!ThumbnailLayout::isInDay(time, dayIndex, monthStart)) {
        DebugText::send(_debug,
                        "writeThumbRecord() timestamp is not in this day! %d (ri %d, ts %d, sf %d, "
                        "ts-df %d)",
                        static_cast<int>(offset), static_cast<int>(interval),
                        static_cast<int>(time), static_cast<int>(monthStart),
                        static_cast<int>(time - monthStart));
        return false;
    }
    if (position != offset) {
        if (!moveTo(thumb, offset)) {
            DebugText::send(_debug, "Failed to seek in thumbnail file!");
            return false;
        }
        position = static_cast<int>(offset);
    }
    char slot[kMaximumSlotBytes];
    slot[0] = kAbsoluteTime;
    qToLittleEndian(time, slot + 1);
    std::memcpy(slot + ThumbnailLayout::kSlotHeadBytes, record,
                static_cast<std::size_t>(length - ThumbnailLayout::kSlotHeadBytes));
    const bool isWhole = thumb.write(slot, length) == length;
    position = static_cast<int>(thumb.pos());
    if (!isWhole) {
        DebugText::send(_debug, "writeThumbRecord() failed to write record!");
    }
    return isWhole;
}

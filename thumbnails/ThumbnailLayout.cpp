#include "thumbnails/ThumbnailLayout.h"

#include "datafile/DataFile.h"

#include <QDateTime>

using namespace DataFileFormat;

namespace ThumbnailLayout {

namespace {

constexpr quint32 kMaximumTypes = 7;
/// An input record that is described as shorter than this has the device's own length.
constexpr int kInputLengthBytes = 20;

int builtInSlot(int type) {
    return 1 + DataFile::getRecordTypeLength(1, type) + kSlotHeadBytes;
}

class Builder {
public:
    void add(int type, int slotLength) {
        _map[type] = slotLength;
        _map[-type] = _blockLength;
        _blockLength += slotLength;
    }

    QMap<int, int> finished() {
        _map[kStrideKey] = _blockLength;
        return _map;
    }

private:
    QMap<int, int> _map;
    int _blockLength = 0;
};

}  // namespace

QMap<int, int> slotMap(const char* header, int headerSize, int fallbackType) {
    Builder builder;
    const quint32 stated = statedTypes(header);
    if (stated == 0 || stated > kMaximumTypes) {
        builder.add(fallbackType, builtInSlot(fallbackType));
        return builder.finished();
    }
    for (int i = 0; i < describedTypes(header, headerSize); ++i) {
        const int type = byteAt(descriptor(header, i), kTypeOffset);
        const int length = byteAt(descriptor(header, i), kLengthOffset);
        if (type == kInputRecord && length < kInputLengthBytes) {
            builder.add(type, builtInSlot(type));
        } else if (length + kSlotHeadBytes < kSlotLimitBytes) {
            builder.add(type, length + kSlotHeadBytes);
        }
    }
    return builder.finished();
}

unsigned monthStart(const QString& month) {
    const QDate first(month.left(4).toInt(), month.mid(5, 2).toInt(), 1);
    return first.isValid()
               ? static_cast<unsigned>(QDateTime(first, QTime(0, 0), Qt::UTC).toSecsSinceEpoch())
               : 0;
}

qint64 slotOffset(const QMap<int, int>& slotMap, int headerSize, unsigned interval, int type) {
    return static_cast<qint64>(interval) * slotMap.value(kStrideKey) + headerSize +
           slotMap.value(-type);
}

}  // namespace ThumbnailLayout

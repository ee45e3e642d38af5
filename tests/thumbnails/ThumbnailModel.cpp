#include "tests/thumbnails/ThumbnailModel.h"

#include "tests/support/DataFileBytes.h"
#include "tests/support/PlainRecordReader.h"

#include <algorithm>
#include <ctime>

using namespace DataFileBytes;

namespace {

int byteAt(const QByteArray& bytes, qint64 offset) {
    return static_cast<quint8>(bytes.at(offset));
}

quint32 fieldAt(const QByteArray& bytes, qint64 offset) {
    quint32 value = 0;
    for (int i = 3; i >= 0; --i) {
        value = value << 8 | static_cast<quint32>(byteAt(bytes, offset + i));
    }
    return value;
}

quint32 timeAfter(const QByteArray& record, quint32 current) {
    const int type = byteAt(record, 0);
    if (type == 1) {
        return fieldAt(record, 1);
    }
    if (type == 2) {
        return current + static_cast<quint32>(byteAt(record, 1));
    }
    const int step = byteAt(record, 1) + 256 * byteAt(record, 2);
    return current + static_cast<quint32>(step < 32768 ? step : step - 65536);
}

quint32 firstSecond(const QByteArray& month) {
    std::tm time = {};
    time.tm_year = month.left(4).toInt() - 1900;
    time.tm_mon = month.mid(5, 2).toInt() - 1;
    time.tm_mday = 1;
    return static_cast<quint32>(timegm(&time));
}

}  // namespace

ThumbnailModel::ThumbnailModel(const QByteArray& month, int fallbackType)
    : _monthStart(firstSecond(month)), _fallbackType(fallbackType) {}

int ThumbnailModel::appendDay(const QByteArray& source, int day) {
    if (!isOpenable(source)) {
        return kNoSource;
    }
    if (!openThumbnail(source)) {
        return kNoThumbnail;
    }
    makeSlots();
    return walk(source, day - 1);
}

bool ThumbnailModel::isOpenable(const QByteArray& source) {
    if (source.size() < 80) {
        log += "Data file is smaller than a valid header size!";
        return false;
    }
    const quint32 size = fieldAt(source, 8);
    return size >= 80 && size <= 8192 && size <= static_cast<quint64>(source.size());
}

int ThumbnailModel::headerSize(const QByteArray& header) {
    const quint32 size = fieldAt(header, 8);
    if (size <= 8192) {
        return static_cast<int>(size);
    }
    log += "Weird header size: " + QByteArray::number(static_cast<int>(size));
    return 1104;
}

bool ThumbnailModel::openThumbnail(const QByteArray& source) {
    if (!file) {
        _header = source.left(headerSize(source));
        setField(_header, 4, _monthStart);
        file = _header;
        return true;
    }
    if (file->size() < 80) {
        log += "ThumbnailManager: failed to read thumbnail file!";
        return false;
    }
    const int size = headerSize(*file);
    if (size < 80 || file->size() < size) {
        log += "Failed to read remaining header contents";
        return false;
    }
    _header = file->left(size);
    return true;
}

void ThumbnailModel::makeSlots() {
    _slots.clear();
    int running = 0;
    const quint32 stated = fieldAt(_header, 76);
    if (stated == 0 || stated > 7) {
        running = builtInPayload(1, _fallbackType) + 6;
        _slots[_fallbackType] = running;
        _slots[-_fallbackType] = 0;
    } else {
        const qint64 described = std::min<qint64>(stated, (_header.size() - 80) / 1024);
        for (qint64 i = 0; i < described; ++i) {
            const int type = byteAt(_header, 80 + 1024 * i + 31);
            const int length = byteAt(_header, 80 + 1024 * i + 32);
            const bool isShortInput = type == 100 && length < 20;
            const int slot = isShortInput ? 17 : length + 5;
            if (!isShortInput && slot >= 125) {
                continue;
            }
            _slots[type] = slot;
            _slots[-type] = running;
            running += slot;
        }
    }
    _slots[-100] = running;
}

int ThumbnailModel::walk(const QByteArray& source, int dayIndex) {
    QMap<int, bool> pending;
    for (auto slot = _slots.begin(); slot != _slots.end(); ++slot) {
        if (slot.key() > 0) {
            pending[slot.key()] = false;
        }
    }
    quint32 current = fieldAt(source, 4);
    quint32 intervalStart = 0;
    int count = 0;
    qsizetype unknown = 0;
    PlainRecordReader reader(source);
    for (QByteArray read = reader.next(); !read.isEmpty(); read = reader.next()) {
        if (reader.unknownTypes().size() > unknown) {
            log += "UNKNOWN RECORD TYPE " + QByteArray::number(reader.unknownTypes().at(unknown++));
        }
        const QByteArray record = read.leftJustified(256, 0);
        const int type = byteAt(record, 0);
        if (type > 0 && _slots.contains(type)) {
            if (pending[type]) {
                pending[type] = false;
                place(dayIndex, current, type, record);
                ++count;
            }
            continue;
        }
        if (type < 1 || type > 3) {
            continue;
        }
        current = timeAfter(record, current);
        const quint32 forward = current - intervalStart;
        const quint32 backward = intervalStart - current;
        if (intervalStart == 0 || (forward > 899 && backward > 5184000)) {
            intervalStart = current;
            for (bool& isPending : pending) {
                isPending = true;
            }
        }
    }
    return count;
}

void ThumbnailModel::place(int dayIndex, quint32 time, int type, const QByteArray& record) {
    const quint32 interval = (time - _monthStart) / 900;
    const qint64 offset = qint64{interval} * _slots[-100] + _header.size() + _slots[-type];
    const quint32 dayStart = static_cast<quint32>(dayIndex) * 86400 + _monthStart;
    if (time - dayStart > 86399) {
        log += "ThumbnailManager: writeThumbRecord() timestamp is not in this day! " +
               QByteArray::number(static_cast<int>(offset)) + " (ri " +
               QByteArray::number(static_cast<int>(interval)) + ", ts " +
               QByteArray::number(static_cast<int>(time)) + ", sf " +
               QByteArray::number(static_cast<int>(_monthStart)) + ", ts-df " +
               QByteArray::number(static_cast<int>(time - _monthStart)) + ")";
        return;
    }
    if (file->size() < offset) {
        file->append(QByteArray(offset - file->size(), 0));
    }
    const int length = _slots[type];
    const QByteArray slot = QByteArray(1, 1) + littleEndian(time) + record.left(length - 5);
    file->replace(offset, length, slot);
}

#include "jobs/SCircularBuffer.h"

#include "bus/DebugText.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr DebugTextTarget kLog("SCircularBuffer");

/// A length that no bytes can have, or bytes that are nowhere.
bool isRefused(const char* operation, int length, bool hasBytes) {
    if (length == 0 || (length > 0 && hasBytes)) {
        return false;
    }
    DebugText::send(kLog, "%s() refused, length %d!", operation, length);
    return true;
}

}  // namespace

SCircularBuffer::SCircularBuffer(int size, bool overwrite, int overflowGap)
    : _size(std::max(size, 1)),
      _data(static_cast<std::size_t>(_size) + 1),
      _overwrite(overwrite),
      _overflowGap(overflowGap) {
    clear();
}

void SCircularBuffer::clear() {
    _nextIn = 0;
    _nextOut = 0;
    _dataAvailable = 0;
    _spaceAvailable = static_cast<quint32>(_size - 1);
}

bool SCircularBuffer::add(const char* source, int length) {
    if (isRefused("add", length, source != nullptr)) {
        return false;
    }
    const bool fits = spaceAvailable() >= length;
    _dataAvailable += static_cast<quint32>(length);
    _spaceAvailable -= static_cast<quint32>(length);
    copyIn(source, length);
    if (fits) {
        return true;
    }
    DebugText::send(kLog, "add() wrote too much!");
    // KEPT: the space is below zero here, so what did not fit is counted once more.
    _dataAvailable -= _spaceAvailable;
    _spaceAvailable = 0;
    _nextOut = indexOf(qint64{_nextIn} + _overflowGap);
    return _overwrite;
}

bool SCircularBuffer::remove(char* destination, int length) {
    if (isRefused("remove", length, true)) {
        return false;
    }
    const bool isThere = dataAvailable() >= length;
    _dataAvailable -= static_cast<quint32>(length);
    _spaceAvailable += static_cast<quint32>(length);
    if (destination) {
        copyOut(destination, length, _nextOut);
    }
    _nextOut = indexOf(qint64{_nextOut} + length);
    if (!isThere) {
        DebugText::send(kLog, "remove() removed too much!");
    }
    return isThere;
}

bool SCircularBuffer::peek(char* destination, int length, int offset) const {
    if (isRefused("peek", length, destination != nullptr)) {
        return false;
    }
    if (dataAvailable() < length) {
        DebugText::send(kLog, "peek() not enough data available!");
        return false;
    }
    copyOut(destination, length, indexOf(qint64{_nextOut} + offset));
    return true;
}

bool SCircularBuffer::peekByte(char& out, int offset) const {
    if (dataAvailable() < 1) {
        return false;
    }
    out = _data[static_cast<std::size_t>(indexOf(qint64{_nextOut} + offset))];
    return true;
}

/// Where a position lies that may be before the ring or past it.
int SCircularBuffer::indexOf(qint64 position) const {
    const auto index = static_cast<int>(position % _size);
    return index < 0 ? index + _size : index;
}

void SCircularBuffer::copyIn(const char* source, int length) {
    while (length > 0) {
        const int piece = std::min(length, _size - _nextIn);
        std::memcpy(_data.data() + _nextIn, source, static_cast<std::size_t>(piece));
        _nextIn = indexOf(qint64{_nextIn} + piece);
        source += piece;
        length -= piece;
    }
}

void SCircularBuffer::copyOut(char* destination, int length, int from) const {
    while (length > 0) {
        const int piece = std::min(length, _size - from);
        std::memcpy(destination, _data.data() + from, static_cast<std::size_t>(piece));
        from = 0;
        destination += piece;
        length -= piece;
    }
}

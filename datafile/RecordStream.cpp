#include "datafile/RecordStream.h"

#include "bus/DebugText.h"

#include <cerrno>
#include <cstring>

#include <unistd.h>

using namespace DataFileFormat;

RecordStream::RecordStream(int descriptor, const RecordLengths& lengths, char* block,
                           int blockBytes)
    : _descriptor(descriptor), _lengths(&lengths), _block(block), _blockBytes(blockBytes) {
    renew(0);
}

void RecordStream::seek(qint64 offset) {
    if (offset < _blockOffset || offset > _blockOffset + (_end - _block)) {
        renew(offset);
        return;
    }
    _next = _block + (offset - _blockOffset);
}

void RecordStream::renew(qint64 offset) {
    _blockOffset = offset;
    _next = _end = _block;
    _record = _block;
    std::memset(_end, 0, kMaximumRecordBytes);
}

int RecordStream::lengthOf(int type) const {
    const auto code = static_cast<quint8>(type);
    if (!_lengths->isKnown(code)) {
        DebugText::plain("UNKNOWN RECORD TYPE %d", type);
    }
    return 1 + _lengths->payload(code);
}

bool RecordStream::next() {
    if (_next == _end) {
        readMore();
    }
    if (_next == _end) {
        return false;
    }
    const std::ptrdiff_t wanted = lengthOf(byteAt(_next, 0));
    if (_end - _next < wanted) {
        readMore();
    }
    const std::ptrdiff_t there = std::min(wanted, _end - _next);
    const bool hasNoPayload = there == 1 && wanted > 1;
    _record = _next;
    _next += there;
    return !hasNoPayload;
}

void RecordStream::readMore() {
    const std::ptrdiff_t kept = _end - _next;
    std::memmove(_block, _next, static_cast<std::size_t>(kept));
    _blockOffset += _next - _block;
    _next = _block;
    _end = _block + kept;
    const auto room = static_cast<std::size_t>(_blockBytes - kMaximumRecordBytes - kept);
    ssize_t count = -1;
    do {
        count = ::pread(_descriptor, _end, room, _blockOffset + kept);
    } while (count < 0 && errno == EINTR);
    _end += std::max<ssize_t>(count, 0);
    std::memset(_end, 0, kMaximumRecordBytes);
}

#pragma once

#include "datafile/RecordLengths.h"

/// Reads a file's records one after another through a block of memory, which is the caller's. The
/// file is not mapped, so a card that is pulled out is an end of data, and its size is never
/// asked: the file ends where no more can be read at that moment, so one that grows meanwhile
/// is read on. Holds no lock; descriptor, lengths and block must outlive it.
class RecordStream {
public:
    static constexpr int kMinimumBlockBytes = 4 * DataFileFormat::kMaximumRecordBytes;

    /// REQUIRES: a block of at least `kMinimumBlockBytes`.
    RecordStream(int descriptor, const RecordLengths& lengths, char* block, int blockBytes);

    /// Where the next record begins, in bytes from the start of the file.
    qint64 offset() const { return _blockOffset + (_next - _block); }
    void seek(qint64 offset);
    /// The same, reading again what has been read already.
    void renew(qint64 offset);

    /// Moves on to the next record. False at the end: where nothing is left, or of a payload
    /// nothing (the type byte counts as read, and `type` tells it). A payload that is cut short is
    /// followed by zeros. An unknown type, which is logged, has no payload.
    bool next();

    /// The record that `next` moved to, until it is called again: its type byte and payload, and
    /// always 256 readable bytes.
    const char* record() const { return _record; }
    int type() const { return DataFileFormat::byteAt(_record, 0); }
    /// Bytes that the file has of it, 1 to 256.
    int length() const { return static_cast<int>(_next - _record); }

    /// Calls `visit(record, type, length)` for every record from here on, until it returns false
    /// or the end, as `next` would, and several times as fast.
    template <typename Visitor>
    void forEach(Visitor visit);

private:
    int lengthOf(int type) const;
    void readMore();

    int _descriptor;
    const RecordLengths* _lengths;
    char* _block;
    int _blockBytes;
    qint64 _blockOffset = 0;  ///< of the block's first byte in the file
    char* _next;
    char* _end;  ///< of what was read; 256 zeros follow
    const char* _record;
};

template <typename Visitor>
void RecordStream::forEach(Visitor visit) {
    // All that changes with each record is local, and a record's length is guessed from the last
    // of its kind: a branch that is guessed right is quicker than a look into a table, because
    // the processor then need not know this record to begin with the next.
    char* next = _next;
    const char* end = _end;
    int usualType = DataFileFormat::kShortTimeStep;
    int usualLength = 0;
    for (;;) {
        const char* record = next;
        int type = 0;
        int length = 0;
        if (end - next >= DataFileFormat::kMaximumRecordBytes) [[likely]] {
            type = DataFileFormat::byteAt(record, 0);
            if (type == DataFileFormat::kShortTimeStep) {
                length = 2;
                next += 2;
            } else {
                if (type != usualType) [[unlikely]] {
                    usualLength = lengthOf(type);
                    // No type without payload becomes the usual one: of an unknown one, each
                    // record is logged.
                    usualType = usualLength > 1 ? type : DataFileFormat::kShortTimeStep;
                }
                length = usualLength;
                next += usualLength;
            }
        } else {
            _next = next;
            if (!this->next()) {
                return;
            }
            record = _record;
            type = this->type();
            length = this->length();
            next = _next;
            end = _end;
        }
        if (!visit(record, type, length)) {
            _record = record;
            _next = next;
            return;
        }
    }
}

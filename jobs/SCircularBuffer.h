#pragma once

#include <QtGlobal>

#include <vector>

/// A ring of `size` bytes that holds size - 1 at the most: one is always kept free. Misuse (more
/// added than fits, more removed than is there) is logged under "SCircularBuffer" and reported
/// through the result, but still carried out; the counters are 32-bit and wrap. A negative length,
/// or a null pointer where there are bytes to copy, is logged and refused: false, and nothing
/// changes. The ring owns its storage.
class SCircularBuffer {
public:
    /// A size below 1 counts as 1. With `overwrite`, an `add` of too much reports success.
    /// `overflowGap` is how far past the write position such an `add` puts the read position.
    SCircularBuffer(int size, bool overwrite, int overflowGap);

    void clear();

    /// False where there was no room: then the oldest bytes are overwritten, and the read position
    /// is put behind the gap.
    bool add(const char* source, int length);
    /// Takes the oldest bytes out, or with a null destination discards them. False where there were
    /// not as many.
    /// KEPT: the positions and counters move by `length` all the same, below zero too.
    bool remove(char* destination, int length);
    /// Copies bytes from `offset` past the read position on, and consumes none. False, and nothing
    /// copied, where fewer than `length` bytes are there.
    /// KEPT: the offset does not count in that: it may lead to bytes that were never added (0) or
    /// were removed already.
    bool peek(char* destination, int length, int offset) const;
    /// As `peek`, for one byte. False, without a log line, where the ring is empty.
    bool peekByte(char& out, int offset) const;

    int size() const { return _size; }
    int dataAvailable() const { return static_cast<int>(_dataAvailable); }
    int spaceAvailable() const { return static_cast<int>(_spaceAvailable); }
    int nextIn() const { return _nextIn; }
    int nextOut() const { return _nextOut; }

private:
    int indexOf(qint64 position) const;
    void copyIn(const char* source, int length);
    void copyOut(char* destination, int length, int from) const;

    int _size;
    /// KEPT: one byte longer than the ring; the last is 0 and never used.
    std::vector<char> _data;
    int _nextIn = 0;
    int _nextOut = 0;
    // Unsigned, so that they wrap without harm; read as signed.
    quint32 _dataAvailable = 0;
    quint32 _spaceAvailable = 0;
    bool _overwrite;
    int _overflowGap;
};

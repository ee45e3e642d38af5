#pragma once

#include <QtGlobal>

#include <vector>

/// The records of a download that wait to be sent: the next bytes of its stream. Takes its memory
/// with the first record.
class RecordBuffer {
public:
    /// Appends a record; `data` may be null where there is no payload.
    void add(unsigned char type, quint16 length, const char* data);

    /// Bytes that wait.
    int size() const { return static_cast<int>(_bytes.size()) - _sent; }
    /// The first of them; valid until the next `add`.
    const char* data() const { return _bytes.data() + _sent; }
    void remove(int count);

    /// Whether a block of any length fits.
    bool hasRoomForBlock() const { return kLimitBytes - size() >= kRoomBytes; }

private:
    static constexpr int kCapacityBytes = 72664;
    static constexpr int kLimitBytes = 72662;
    /// The longest record, and one byte.
    static constexpr int kRoomBytes = 64516;

    std::vector<char> _bytes;
    /// The bytes in front that are sent already: moving the rest for each message would cost more
    /// than the message.
    int _sent = 0;
};

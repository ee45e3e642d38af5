#pragma once

#include "bus/MessageWire.h"

#include <QByteArray>
#include <QtGlobal>

#include <cstddef>
#include <initializer_list>

/// A bus message: a signed 32-bit command, a format string with one letter a parameter, and the
/// parameters. It owns its flat form (`buffer`, `length`), which is what travels; parameters are
/// read in place, so every pointer that it hands out lives as long as the message does and until
/// the next `construct`. The tag does not travel.
///
/// Letters: "i" signed 32-bit integer, "c" one byte, "S" NUL-terminated 8-bit string, "B" byte
/// block. Bytes that are no well-formed message become command -1, format "", no parameters.
class Message {
public:
    static constexpr int kMalformedCommand = -1;

    /// Command 0, format "", tag 0.
    Message();
    /// A copy shares the bytes, so there is no move that could leave a message without any.
    Message(const Message&) = default;
    Message& operator=(const Message&) = default;

    /// Takes a message from the wire: copies `length` bytes at `data`. False, and the message
    /// becomes the malformed one, unless they are exactly one well-formed message. The tag
    /// becomes 0. Never reads outside the given bytes.
    bool construct(const void* data, int length);

    /// Builds a message from values, one a letter of `format`; a "B" takes its length and then a
    /// pointer to that many bytes (copied; null only with length 0), an "S" a NUL-terminated
    /// string (null counts as ""). False, and the message becomes the malformed one, where
    /// format and values do not agree.
    template <typename... Values>
    bool construct(int command, const char* format, Values... values) {
        return constructFromValues(command, format, {MessageValue(values)...});
    }

    int command() const;
    int tag() const { return _tag; }
    void setTag(int tag) { _tag = tag; }
    /// NUL-terminated, owned by the message.
    const char* formatString() const;
    int parameterCount() const { return static_cast<int>(_parameterOffsets.size()); }

    /// A parameter that is missing or of another letter reads as 0, "", or a null block of
    /// length 0. Indexes count from 0.
    qint32 parameterAsInt32(int index) const;
    unsigned char parameterAsByte(int index) const;
    const char* parameterAsString(int index) const;
    const char* parameterAsBLOB(int index, int& length) const;

    /// The flat form and its length in bytes.
    const char* buffer() const { return _bytes.constData(); }
    int length() const { return static_cast<int>(_bytes.size()); }

    /// A message is made and freed by this library's allocator, whichever code base deletes it.
    static void* operator new(std::size_t size);
    static void operator delete(void* memory) noexcept;

private:
    bool constructFromValues(int command, const char* format,
                             std::initializer_list<MessageValue> values);
    void becomeMalformed();
    bool hasParameter(int index, char letter) const;

    QByteArray _bytes;
    MessageWire::ParameterOffsets _parameterOffsets;
    int _tag = 0;
};

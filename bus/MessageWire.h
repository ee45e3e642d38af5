#pragma once

#include <QByteArray>
#include <QVarLengthArray>
#include <QtGlobal>

#include <initializer_list>
#include <type_traits>

/// One value handed to Message::construct: an integer or a pointer. A "B" takes two of them.
struct MessageValue {
    template <typename Value>
    MessageValue(Value value) {
        if constexpr (std::is_null_pointer_v<Value>) {
            isPointer = true;
        } else if constexpr (std::is_pointer_v<Value>) {
            isPointer = true;
            pointer = value;
        } else {
            static_assert(std::is_integral_v<Value> || std::is_enum_v<Value>,
                          "a message carries integers, strings and blocks");
            integer = static_cast<qint32>(value);
        }
    }

    bool isPointer = false;
    qint32 integer = 0;
    const void* pointer = nullptr;
};

/// The bytes of a message on the wire, little-endian and packed: the command (signed 32-bit), the
/// format string (ASCII, NUL-terminated, at most 63 letters), then the parameters by letter:
/// "i" signed 32-bit; "c" 1 byte; "S" the bytes and a NUL; "B" unsigned 32-bit length and that
/// many bytes. Pure functions; nothing outside the given bytes is ever read.
namespace MessageWire {

inline constexpr int kCommandBytes = 4;
inline constexpr int kMaximumFormatLetters = 63;

/// Where each parameter begins, counted from the message's first byte.
using ParameterOffsets = QVarLengthArray<quint32, 8>;

/// Checks that `length` bytes are exactly one well-formed message and fills in where its
/// parameters begin. On false `offsets` is empty.
bool decode(const char* bytes, qsizetype length, ParameterOffsets& offsets);

/// Writes a message from values that agree with `format` (see Message::construct). On false
/// both results are empty.
bool encode(int command, const char* format, std::initializer_list<MessageValue> values,
            QByteArray& bytes, ParameterOffsets& offsets);

}  // namespace MessageWire

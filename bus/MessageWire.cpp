#include "bus/MessageWire.h"

#include <QtEndian>

#include <cstring>
#include <limits>
#include <utility>

namespace MessageWire {

namespace {

/// The first byte after the parameter of kind `letter` at `begin`; -1 if it does not end by `end`.
qsizetype endOfParameter(char letter, const char* bytes, qsizetype begin, qsizetype end) {
    const qsizetype room = end - begin;
    switch (letter) {
        case 'i':
            return room >= 4 ? begin + 4 : -1;
        case 'c':
            return room >= 1 ? begin + 1 : -1;
        case 'S': {
            const void* nul = room > 0 ? std::memchr(bytes + begin, 0, size_t(room)) : nullptr;
            return nul ? static_cast<const char*>(nul) - bytes + 1 : -1;
        }
        case 'B': {
            if (room < 4) {
                return -1;
            }
            const qint64 length = qFromLittleEndian<quint32>(bytes + begin);
            return length <= room - 4 ? begin + 4 + length : -1;
        }
        default:
            return -1;
    }
}

/// Bytes that the values take on the wire; -1 where they do not agree with the format.
qint64 encodedLength(const char* format, std::initializer_list<MessageValue> values) {
    qint64 length = kCommandBytes + qint64(std::strlen(format)) + 1;
    const MessageValue* value = values.begin();
    for (const char* letter = format; *letter; ++letter) {
        const qint64 left = values.end() - value;
        if (left < (*letter == 'B' ? 2 : 1)) {
            return -1;
        }
        if (*letter == 'i' || *letter == 'c') {
            if (value->isPointer) {
                return -1;
            }
            length += *letter == 'i' ? 4 : 1;
        } else if (*letter == 'S') {
            if (!value->isPointer) {
                return -1;
            }
            const auto* text = static_cast<const char*>(value->pointer);
            length += text ? qint64(std::strlen(text)) + 1 : 1;
        } else if (*letter == 'B') {
            const qint32 blockLength = value->isPointer ? -1 : value->integer;
            ++value;
            if (blockLength < 0 || !value->isPointer || (blockLength > 0 && !value->pointer)) {
                return -1;
            }
            length += 4 + qint64(blockLength);
        } else {
            return -1;
        }
        ++value;
    }
    return value == values.end() ? length : -1;
}

char* put(char* out, const void* bytes, size_t length) {
    if (length > 0) {
        std::memcpy(out, bytes, length);
    }
    return out + length;
}

char* putInteger(char* out, qint32 value) {
    qToLittleEndian(value, out);
    return out + 4;
}

char* putText(char* out, const void* text) {
    const auto* bytes = text ? static_cast<const char*>(text) : "";
    return put(out, bytes, std::strlen(bytes) + 1);
}

}  // namespace

bool decode(const char* bytes, qsizetype length, ParameterOffsets& offsets) {
    offsets.clear();
    if (length <= kCommandBytes) {
        return false;
    }
    const char* format = bytes + kCommandBytes;
    const qsizetype formatRoom = qMin<qsizetype>(length - kCommandBytes, kMaximumFormatLetters + 1);
    const auto* formatEnd = static_cast<const char*>(std::memchr(format, 0, size_t(formatRoom)));
    if (!formatEnd) {
        return false;
    }
    qsizetype position = formatEnd - bytes + 1;
    for (const char* letter = format; letter != formatEnd; ++letter) {
        const qsizetype next = endOfParameter(*letter, bytes, position, length);
        if (next < 0) {
            offsets.clear();
            return false;
        }
        offsets.append(static_cast<quint32>(position));
        position = next;
    }
    if (position != length) {
        offsets.clear();
        return false;
    }
    return true;
}

bool encode(int command, const char* format, std::initializer_list<MessageValue> values,
            QByteArray& bytes, ParameterOffsets& offsets) {
    const QByteArray before = std::exchange(bytes, {});  // The values may point into it.
    offsets.clear();
    if (!format || std::strlen(format) > kMaximumFormatLetters) {
        return false;
    }
    const qint64 length = encodedLength(format, values);
    if (length < 0 || length > std::numeric_limits<int>::max()) {
        return false;
    }
    bytes = QByteArray(static_cast<qsizetype>(length), Qt::Uninitialized);
    char* const begin = bytes.data();
    char* out = putText(putInteger(begin, command), format);
    const MessageValue* value = values.begin();
    for (const char* letter = format; *letter; ++letter, ++value) {
        offsets.append(static_cast<quint32>(out - begin));
        if (*letter == 'i') {
            out = putInteger(out, value->integer);
        } else if (*letter == 'c') {
            *out++ = static_cast<char>(value->integer);
        } else if (*letter == 'S') {
            out = putText(out, value->pointer);
        } else {
            const qint32 blockLength = value->integer;
            ++value;
            out = put(putInteger(out, blockLength), value->pointer, size_t(blockLength));
        }
    }
    return true;
}

}  // namespace MessageWire

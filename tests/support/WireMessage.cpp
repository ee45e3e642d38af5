#include "tests/support/WireMessage.h"

#include <cctype>

std::string littleEndian(std::int32_t number) {
    std::string bytes;
    for (int shift = 0; shift < 32; shift += 8) {
        bytes += static_cast<char>(static_cast<std::uint32_t>(number) >> shift & 0xFF);
    }
    return bytes;
}

std::optional<std::int32_t> littleEndianAt(std::string_view bytes) {
    if (bytes.size() < 4) {
        return std::nullopt;
    }
    std::uint32_t number = 0;
    for (std::size_t i = 0; i < 4; ++i) {
        number |= static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[i])) << (8 * i);
    }
    return static_cast<std::int32_t>(number);
}

std::string fromHex(std::string_view digits) {
    std::string bytes;
    std::string pair;
    for (const char digit : digits) {
        if (std::isspace(static_cast<unsigned char>(digit)) != 0) {
            continue;
        }
        pair += digit;
        if (pair.size() == 2) {
            bytes += static_cast<char>(std::stoi(pair, nullptr, 16));
            pair.clear();
        }
    }
    return bytes;
}

std::string toHex(std::string_view bytes) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string digits;
    for (const char character : bytes) {
        const auto byte = static_cast<unsigned char>(character);
        digits += kDigits[byte >> 4];
        digits += kDigits[byte & 15];
    }
    return digits;
}

WireMessage& WireMessage::integer(std::int32_t number) {
    format += 'i';
    values.push_back({number, {}});
    return *this;
}

WireMessage& WireMessage::byte(unsigned char number) {
    format += 'c';
    values.push_back({number, {}});
    return *this;
}

WireMessage& WireMessage::text(const std::string& text) {
    format += 'S';
    values.push_back({0, text});
    return *this;
}

WireMessage& WireMessage::block(const std::string& bytes) {
    format += 'B';
    values.push_back({0, bytes});
    return *this;
}

std::string WireMessage::encoded() const {
    std::string result = littleEndian(command) + format + '\0';
    for (std::size_t i = 0; i < format.size(); ++i) {
        const Value& value = values[i];
        switch (format[i]) {
            case 'i':
                result += littleEndian(value.number);
                break;
            case 'c':
                result += static_cast<char>(value.number);
                break;
            case 'S':
                result += value.bytes + '\0';
                break;
            default:
                result += littleEndian(static_cast<std::int32_t>(value.bytes.size())) + value.bytes;
        }
    }
    return result;
}

namespace {

/// Takes one value off the front of `rest`; nothing where it is not whole.
std::optional<WireMessage::Value> takeValue(char letter, std::string_view& rest) {
    WireMessage::Value value;
    if (letter == 'c' && !rest.empty()) {
        value.number = static_cast<unsigned char>(rest[0]);
        rest.remove_prefix(1);
        return value;
    }
    if (letter == 'S' && rest.find('\0') != std::string_view::npos) {
        value.bytes = std::string(rest.substr(0, rest.find('\0')));
        rest.remove_prefix(value.bytes.size() + 1);
        return value;
    }
    const std::optional<std::int32_t> number = littleEndianAt(rest);
    if ((letter != 'i' && letter != 'B') || !number) {
        return std::nullopt;
    }
    rest.remove_prefix(4);
    if (letter == 'i') {
        value.number = *number;
        return value;
    }
    const auto length = static_cast<std::uint32_t>(*number);
    if (length > rest.size()) {
        return std::nullopt;
    }
    value.bytes = std::string(rest.substr(0, length));
    rest.remove_prefix(length);
    return value;
}

}  // namespace

std::optional<WireMessage> WireMessage::decoded(std::string_view bytes) {
    const std::optional<std::int32_t> command = littleEndianAt(bytes);
    const std::size_t end = bytes.find('\0', 4);
    if (!command || end == std::string_view::npos || end - 4 > 63) {
        return std::nullopt;
    }
    WireMessage message(*command);
    message.format = std::string(bytes.substr(4, end - 4));
    std::string_view rest = bytes.substr(end + 1);
    for (const char letter : message.format) {
        std::optional<Value> value = takeValue(letter, rest);
        if (!value) {
            return std::nullopt;
        }
        message.values.push_back(std::move(*value));
    }
    return rest.empty() ? std::optional(message) : std::nullopt;
}

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// A bus message as a second implementation writes and reads it: command, format string, one
/// value a letter. It shares nothing with the bus library, so that one proves the other.
class WireMessage {
public:
    explicit WireMessage(std::int32_t commandCode = 0) : command(commandCode) {}

    struct Value {
        std::int32_t number = 0;  ///< of "i" and "c"
        std::string bytes;        ///< of "S" and "B"
    };

    std::int32_t command;
    std::string format;
    std::vector<Value> values;

    WireMessage& integer(std::int32_t number);
    WireMessage& byte(unsigned char number);
    WireMessage& text(const std::string& text);
    WireMessage& block(const std::string& bytes);

    std::string encoded() const;
    /// Nothing where the bytes are not exactly one message.
    static std::optional<WireMessage> decoded(std::string_view bytes);

    bool isBare() const { return format.empty(); }
    std::int32_t number(std::size_t index) const { return values.at(index).number; }
    const std::string& bytes(std::size_t index) const { return values.at(index).bytes; }
};

/// A little-endian 32-bit integer in front of a payload, as connection ids travel.
std::string littleEndian(std::int32_t number);
/// The integer at the start; nothing where there are fewer than 4 bytes.
std::optional<std::int32_t> littleEndianAt(std::string_view bytes);

/// Bytes from hex digits; blanks are skipped.
std::string fromHex(std::string_view digits);
std::string toHex(std::string_view bytes);

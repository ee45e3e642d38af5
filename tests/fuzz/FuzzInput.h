#pragma once

#include "tests/support/WireMessage.h"

#include <cstdint>
#include <string>
#include <string_view>

/// A fuzzer's bytes read as choices, so that most inputs are requests that mean something. Where
/// the bytes are used up, every choice is 0. README.md tells the encoding.
class FuzzInput {
public:
    FuzzInput(const std::uint8_t* data, std::size_t size)
        : _rest(reinterpret_cast<const char*>(data), size) {}

    bool isAtEnd() const { return _rest.empty(); }

    std::uint8_t takeByte();
    std::int32_t takeInteger();
    /// A path or a name pattern; never holds a NUL.
    std::string takeText();
    /// A byte that counts, and as many bytes (fewer at the end).
    std::string takeBlock();
    /// All that is left.
    std::string takeRest();
    /// A message with one value a letter.
    WireMessage takeMessage(std::int32_t command, std::string_view format);

private:
    std::string takeUntilNul();

    std::string_view _rest;
};

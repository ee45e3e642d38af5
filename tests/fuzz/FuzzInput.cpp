#include "tests/fuzz/FuzzInput.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <utility>

namespace {

constexpr std::uint8_t kFirstSpecialInteger = 0x80;
constexpr std::uint8_t kFirstRawInteger = 0xC0;

constexpr std::int32_t kSpecialIntegers[] = {
    -1,
    -2,
    std::numeric_limits<std::int32_t>::min(),
    std::numeric_limits<std::int32_t>::max(),
    std::numeric_limits<std::int32_t>::max() - 8,
    256,
    4096,
    8192,
    8193,
    65536,
    1024 * 1024,
    1024 * 1024 + 1,
    16 * 1024 * 1024,
    16 * 1024 * 1024 + 1,
};

constexpr const char* kTexts[] = {
    "/root/data/short.gdf",
    "/root/data/long.gdf",
    "/root/data/folder",
    "/root/data/folder/inner.txt",
    "/root/data/new",
    "/root/data/fifo",
    "/root/data/loop",
    "/root/config/job.xml",
    "/mmc/card.bin",
    "/mmc",
    "/root/data/../../etc/passwd",
    "*",
};
constexpr std::uint8_t kDataName = std::size(kTexts);
constexpr std::uint8_t kCardName = kDataName + 1;
constexpr std::uint8_t kTextChoices = kCardName + 2;

}  // namespace

std::uint8_t FuzzInput::takeByte() {
    if (_rest.empty()) {
        return 0;
    }
    const auto byte = static_cast<std::uint8_t>(_rest.front());
    _rest.remove_prefix(1);
    return byte;
}

std::int32_t FuzzInput::takeInteger() {
    const std::uint8_t choice = takeByte();
    if (choice < kFirstSpecialInteger) {
        return choice;
    }
    if (choice < kFirstRawInteger) {
        return kSpecialIntegers[choice % std::size(kSpecialIntegers)];
    }
    std::uint32_t value = 0;
    for (int shift = 0; shift < 32; shift += 8) {
        value |= static_cast<std::uint32_t>(takeByte()) << shift;
    }
    return static_cast<std::int32_t>(value);
}

std::string FuzzInput::takeText() {
    const std::uint8_t choice = takeByte() % kTextChoices;
    if (choice < std::size(kTexts)) {
        return kTexts[choice];
    }
    if (choice == kDataName) {
        return "/root/data/" + takeUntilNul();
    }
    return choice == kCardName ? "/mmc" + takeUntilNul() : takeUntilNul();
}

std::string FuzzInput::takeUntilNul() {
    const std::string text(_rest.substr(0, _rest.find('\0')));
    _rest.remove_prefix(std::min(_rest.size(), text.size() + 1));
    return text;
}

std::string FuzzInput::takeBlock() {
    const std::size_t length = takeByte();
    const std::string block(_rest.substr(0, length));
    _rest.remove_prefix(block.size());
    return block;
}

std::string FuzzInput::takeRest() {
    return std::string(std::exchange(_rest, {}));
}

WireMessage FuzzInput::takeMessage(std::int32_t command, std::string_view format) {
    WireMessage message(command);
    for (const char letter : format) {
        if (letter == 'i') {
            message.integer(takeInteger());
        } else if (letter == 'c') {
            message.byte(takeByte());
        } else if (letter == 'S') {
            message.text(takeText());
        } else {
            message.block(takeBlock());
        }
    }
    return message;
}

#include "bus/Message.h"
#include "tests/fuzz/Require.h"

#include <array>
#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

/// Any bytes as a message from the wire: nothing outside them is read, every accessor answers for
/// every index, and a well-formed message built again from its values is the same bytes.

namespace {

constexpr int kMostValues = 2 * MessageWire::kMaximumFormatLetters;

using Values = std::vector<MessageValue>;

template <std::size_t... Index>
bool constructFrom(Message& message, int command, const char* format, const Values& values,
                   std::index_sequence<Index...>) {
    return message.construct(command, format, values[Index]...);
}

template <std::size_t Count>
bool constructWith(Message& message, int command, const char* format, const Values& values) {
    return constructFrom(message, command, format, values, std::make_index_sequence<Count>());
}

using Construct = bool (*)(Message&, int, const char*, const Values&);

template <std::size_t... Count>
constexpr std::array<Construct, sizeof...(Count)> constructsByCount(std::index_sequence<Count...>) {
    return {constructWith<Count>...};
}

constexpr auto kConstructs = constructsByCount(std::make_index_sequence<kMostValues + 1>());

/// An accessor answers for its own letter only, and for indexes that are there only.
void checkAccessors(const Message& message, int index) {
    const bool exists = index >= 0 && index < message.parameterCount();
    const char letter = exists ? message.formatString()[index] : '\0';
    int length = -1;
    const char* block = message.parameterAsBLOB(index, length);
    REQUIRE(letter == 'B' ? block && length >= 0 : !block && length == 0);
    REQUIRE(letter == 'i' || message.parameterAsInt32(index) == 0);
    REQUIRE(letter == 'c' || message.parameterAsByte(index) == 0);
    REQUIRE(letter == 'S' || *message.parameterAsString(index) == '\0');
}

Values valuesOf(const Message& message) {
    Values values;
    for (int i = 0; i < message.parameterCount(); ++i) {
        int length = 0;
        switch (message.formatString()[i]) {
            case 'i':
                values.push_back(message.parameterAsInt32(i));
                break;
            case 'c':
                values.push_back(message.parameterAsByte(i));
                break;
            case 'S':
                values.push_back(message.parameterAsString(i));
                break;
            default: {
                const char* block = message.parameterAsBLOB(i, length);
                values.push_back(length);
                values.push_back(block);
            }
        }
    }
    return values;
}

void checkMalformed(const Message& message) {
    REQUIRE(message.command() == Message::kMalformedCommand);
    REQUIRE(*message.formatString() == '\0');
    REQUIRE(message.parameterCount() == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Message message;
    const bool isWellFormed = message.construct(data, static_cast<int>(size));
    REQUIRE(message.tag() == 0);
    for (int index = -1; index <= message.parameterCount(); ++index) {
        checkAccessors(message, index);
    }
    if (!isWellFormed) {
        checkMalformed(message);
        return 0;
    }
    REQUIRE(message.length() == static_cast<int>(size));
    REQUIRE(message.parameterCount() == static_cast<int>(std::strlen(message.formatString())));
    const Values values = valuesOf(message);
    Message again;
    REQUIRE(
        kConstructs.at(values.size())(again, message.command(), message.formatString(), values));
    REQUIRE(again.length() == static_cast<int>(size));
    REQUIRE(std::memcmp(again.buffer(), data, size) == 0);
    return 0;
}

#include "bus/DebugText.h"
#include "jobs/SCircularBuffer.h"
#include "tests/fuzz/FuzzInput.h"
#include "tests/fuzz/Require.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

/// Any sequence of operations: the ring has the results, the bytes, the positions and the counters
/// of a model that moves byte by byte.

namespace {

constexpr int kMostSize = 64;
constexpr int kMostLength = 512;

struct Model {
    std::int64_t size;
    std::int64_t gap;
    std::string bytes = std::string(static_cast<std::size_t>(size), '\0');
    std::int64_t in = 0;
    std::int64_t out = 0;
    std::int32_t data = 0;
    std::int32_t space = static_cast<std::int32_t>(size - 1);

    std::int64_t index(std::int64_t at) const { return (at % size + size) % size; }
    void add(const std::string& added) {
        const auto length = static_cast<std::int32_t>(added.size());
        const std::int32_t missing = std::max(length - space, 0);
        for (const char byte : added) {
            bytes[index(in++)] = byte;
        }
        data += length + missing;
        space = missing > 0 ? 0 : space - length;
        out = missing > 0 ? in + gap : out;
    }
    std::string at(std::int64_t from, std::int32_t length) const {
        std::string read;
        for (std::int32_t i = 0; i < length; ++i) {
            read += bytes[index(from + i)];
        }
        return read;
    }
    void remove(std::int32_t length) {
        out += length;
        data -= length;
        space += length;
    }
};

void discardLine(const char* /*line*/, std::size_t /*length*/) {}

/// Few lengths are useful: most are a little around what fits.
int takeLength(FuzzInput& input) {
    return std::min(input.takeInteger(), kMostLength);
}

void checkAdd(SCircularBuffer& ring, Model& model, FuzzInput& input, bool overwrite) {
    const std::string added = input.takeBlock();
    const bool fits = model.space >= static_cast<std::int32_t>(added.size());
    REQUIRE(ring.add(added.data(), static_cast<int>(added.size())) == (fits || overwrite));
    model.add(added);
}

void checkRemove(SCircularBuffer& ring, Model& model, int length, bool discards) {
    std::vector<char> read(static_cast<std::size_t>(std::max(length, 0)), '#');
    const bool isThere = length >= 0 && model.data >= length;
    REQUIRE(ring.remove(discards ? nullptr : read.data(), length) == isThere);
    if (length < 0) {
        return;
    }
    const std::string expected =
        discards ? std::string(read.size(), '#') : model.at(model.out, length);
    REQUIRE(std::equal(read.begin(), read.end(), expected.begin(), expected.end()));
    model.remove(length);
}

void checkPeek(const SCircularBuffer& ring, const Model& model, int length, int offset) {
    std::vector<char> read(static_cast<std::size_t>(std::max(length, 0)), '#');
    const bool isThere = length >= 0 && model.data >= length;
    // An empty vector has no storage; a length of 0 needs none.
    REQUIRE(ring.peek(read.data(), length, offset) == isThere);
    const std::string expected =
        isThere ? model.at(model.out + offset, length) : std::string(read.size(), '#');
    REQUIRE(std::equal(read.begin(), read.end(), expected.begin(), expected.end()));
}

void checkPeekByte(const SCircularBuffer& ring, const Model& model, int offset) {
    char byte = '#';
    const bool isThere = model.data >= 1;
    REQUIRE(ring.peekByte(byte, offset) == isThere);
    REQUIRE(byte == (isThere ? model.at(model.out + offset, 1).front() : '#'));
}

void step(SCircularBuffer& ring, Model& model, FuzzInput& input, bool overwrite) {
    switch (input.takeByte() % 6) {
        case 0:
            return checkAdd(ring, model, input, overwrite);
        case 1:
            return checkRemove(ring, model, takeLength(input), false);
        case 2:
            return checkRemove(ring, model, takeLength(input), true);
        case 3: {
            const int length = takeLength(input);
            return checkPeek(ring, model, length, input.takeInteger());
        }
        case 4:
            return checkPeekByte(ring, model, input.takeInteger());
        default:
            ring.clear();
            model = Model{model.size, model.gap, model.bytes};
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    DebugText::setSink(discardLine);
    FuzzInput input(data, size);
    const int ringSize = std::min(input.takeInteger(), kMostSize);
    const bool overwrite = input.takeByte() % 2 == 1;
    const int gap = input.takeInteger();
    SCircularBuffer ring(ringSize, overwrite, gap);
    Model model{std::max(ringSize, 1), gap};
    while (!input.isAtEnd()) {
        step(ring, model, input, overwrite);
        REQUIRE(ring.size() == model.size);
        REQUIRE(ring.nextIn() == model.index(model.in));
        REQUIRE(ring.nextOut() == model.index(model.out));
        REQUIRE(ring.dataAvailable() == model.data);
        REQUIRE(ring.spaceAvailable() == model.space);
    }
    DebugText::setSink(nullptr);
    return 0;
}

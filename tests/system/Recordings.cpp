#include "tests/system/Recordings.h"

#include "tests/support/WireMessage.h"

#include <bit>

namespace recordings {

namespace {

std::int32_t sampleTime(int day) {
    return kMay + (day - 1) * kDaySeconds + 3600;
}

std::string sampleOf(int day) {
    return '\x05' + std::string(9, static_cast<char>('0' + day));
}

}  // namespace

std::string header(std::int32_t created) {
    return littleEndian(2) + littleEndian(created) + littleEndian(80) + std::string(64, '\0') +
           littleEndian(0);
}

std::string absoluteTime(std::int32_t time) {
    return '\x01' + littleEndian(time);
}

std::string shortStep(int seconds) {
    return {'\x02', static_cast<char>(seconds)};
}

std::string floatBytes(float value) {
    return littleEndian(std::bit_cast<std::int32_t>(value));
}

std::string floats(float first, int count, float step) {
    std::string bytes;
    for (int i = 0; i < count; ++i) {
        bytes += floatBytes(first + step * static_cast<float>(i));
    }
    return bytes;
}

std::string gauge(float first, float second, char status) {
    return '\x05' + floatBytes(first) + floatBytes(second) + status;
}

std::string gaugeDay(std::int32_t start, int step, int records, float first) {
    std::string file = header(start) + absoluteTime(start);
    for (int i = 0; i < records; ++i) {
        const float value = first + static_cast<float>(i);
        file += (i == 0 ? "" : shortStep(step)) + gauge(value, -value, static_cast<char>(i));
    }
    return file;
}

std::string wellDayFile(int day) {
    return "/mmc/well7/gauges/2024-05-0" + std::to_string(day) + "/g1/calcData.gdf";
}

std::string wellThumbnailFile() {
    return "/root/data/well7/gauges/thumbnails/2024-05-g1.gdt";
}

std::string wellDay(int day) {
    return header(sampleTime(day)) + absoluteTime(sampleTime(day)) + sampleOf(day);
}

std::string wellThumbnails(const std::vector<int>& days) {
    std::string file = header(kMay);
    for (const int day : days) {
        const auto interval = static_cast<std::size_t>((sampleTime(day) - kMay) / 900);
        file.resize(80 + 15 * interval, '\0');
        file += absoluteTime(sampleTime(day)) + sampleOf(day);
    }
    return file;
}

}  // namespace recordings

#include "datafile/RecordLengths.h"

using namespace DataFileFormat;

namespace {

constexpr int kUndescribed = -1;

struct BuiltIn {
    int type;
    int payloadBytes;
};

constexpr BuiltIn kBuiltIn[] = {
    {1, 4},    {2, 1},    {3, 2},    {4, 9},    {5, 9},    {6, 12},   {7, 255},   {8, 252},
    {9, 20},   {10, 127}, {11, 0},   {20, 8},   {90, 12},  {96, 8},   {97, 8},    {98, 12},
    {99, 8},   {100, 11}, {101, 37}, {102, 48}, {103, 4},  {104, 4},  {105, 32},  {106, 2},
    {107, 30}, {110, 7},  {111, 2},  {114, 5},  {115, 10}, {116, 9},  {117, 5},   {120, 7},
    {121, 4},  {122, 5},  {123, 4},  {124, 4},  {125, 4},  {126, 4},  {180, 13},  {181, 8},
    {185, 13}, {186, 8},  {190, 22}, {195, 32}, {200, 13}, {210, 12}, {215, 7},   {216, 10},
    {217, 7},  {218, 22}, {220, 1},  {240, 8},  {251, 12}, {252, 15}, {253, 127}, {254, 12},
    {255, 17},
};

constexpr int kUnknown = -1;
constexpr int kAbsoluteTimePayloadOfVersion0 = 3;

constexpr auto kBuiltInByType = [] {
    std::array<int, kMaximumRecordBytes> payloads{};
    payloads.fill(kUnknown);
    for (const BuiltIn& code : kBuiltIn) {
        payloads[code.type] = code.payloadBytes;
    }
    return payloads;
}();

int fixedLength(int type) {
    switch (type) {
        case kAbsoluteTime:
            return 5;
        case kShortTimeStep:
            return 2;
        case kTimeStep:
            return 3;
        default:
            return 1;
    }
}

}  // namespace

RecordLengths::RecordLengths() {
    _described.fill(kUndescribed);
    fillPayloads(0);
}

RecordLengths::RecordLengths(const char* header, int headerSize) {
    _described.fill(kUndescribed);
    readDescriptors(header, headerSize);
    fillPayloads(field(header, kVersionOffset));
}

int RecordLengths::described(int type) const {
    if (type <= kTimeStep) {
        return fixedLength(type);
    }
    return type < kMaximumRecordBytes ? _described[type] : kUndescribed;
}

int RecordLengths::builtIn(quint32 version, int type) {
    if (type == kAbsoluteTime && version == 0) {
        return kAbsoluteTimePayloadOfVersion0;
    }
    return type >= 0 && type < kMaximumRecordBytes ? kBuiltInByType[type] : kUnknown;
}

void RecordLengths::readDescriptors(const char* header, int headerSize) {
    // Backwards, because the first of two descriptors of one code counts.
    for (int i = describedTypes(header, headerSize) - 1; i >= 0; --i) {
        const char* const type = descriptor(header, i);
        _described[byteAt(type, kTypeOffset)] = byteAt(type, kLengthOffset);
    }
}

void RecordLengths::fillPayloads(quint32 version) {
    for (int type = 0; type < kMaximumRecordBytes; ++type) {
        int payload = described(type) - 1;
        // KEPT: an input record has its built-in size, whatever a descriptor says.
        if (payload < 0 || type == kInputRecord) {
            payload = builtIn(version, type);
        }
        _isKnown[type] = payload >= 0;
        _payload[type] = static_cast<quint8>(std::max(payload, 0));
    }
}

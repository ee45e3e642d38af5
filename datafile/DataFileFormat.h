#pragma once

#include <QtEndian>

#include <algorithm>

/// Where things stand in a data file (.gdf, .gdt; see docs/formats.md): a header of 80 bytes and
/// 1,024 for each record type that it describes, then records up to the end of the file.
/// Little-endian, packed; offsets and lengths in bytes.
namespace DataFileFormat {

inline constexpr int kVersionOffset = 0;
inline constexpr int kCreatedOffset = 4;
inline constexpr int kHeaderSizeOffset = 8;
inline constexpr int kSourceOffset = 12;
inline constexpr int kSourceBytes = 64;  ///< the last one is always 0
inline constexpr int kRecordTypeCountOffset = 76;
inline constexpr int kFixedHeaderBytes = 80;

inline constexpr int kDescriptorBytes = 1024;
/// A header above this is not read: at most 7 described types.
inline constexpr int kMaximumHeaderBytes = 8192;

/// Within a descriptor.
inline constexpr int kNameBytes = 31;  ///< at 0; the last one is always 0
inline constexpr int kTypeOffset = 31;
inline constexpr int kLengthOffset = 32;  ///< of the whole record, its type byte included
inline constexpr int kMnemonicCountOffset = 33;
inline constexpr int kMnemonicNamesOffset = 34;
inline constexpr int kMnemonicNameBytes = 16;  ///< the last one is always 0
inline constexpr int kMnemonicTypesOffset = 914;
inline constexpr int kMnemonicWidthsOffset = 969;
inline constexpr int kMaximumMnemonics = 55;

/// Record codes that the format itself gives a meaning.
inline constexpr int kEmptyRecord = 0;
inline constexpr int kAbsoluteTime = 1;
inline constexpr int kShortTimeStep = 2;
inline constexpr int kTimeStep = 3;
/// Sized by the built-in table even where a header describes it.
inline constexpr int kInputRecord = 100;

/// A type byte and the largest payload.
inline constexpr int kMaximumRecordBytes = 256;

/// One of the header's 32-bit fields.
inline quint32 field(const char* header, int offset) {
    return qFromLittleEndian<quint32>(header + offset);
}

inline void setField(char* header, int offset, quint32 value) {
    qToLittleEndian(value, header + offset);
}

/// The header's idea of how many types it describes; it may lie.
inline quint32 statedTypes(const char* header) {
    return field(header, kRecordTypeCountOffset);
}

/// How many descriptors there really are in a header of `headerSize` bytes.
inline int describedTypes(const char* header, int headerSize) {
    const int room = std::max(headerSize - kFixedHeaderBytes, 0) / kDescriptorBytes;
    return static_cast<int>(std::min<quint32>(statedTypes(header), static_cast<quint32>(room)));
}

/// The header may be `char*` or `const char*`.
template <typename Header>
Header descriptor(Header header, int index) {
    return header + kFixedHeaderBytes + index * kDescriptorBytes;
}

inline quint8 byteAt(const char* bytes, int offset) {
    return static_cast<quint8>(bytes[offset]);
}

}  // namespace DataFileFormat

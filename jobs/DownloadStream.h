#pragma once

/// The stream in which files and directories are downloaded, for the job and for its clients.
/// Messages carry pieces of it, so a record may span two. A record is its type in 1 byte, its
/// payload's length in 2, and the payload. docs/formats.md has the whole of it.
namespace DownloadStream {

/// Request "iS" transfer, entries; data "iB" transfer, a piece of the stream.
inline constexpr int kCommand = 0x14B0;
/// "i" connection asks for reports; a report is "ii" connection, bytes still queued for it.
inline constexpr int kWriteCountCommand = 80;

inline constexpr int kMessageBytes = 8150;
inline constexpr int kRecordHeaderBytes = 3;
/// The most that a block holds before it is compressed.
inline constexpr int kBlockBytes = 64512;
/// Of a directory's entry, without its name.
inline constexpr int kEntryHeaderBytes = 13;

enum RecordType : unsigned char {
    kRawBlock = 1,         ///< with flags
    kCompressedBlock = 2,  ///< with flags
    kEnd = 4,
    // These three are a first raw block without a byte in it.
    kEmptyFile = 5,
    kEmptyDirectory = 13,
    kNothingLeft = 21,  ///< the resume offset is the file's size
    kError = 132,
};

enum BlockFlag : unsigned char {
    kFirstBlock = 4,
    kDirectoryBlock = 8,
    kResumedBlock = 16,
};

enum EntryType : unsigned char { kFileEntry = 0, kDirectoryEntry = 1 };

}  // namespace DownloadStream

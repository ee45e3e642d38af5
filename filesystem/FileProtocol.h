#pragma once

#include "hashing/ListingReply.h"
#include "jobs/DownloadStream.h"

/// The codes of the remote file protocol, for the daemon and for its clients. A reply carries its
/// request's code; a bare reply (no parameters) says that the request failed. Request and success
/// reply formats stand beside each code.
enum FileProtocolCode : int {
    /// "ii" connection, bytes still queued; not answered.
    MESSAGE_WRITE_COUNT = DownloadStream::kWriteCountCommand,
    MESSAGE_FILE_OPEN = 0x1400,           ///< "Si" path, flags -> "Sii" path, handle, length
    MESSAGE_FILE_CLOSE = 0x1401,          ///< "i" handle -> "i" handle
    MESSAGE_FILE_READ = 0x1402,           ///< "iii" handle, offset, length -> "iiB"
    MESSAGE_FILE_WRITE = 0x1403,          ///< "iiB" handle, offset, bytes -> "ii" handle, length
    MESSAGE_FILE_GENERATE_HASH = 0x1404,  ///< "iii" handle, offset, length -> "iiB" MD5, 16 bytes
    MESSAGE_FILE_TRUNCATE = 0x1405,       ///< "ii" handle, size -> "i" handle
    MESSAGE_FILE_DELETE = 0x1410,         ///< "S" path -> "S" path
    MESSAGE_FILE_MOVE = 0x1411,           ///< "SS" from, to -> "SS" from, to
    MESSAGE_OPEN_DIRECTORY = 0x1450,      ///< "SS" path, name filter -> "Sii" path, handle, count
    MESSAGE_CLOSE_DIRECTORY = 0x1451,     ///< "i" handle -> "i" handle
    MESSAGE_GET_FILE_IN_DIR = 0x1452,     ///< "ii" handle, index -> "iiSiii" ..., name, length,
                                          ///< creation and modification time (seconds, UTC)
    MESSAGE_GENERATE_LISTING = 0x14A0,    ///< "SS" folder, root -> MESSAGE_LISTING_FINISHED
    /// "SS" root, path of the listing or "" where it failed.
    MESSAGE_LISTING_FINISHED = ListingReply::kCommand,
    /// "iS" transfer, entries -> many of "iB" transfer, a piece of the stream.
    MESSAGE_LZF_DOWNLOAD = DownloadStream::kCommand,
    MESSAGE_DOWNLOAD_UNUSED = 0x14B1,  ///< known, and dropped
    MESSAGE_CONFIG_BACKUP = 0x14C0,    ///< "SS" folder, archive -> "c" 1, 0 where it failed
    MESSAGE_CONFIG_RESTORE = 0x14C1,   ///< the same
};

/// A read reply carries at most this much; a longer read fails.
inline constexpr int kMaximumReadReplyBytes = 16 * 1024 * 1024;

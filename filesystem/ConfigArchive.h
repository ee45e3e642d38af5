#pragma once

#include "filesystem/Descriptor.h"

#include <QByteArray>
#include <QList>
#include <QtGlobal>

/// The archives of the unit's configuration: tar, compressed with gzip, all members below
/// root/config/configBackup/, which is also the scratch folder. The system's tar makes and unpacks
/// them, and blocks the caller. Nothing is logged.
namespace ConfigArchive {

/// The scratch folder's name in "/root/config".
inline constexpr char kScratchName[] = "configBackup";
/// So much of the storage stays free.
inline constexpr qint64 kReservedBytes = 8 * 1024 * 1024;

/// Writes an archive to `output`: what has these names in "/root/config", and what is in the
/// scratch folder. Files with several names become several. False where tar failed, or met a
/// change.
bool pack(const QList<QByteArray>& names, int output);

enum class Result {
    Whole,
    Damaged,
    /// Nothing is known of the archive: there was no room, no tar, or too little time.
    NotUnpacked,
};

/// Unpacks into the scratch folder, which is `scratch` and empty, and makes what came out harmless
/// (see ExtractedTree). Nothing outside it is written. All files together may have as many bytes as
/// are free less kReservedBytes. `archive` is read from its position on; negative is an archive
/// that could not be opened.
Result unpack(int archive, int scratch);

/// The folder that now holds what was in the scratch folder when the archive was made; not open
/// where the archive had none.
Descriptor unpackedFolder(int scratch);

}  // namespace ConfigArchive

#pragma once

#include <QFile>
#include <QIODevice>
#include <QString>

/// The way in which files that others have named are opened. A name may lead anywhere: to a FIFO
/// that would block the process for ever, to a device that acts when it is opened, to a terminal
/// that would become the controlling one, to a directory, to the kernel's own files. Nothing but
/// a regular file of a storage file system is ever opened.
namespace RegularFile {

/// Opens `filename` as QFile::open(flags) would, and lets `file` (which must be closed) own it.
/// Unbuffered whatever the flags say: a write is in the kernel, or has failed, when it returns,
/// and a read sees what others have written. False on any failure, the file is then closed;
/// nothing is logged. Afterwards `file` knows its descriptor, not its name.
bool open(QFile& file, const QString& filename, QIODevice::OpenMode flags);

/// The same for a file that bears its name already and keeps it, so that its owner can close it
/// and open it again. For folders that the daemon itself writes only: between the look at the name
/// and the open nothing guards against another thing in its place.
bool openNamed(QFile& file, QIODevice::OpenMode flags);

}  // namespace RegularFile

#pragma once

#include "filesystem/Descriptor.h"

#include <QByteArray>
#include <QList>

#include <sys/stat.h>

/// Whole folders, entry by entry. A name is one path component in the folder whose descriptor
/// stands before it, in the file system's encoding. No symbolic link is ever followed, so nothing
/// outside these folders is touched, whatever is in them. Nothing is logged.
namespace FolderTree {

/// A copy or a check goes this deep and fails below: each level holds a descriptor.
inline constexpr int kDeepestLevel = 100;

/// Not open where `name` is no folder.
Descriptor openFolder(int parent, const char* name);
/// Of any kind; false where there is none.
bool findEntry(int parent, const char* name, struct stat& status);
/// Without "." and ".."; false where the folder cannot be read.
bool listEntries(int folder, QList<QByteArray>& names);

/// Removes what has this name, and all that is in it, however deep. True if it is gone.
bool remove(int parent, const char* name);

/// Copies what has the name `from`, with owners, modes and times: regular files, folders, links as
/// links, and nodes. Files with several names become several files. `to` must not exist; where this
/// fails, a part of it may. True if all was copied that did not vanish meanwhile.
bool copy(int fromParent, const char* from, int toParent, const char* to);

/// Copies a regular file likewise, through a link too if `isLinkFollowed`.
bool copyFile(int fromParent, const char* from, int toParent, const char* to, bool isLinkFollowed);

}  // namespace FolderTree

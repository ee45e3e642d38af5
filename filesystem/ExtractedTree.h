#pragma once

#include <QtGlobal>

/// What came out of an archive that anybody may have written, before any of it is used.
namespace ExtractedTree {

/// Leaves in the folder regular files with one name each, folders and symbolic links, and nothing
/// setuid or setgid: other kinds are removed, and a file with several names becomes several. False
/// where all files together are larger than this, the tree is deeper than
/// FolderTree::kDeepestLevel, or one of its entries resists. REQUIRES: nobody else can reach the
/// folder. Nothing outside it is changed. Nothing is logged.
bool makeHarmless(int folder, qint64 maximumBytes);

}  // namespace ExtractedTree

#pragma once

#include <string>

/// Other ways to a listing of a tree, with the same lines. They throw where something fails.
namespace ListingPeers {

/// The shortest way: getdents, statx and write, in the order in which the system has the names.
void bareWalk(const std::string& root, const char* out);

/// What a shell offers: `find -printf | sort`.
void findAndSort(const std::string& root, const std::string& out);

}  // namespace ListingPeers

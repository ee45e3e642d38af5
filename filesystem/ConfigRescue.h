#pragma once

/// A configuration folder that a restore removes without a new one in its place is not lost: it is
/// kept in "/root/data/.configRescue/", under its own name or, where that is taken, with ".2", ".3"
/// and so on behind it. Nothing is logged.
namespace ConfigRescue {

inline constexpr char kPath[] = "/root/data/.configRescue";

/// Moves what has this name in `folder` there, whole and in storage before it is taken away. On
/// another file system it is copied, and what it was then ends under the free name `leftover` in
/// the folder `trash`, for the caller to remove. False where it could not be kept; it is then still
/// in its place.
bool keep(int folder, const char* name, int trash, const char* leftover);

/// Removes everything that is kept.
void clear();

}  // namespace ConfigRescue

#pragma once

/// What every copy of a file is made of. Descriptors stay the caller's; nothing is logged.

/// Copies a whole regular file into an empty one, holes as holes. False where not all could be.
bool copyContents(int from, int to);

/// Owner, mode and times of a file or directory, as far as the target's file system keeps them:
/// those of memory cards do not keep every one.
void copyAttributes(int from, int to);

#pragma once

/// CPU and I/O priority of the calling process, so that storage work yields to acquisition.
/// A priority that the system refuses is logged and left as it is.
namespace ProcessPriority {

/// `niceValue`: -20 (first) to 19 (last).
void setNice(int niceValue);

/// `ioClass`: 0 leaves it as it is, 1 real time, 2 best effort, 3 idle.
void setIOClass(int ioClass);

}  // namespace ProcessPriority

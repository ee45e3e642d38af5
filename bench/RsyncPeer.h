#pragma once

#include <string>

/// rsync, from one process to another over a pair of sockets: what others offer for the same
/// transfer. Throws where it fails.
class RsyncPeer {
public:
    static bool isInstalled();

    /// Copies a folder's files into one that is not there yet. `options` are "-a" or "-az". Returns
    /// the processor time of all its processes, of both sides.
    static double copy(const std::string& options, const std::string& from, const std::string& to);
};

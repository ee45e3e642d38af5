#pragma once

#include <QByteArray>

namespace storagectl {

/// What listing, mirror and check ask for.
struct MirrorOptions {
    QByteArray folder;      ///< the client's own below /root/data; empty where none is named
    QByteArray root;        ///< on the unit: absolute and clean
    QByteArray local;       ///< mirror and check: the directory; listing diff: a listing saved
                            ///< earlier, or empty
    int newsSeconds = 600;  ///< without a word of a listing, until it counts as lost
    bool dryRun = false;
    bool removesGone = false;  ///< local files that the unit does not have
    bool comparesContents = false;
    bool showsSame = false;
};

}  // namespace storagectl

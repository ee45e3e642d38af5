#pragma once

#include <QByteArray>

namespace storagectl {

/// What the config commands ask for. Names are of things right below "/root/config".
struct ConfigOptions {
    QByteArray folder;   ///< diff: empty is the one that the archive holds
    QByteArray archive;  ///< backup: empty is a name with the time in it
    bool replace = false;
    bool all = false;         ///< diff: also what is the same
    bool noSafety = false;    ///< restore: without a backup before it
    bool allowLinks = false;  ///< restore: links that lead out of the folder too
    bool yes = false;         ///< restore: without asking
};

}  // namespace storagectl

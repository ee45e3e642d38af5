#pragma once

#include "tools/storagectl/Commands.h"

#include <QHash>
#include <QSet>

namespace storagectl {

/// Whether the unit has nothing of a name below the root that mirror was given. A listing leaves
/// out what the daemon cannot read, and the file service shows it as empty: so the absence counts
/// only where the download job, which tells a directory that cannot be read from an empty one,
/// lists the nearest directory that is still there. Nothing is absent from a root that is gone or
/// empty, as that of a card that was pulled.
class UnitAbsence {
public:
    explicit UnitAbsence(Context& context) : _context(context) {}

    /// Done where it is certain. Unsafe, or why the unit cannot be asked, where it is not.
    Outcome prove(const QByteArray& remote);

private:
    /// As it was listed first.
    struct Directory {
        Outcome outcome;
        QSet<QByteArray> paths;
    };

    Outcome lookDown(const QByteArray& remote);
    const Directory& list(const QByteArray& path);

    Context& _context;
    QHash<QByteArray, Directory> _directories;
};

}  // namespace storagectl

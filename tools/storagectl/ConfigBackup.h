#pragma once

#include "tools/storagectl/ConfigUnit.h"

namespace storagectl {

/// Has the unit pack an archive, and looks whether it did: the daemon says yes to nearly
/// everything. The names were checked.
class ConfigBackup {
public:
    ConfigBackup(Context& context, const QByteArray& folder, const QByteArray& archive)
        : _context(context), _unit(context), _folder(folder), _archive(archive) {}

    /// Done where a new archive of that name is there. One that was there before is replaced only
    /// if `isReplaced`, else that is Unsafe.
    Outcome run(bool isReplaced);
    /// In bytes, valid after Done.
    qint64 size() const { return _size; }

private:
    Outcome lookBefore(bool isReplaced);
    Outcome lookAfter();
    Outcome digestNow(QByteArray& digest);

    Context& _context;
    ConfigUnit _unit;
    QByteArray _folder;
    QByteArray _archive;
    qint64 _size = 0;
    /// Of the archive that is replaced.
    QByteArray _digestBefore;
};

}  // namespace storagectl

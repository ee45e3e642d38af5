#include "jobs/DownloadEntry.h"

#include <QStringList>

DownloadEntry DownloadEntry::parsed(const QString& line) {
    const QStringList parts = line.split(QLatin1Char('|'));
    DownloadEntry entry;
    entry.path = parts.first();
    if (parts.size() != 3) {
        return entry;
    }
    bool isNumber = false;
    const int offset = parts[2].toInt(&isNumber);
    if (isNumber && offset > 0) {
        entry.prefixHash = parts[1];
        entry.offset = offset;
    }
    return entry;
}

#include "jobs/DownloadEntry.h"

#include <QStringView>

namespace {

constexpr QChar kSeparator = u'|';

}  // namespace

// Not split: a hostile line would become millions of parts.
DownloadEntry DownloadEntry::parsed(const QString& line) {
    DownloadEntry entry;
    const qsizetype pathEnd = line.indexOf(kSeparator);
    entry.path = line.left(pathEnd);
    const qsizetype hashEnd = pathEnd < 0 ? -1 : line.indexOf(kSeparator, pathEnd + 1);
    if (hashEnd < 0) {
        return entry;
    }
    const int offset = QStringView(line).sliced(hashEnd + 1).toInt();
    if (offset > 0) {
        entry.prefixHash = line.mid(pathEnd + 1, hashEnd - pathEnd - 1);
        entry.offset = offset;
    }
    return entry;
}

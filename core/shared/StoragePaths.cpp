#include "core/shared/StoragePaths.h"

#include <QDir>

namespace StoragePaths {

bool isAllowed(const QString& filename) {
    const QString cleaned = QDir::cleanPath(filename);
    return cleaned.startsWith(QLatin1String(kConfigRoot) + u'/') ||
           cleaned.startsWith(QLatin1String(kDataRoot) + u'/') ||
           cleaned.startsWith(QLatin1String(kCardRoot));
}

}  // namespace StoragePaths

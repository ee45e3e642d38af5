#include "tests/hashing/PlainListing.h"

#include <QDateTime>
#include <QDir>
#include <QFileInfo>

namespace {

constexpr QDir::Filters kFilters = QDir::Files | QDir::Dirs | QDir::NoDotAndDotDot;

void append(const QString& directory, QStringList wayDown, QString& lines) {
    wayDown.append(QFileInfo(directory).canonicalFilePath());
    for (const QFileInfo& entry :
         QDir(directory).entryInfoList(kFilters, QDir::Name | QDir::DirsLast)) {
        const QString path = entry.absoluteFilePath();
        if (entry.isFile()) {
            const auto modified = static_cast<quint32>(entry.lastModified().toSecsSinceEpoch());
            lines +=
                QString::number(entry.size()) + ',' + QString::number(modified) + ',' + path + '\n';
        } else if (entry.isDir() && !wayDown.contains(entry.canonicalFilePath())) {
            append(path, wayDown, lines);
        }
    }
}

}  // namespace

QByteArray PlainListing::of(const QString& root) {
    QString lines;
    append(root, {}, lines);
    return lines.toLatin1();
}

int PlainListing::entryCount(const QString& directory) {
    return static_cast<int>(QDir(directory).entryList(kFilters).size());
}

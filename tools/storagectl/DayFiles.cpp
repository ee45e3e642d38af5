#include "tools/storagectl/DayFiles.h"

#include <QDate>
#include <QString>

namespace storagectl {

namespace {

constexpr char kThumbnails[] = "thumbnails";
constexpr char kSystem[] = "system";
constexpr int kMonthCharacters = 7;

QByteArrayList rootsBeside(const QByteArray& root) {
    if (root == "/root/data") {
        return {"/mmc", root};
    }
    const bool isData = root == "data" || root.endsWith("/data");
    return isData ? QByteArrayList{root.chopped(4) + "mmc", root} : QByteArrayList{root};
}

QByteArray dayFileName(const QByteArray& category) {
    if (category == "gauges") {
        return "calcData.gdf";
    }
    return category == kSystem ? "systemData.gdf" : "rawData.gdf";
}

}  // namespace

DayFiles::DayFiles(const QByteArray& thumbnailPath) {
    QByteArrayList parts = thumbnailPath.split('/');
    if (parts.size() < 4 || parts[parts.size() - 2] != kThumbnails ||
        !parts.last().endsWith(".gdt")) {
        return;
    }
    const QByteArray name = parts.takeLast().chopped(4);
    parts.removeLast();
    _category = parts.takeLast();
    _job = parts.takeLast();
    _source = name.mid(kMonthCharacters + 1);
    const QDate first =
        QDate::fromString(QString::fromLatin1(name.left(kMonthCharacters)) + "-01", Qt::ISODate);
    const bool hasSource = name.size() > kMonthCharacters + 1 && name[kMonthCharacters] == '-';
    const bool isNamedWell = _category == kSystem ? name.size() == kMonthCharacters : hasSource;
    if (!first.isValid() || !isNamedWell) {
        return;
    }
    _month = name.left(kMonthCharacters);
    _days = first.daysInMonth();
    _roots = parts.isEmpty() ? QByteArrayList{"."} : rootsBeside(parts.join('/'));
}

QByteArrayList DayFiles::candidates(int day) const {
    const QByteArray date = _month + '-' + QByteArray::number(day).rightJustified(2, '0');
    QByteArrayList paths;
    for (const QByteArray& root : _roots) {
        const QByteArray folder = root + '/' + _job + '/' + _category + '/' + date + '/';
        paths.append(folder + (_source.isEmpty() ? "" : _source + '/') + dayFileName(_category));
    }
    return paths;
}

}  // namespace storagectl

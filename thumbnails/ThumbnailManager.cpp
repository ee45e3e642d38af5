#include "thumbnails/ThumbnailManager.h"

#include "bus/ForkedChild.h"
#include "bus/Message.h"
#include "bus/PubSubInterface.h"
#include "core/shared/StoragePaths.h"
#include "core/shared/Tokens.h"
#include "datafile/DataFile.h"
#include "thumbnails/ThumbnailCategories.h"
#include "thumbnails/ThumbnailLayout.h"

#include <QDir>
#include <QDirIterator>

#include <cstdlib>

#include <unistd.h>

using namespace ThumbnailCategories;

ThumbnailManager* g_ThumbnailManager = nullptr;

namespace {

constexpr int kCommandDayDone = 221;
constexpr int kOpenMode = 8192;
constexpr int kMonthCharacters = 7;

/// "yyyy-MM-dd" by its shape alone.
bool isDateShaped(const QString& date) {
    static constexpr char kShape[] = "0000-00-00";
    const QByteArray text = date.toLatin1();
    if (text.size() != static_cast<qsizetype>(sizeof kShape) - 1) {
        return false;
    }
    for (qsizetype i = 0; i < text.size(); ++i) {
        const bool isDigit = text[i] >= '0' && text[i] <= '9';
        if (kShape[i] == '0' ? !isDigit : text[i] != kShape[i]) {
            return false;
        }
    }
    return true;
}

/// A job or source name may try to lead elsewhere. REQUIRES: `path` begins with `folder`.
bool isBelow(const QString& path, const QString& folder) {
    const QString way = QDir::cleanPath(QLatin1Char('.') + path.mid(folder.size()));
    return !way.startsWith(QLatin1StringView("../"));
}

}  // namespace

ThumbnailManager::ThumbnailManager(QObject* parent)
    : QObject(parent),
      _rootFolder(QString::fromLatin1(StoragePaths::kDataRoot)),
      _archiveFolder(QString::fromLatin1(StoragePaths::kCardRoot)) {}

void ThumbnailManager::setRootAndArchiveFolder(const QString& root, const QString& archive) {
    _rootFolder = root;
    _archiveFolder = archive;
}

void ThumbnailManager::setJob(const QString& job) {
    _job = job;
}

pid_t ThumbnailManager::appendDay(const QString& date) {
    const pid_t child = ForkedChild::start();
    if (child != 0) {
        return child;
    }
    try {
        ForkedChild::yieldToForeground();
        DebugText::send(_debug, "appendDay(%s)", qPrintable(date));
        appendWholeDay(date);
        announceDay(date);
    } catch (...) {
        DebugText::send(_debug, "no memory for the day");
        ForkedChild::end(EXIT_FAILURE);
    }
    ForkedChild::end();
}

void ThumbnailManager::appendWholeDay(const QString& date) {
    for (const ThumbnailCategory* category :
         {&kGauges, &kGaugeCards, &kInputs, &kWireless, &kOstrevin, &kSystem}) {
        try {
            appendCategory(*category, date);
        } catch (...) {
            DebugText::send(_debug, "no memory for %s", category->thumbnailFolder);
        }
    }
}

void ThumbnailManager::announceDay(const QString& date) {
    PubSubInterface* const bus = PubSubInterface::instance();
    if (!bus) {
        return;
    }
    const QByteArray job = _job.toLatin1();
    const QByteArray day = date.toLatin1();
    Message done;
    done.construct(kCommandDayDone, "SS", job.constData(), day.constData());
    bus->sendTokenMessage(Tokens::kConnectionManager, done);
    bus->sendToken(Tokens::kThumbnailDayFinished, day.constData(),
                   static_cast<int>(day.size()) + 1);
}

void ThumbnailManager::appendDayGauges(const QString& date) {
    appendCategory(kGauges, date);
}

void ThumbnailManager::appendDayGaugeCards(const QString& date) {
    appendCategory(kGaugeCards, date);
}

void ThumbnailManager::appendDayInputs(const QString& date) {
    appendCategory(kInputs, date);
}

void ThumbnailManager::appendDayWireless(const QString& date) {
    appendCategory(kWireless, date);
}

void ThumbnailManager::appendDayOstrevin(const QString& date) {
    appendCategory(kOstrevin, date);
}

void ThumbnailManager::appendDaySystem(const QString& date) {
    appendCategory(kSystem, date);
}

void ThumbnailManager::appendDaySingleGauge(const QString& date, const QString& source) {
    appendSource(kGauges, date, source);
}

void ThumbnailManager::appendDaySingleGaugeCard(const QString& date, const QString& source) {
    appendSource(kGaugeCards, date, source);
}

void ThumbnailManager::appendDaySingleInput(const QString& date, const QString& source) {
    appendSource(kInputs, date, source);
}

void ThumbnailManager::appendDaySingleWireless(const QString& date, const QString& source) {
    appendSource(kWireless, date, source);
}

void ThumbnailManager::appendDaySingleOstrevin(const QString& date, const QString& source) {
    appendSource(kOstrevin, date, source);
}

void ThumbnailManager::appendCategory(const ThumbnailCategory& category, const QString& date) {
    const QString thumbnails = QString::fromLatin1(category.thumbnailFolder).arg(_rootFolder, _job);
    if (isBelow(thumbnails, _rootFolder)) {
        QDir().mkpath(thumbnails);
    }
    if (!category.hasSources()) {
        appendSource(category, date, QString());
        return;
    }
    // Not read into a list: a folder may hold any number of names.
    QDirIterator sources(pathOf(category.dayFolder, _archiveFolder, date, QString()),
                         QDir::Dirs | QDir::Hidden | QDir::NoDotAndDotDot);
    while (sources.hasNext()) {
        sources.next();
        appendSource(category, date, sources.fileName());
    }
}

QString ThumbnailManager::pathOf(const char* pattern, const QString& folder, const QString& time,
                                 const QString& source) const {
    // All at once: a name that holds "%3" stays what it is.
    const QString path = QString::fromLatin1(pattern);
    return path.contains(QLatin1StringView("%4")) ? path.arg(folder, _job, time, source)
                                                  : path.arg(folder, _job, time);
}

void ThumbnailManager::appendSource(const ThumbnailCategory& category, const QString& date,
                                    const QString& source) {
    if (!isDateShaped(date)) {
        DebugText::send(_debug, category.invalidDate, qPrintable(date));
        return;
    }
    const QString path = pathOf(category.dataFile, _archiveFolder, date, source);
    DataFile data(path);
    if (!isBelow(path, _archiveFolder) || !data.open(path, kOpenMode)) {
        const QString& place = category.hasSources() ? source : path;
        DebugText::send(_debug, category.noDataFile, qPrintable(date), qPrintable(place));
        return;
    }
    const QString month = date.left(kMonthCharacters);
    QFile thumb(pathOf(category.thumbnailFile, _rootFolder, month, source));
    QMap<int, int> slotMap;
    int headerSize = 0;
    if (!isBelow(thumb.fileName(), _rootFolder) ||
        !appendDayOpenThumb(month, data, thumb, headerSize, category.fallbackType, slotMap)) {
        DebugText::send(_debug, category.noThumbnail, qPrintable(month), qPrintable(source));
        return;
    }
    const int day = date.mid(kMonthCharacters + 1).toInt();
    const int count = appendDayWorker(headerSize, slotMap, day - 1,
                                      ThumbnailLayout::monthStart(month), data, thumb);
    ::fsync(thumb.handle());
    if (category.hasSources()) {
        DebugText::send(_debug, category.done, count, qPrintable(month), qPrintable(source), day);
    } else {
        DebugText::send(_debug, category.done, count, qPrintable(month), day);
    }
}

#include "history/HistoricalDataManager.h"

#include "bus/ForkedChild.h"
#include "bus/Message.h"
#include "bus/PubSubInterface.h"
#include "core/shared/ChildPool.h"
#include "core/shared/StoragePaths.h"
#include "core/shared/Tokens.h"
#include "datafile/MemoryCache.h"
#include "datafile/RecordTime.h"

#include <QDateTime>
#include <QFile>

#include <algorithm>
#include <bit>
#include <cstring>

HistoricalDataManager* g_pHistoricalDataManager = nullptr;

namespace {

constexpr int kBlockBytes = 65536;
constexpr int kOpenMode = 8192;
/// 30 minutes may cross midnight.
constexpr int kDays = 2;
constexpr char kDateFormat[] = "yyyy-MM-dd";
constexpr char kTimeFormat[] = "hh:mm:ss";

constexpr int kGaugeRecord = 5;
constexpr int kFirstValueOffset = 1;
constexpr int kSecondValueOffset = 5;

enum Answer { End = 0, GaugeValues = 1 };

/// KEPT: values are logged under this name; whoever follows them looks for it.
constexpr DebugTextTarget kValueLog("MODBUSManager");

/// Invalid unless both the date and the time are valid: joined, an invalid time becomes midnight.
QDateTime startOf(const QString& date, const QString& time) {
    const QTime timeOfDay = QTime::fromString(time, kTimeFormat);
    if (!timeOfDay.isValid()) {
        return QDateTime();
    }
    return QDateTime(QDate::fromString(date, kDateFormat), timeOfDay, Qt::UTC);
}

QString dayAfter(const QString& date) {
    return QDate::fromString(date, kDateFormat).addDays(1).toString(kDateFormat);
}

/// Where the gauge's file of that day is: internal storage comes first. Empty where it is nowhere.
QString gaugeFile(const QString& archiveFolder, const QString& day, const QString& gauge) {
    for (const char* root : {StoragePaths::kDataRoot, StoragePaths::kCardRoot}) {
        const QString path = QStringLiteral("%1/%2/gauges/%3/%4/calcData.gdf")
                                 .arg(QLatin1StringView(root), archiveFolder, day, gauge);
        if (QFile::exists(path)) {
            return path;
        }
    }
    return QString();
}

}  // namespace

HistoricalDataManager::HistoricalDataManager(QObject* parent) : QObject(parent) {
    _history.setHaltWhenFull();
}

HistoricalDataManager::~HistoricalDataManager() {
    qDeleteAll(_jobs);
}

void HistoricalDataManager::enterChild() {
    ForkedChild::yieldToForeground();
    DebugText::send(_debug, "Historical data lookup process launched");
}

void HistoricalDataManager::lookup(const QString& archiveFolder, int valueSelector, int requestTag,
                                   const QString& date, const QString& time,
                                   const QString& gaugeList) {
    // Parsed here, once: the code that does it would be loaded into each child anew.
    const QDateTime start = startOf(date, time);
    ChildPool& pool =
        start.isValid() ? ChildPools::g_lookupsAndListings : ChildPools::g_invalidLookups;
    pool.run([=, this] {
        enterChild();
        _archiveFolder = archiveFolder;
        _valueSelector = valueSelector;
        _requestTag = requestTag;
        _dateString = date;
        _timeString = time;
        if (start.isValid()) {
            _startTime = static_cast<quint32>(start.toSecsSinceEpoch());
            lookupGauges(gaugeList);
        }
    });
}

void HistoricalDataManager::lookupGauges(const QString& gaugeList) {
    int index = 0;
    for (const QString& gauge : gaugeList.split(QLatin1Char('\n'))) {
        lookupGauge(index++, gauge);
    }
    Message end;
    end.construct(End, "iii", _valueSelector, _requestTag, static_cast<int>(_startTime));
    PubSubInterface::instance()->sendTokenMessage(Tokens::kGaugeData, end);
    ForkedChild::end();
}

void HistoricalDataManager::lookupGauge(int gaugeIndex, const QString& gauge) {
    _history.clear();
    _history.setStartTimestamp(_startTime);
    DataFile file(QStringLiteral("lookup"));
    for (int i = 0; i < kDays && !_history.isFull(); ++i) {
        const QString path =
            gaugeFile(_archiveFolder, i == 0 ? _dateString : dayAfter(_dateString), gauge);
        if (path.isEmpty() || !file.open(path, kOpenMode)) {
            break;
        }
        lookupRecords(gaugeIndex, file);
        file.close();
    }
    const int count = std::min(MnemonicHistory::kSlots, _history.count());
    std::array<float, MnemonicHistory::kSlots> oldestFirst;
    std::reverse_copy(_history.history(), _history.history() + count, oldestFirst.begin());
    Message values;
    values.construct(GaugeValues, "iiiB", gaugeIndex, _valueSelector, _requestTag,
                     count * static_cast<int>(sizeof(float)), oldestFirst.data());
    PubSubInterface::instance()->sendTokenMessage(Tokens::kGaugeData, values);
}

void HistoricalDataManager::lookupRecords(int gaugeIndex, DataFile& file) {
    if (!file.seekToFirstRecord()) {
        DebugText::send(_debug, "FAILED TO SEEK TO FIRST RECORD!");
        return;
    }
    quint32 time = DataFileFormat::field(file.header(), DataFileFormat::kCreatedOffset);
    const auto visit = [&](const char* record, int type, int length) {
        if (type != kGaugeRecord) {
            time = RecordTime::after(record, time);
        } else if (_startTime <= time && _history.timeForRecord(time)) {
            noteSample(gaugeIndex, time, record, length);
        }
        return !_history.isFull();
    };
    void* const buffer = g_memoryCache->acquireBuffer(kBlockBytes);
    file.stream(static_cast<char*>(buffer), kBlockBytes).forEach(visit);
    g_memoryCache->releaseBuffer(buffer);
}

void HistoricalDataManager::noteSample(int gaugeIndex, quint32 time, const char* record,
                                       int length) {
    // What a header describes as shorter than two values has zeros for the rest.
    char alone[kSecondValueOffset + sizeof(float)] = {};
    std::memcpy(alone, record, std::min(sizeof alone, static_cast<std::size_t>(length)));
    const int offset = _valueSelector == 0 ? kFirstValueOffset : kSecondValueOffset;
    const auto value = std::bit_cast<float>(qFromLittleEndian<quint32>(alone + offset));
    DebugText::send(kValueLog, "G%d TS %u value %f", gaugeIndex + 1, time,
                    static_cast<double>(value));
    _history.addRecord(time, value);
}

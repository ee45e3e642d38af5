#include "bus/Clock.h"
#include "bus/ForkedChild.h"
#include "bus/Message.h"
#include "bus/PubSubInterface.h"
#include "core/shared/ChildPool.h"
#include "core/shared/MessageQueue.h"
#include "core/shared/QuitFlag.h"
#include "core/shared/Replies.h"
#include "core/shared/StoragePaths.h"
#include "datafile/RecordTime.h"
#include "history/HistoricalDataManager.h"

#include <QDateTime>
#include <QDir>

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstdlib>

namespace {

using FileEntry = HistoricalDataManager::FileEntry;
using ReplayData = HistoricalDataManager::ReplayData;

constexpr int kOpenMode = 8192;
constexpr int kCommandJobCreated = 232;
constexpr int kCommandBlock = 233;
constexpr int kSystemChannel = 0;
constexpr char kStartFormat[] = "yyyyMMddhhmmss";
constexpr char kDayFormat[] = "yyyy-MM-dd";

/// A folder of days, in the order in which a day's files are prepared; the n-th has bit n of a
/// job's day flags. The files of gauges and gauge cards are in a folder each, named by its source.
struct DayFolder {
    const char* root;
    const char* name;
    FileEntry::FileEntryType type;
    const char* file;
};

constexpr DayFolder kDayFolders[] = {
    {StoragePaths::kCardRoot, "system", FileEntry::System, "systemData.gdf"},
    {StoragePaths::kCardRoot, "gauges", FileEntry::Gauge, "calcData.gdf"},
    {StoragePaths::kCardRoot, "gaugecards", FileEntry::GaugeCard, "rawData.gdf"},
    {StoragePaths::kDataRoot, "system", FileEntry::System, "systemData.gdf"},
    {StoragePaths::kDataRoot, "gauges", FileEntry::Gauge, "calcData.gdf"},
    {StoragePaths::kDataRoot, "gaugecards", FileEntry::GaugeCard, "rawData.gdf"},
};

/// KEPT: the archive folder is a lookup's too, and so empty in a worker: what is replayed are the
/// days right below the roots.
QString pathOf(const DayFolder& folder, const QString& archiveFolder) {
    return QStringLiteral("%1/%2/%3")
        .arg(QLatin1StringView(folder.root), archiveFolder, QLatin1StringView(folder.name));
}

QStringList entriesOf(const QString& folder) {
    return QDir(folder).entryList(
        QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Name);
}

/// Channel numbers by folder name, from "name=number|name=number".
QMap<QString, int> parseChannels(const QString& options) {
    QMap<QString, int> channels;
    for (const QString& part : options.split(QLatin1Char('|'))) {
        const qsizetype equals = part.indexOf(QLatin1Char('='));
        if (equals >= 0) {
            channels[part.left(equals)] = part.mid(equals + 1).trimmed().toInt();
        }
    }
    return channels;
}

int intAt(const FileEntry& entry, int offset) {
    return qFromLittleEndian<qint32>(entry.record.data() + offset);
}

float floatAt(const FileEntry& entry, int offset) {
    return std::bit_cast<float>(qFromLittleEndian<quint32>(entry.record.data() + offset));
}

int byteAt(const FileEntry& entry, int offset) {
    return DataFileFormat::byteAt(entry.record.data(), offset);
}

void addGauge(ReplayData* block, const FileEntry& entry) {
    char name[32];
    const auto named = [&](const char* format) {
        std::snprintf(name, sizeof name, format, entry.channel);
        return name;
    };
    HistoricalDataManager::replayAddFloat(block, named("G%dP"), floatAt(entry, 1));
    HistoricalDataManager::replayAddFloat(block, named("G%dT"), floatAt(entry, 5));
    HistoricalDataManager::replayAddInt(block, named("G%dstatus"), byteAt(entry, 9));
}

void addGaugeCard(ReplayData* block, const FileEntry& entry) {
    HistoricalDataManager::replayAddFloat(block, "LV", floatAt(entry, 5));
    HistoricalDataManager::replayAddFloat(block, "LC", floatAt(entry, 9));
}

void addSystemPower(ReplayData* block, const FileEntry& entry) {
    HistoricalDataManager::replayAddFloat(block, "SsysVoltage", floatAt(entry, 1));
    HistoricalDataManager::replayAddFloat(block, "SsysCurrent", floatAt(entry, 5));
    HistoricalDataManager::replayAddFloat(block, "Stemp", floatAt(entry, 9));
    HistoricalDataManager::replayAddInt(block, "Sapvcc",
                                        qFromLittleEndian<quint16>(entry.record.data() + 13));
    HistoricalDataManager::replayAddInt(block, "SsysFlags", byteAt(entry, 15));
}

void addSystemStorage(ReplayData* block, const FileEntry& entry) {
    HistoricalDataManager::replayAddInt(block, "SdiskFree", intAt(entry, 1));
    HistoricalDataManager::replayAddInt(block, "ScardFree", intAt(entry, 5));
    HistoricalDataManager::replayAddInt(block, "ScardSize", intAt(entry, 9));
}

void addSystemStatus(ReplayData* block, const FileEntry& entry) {
    HistoricalDataManager::replayAddFloat(block, "Sambient", floatAt(entry, 1));
    HistoricalDataManager::replayAddFloat(block, "Sdie", floatAt(entry, 5));
    HistoricalDataManager::replayAddInt(block, "SfreeMemory", intAt(entry, 9));
    HistoricalDataManager::replayAddFloat(block, "Sload", static_cast<float>(intAt(entry, 13)));
    HistoricalDataManager::replayAddInt(block, "Sconnections", byteAt(entry, 17));
}

void addValues(ReplayData* block, const FileEntry& entry) {
    switch (entry.recordType) {
        case 5:
            return addGauge(block, entry);
        case 90:
            return addGaugeCard(block, entry);
        case 252:
            return addSystemPower(block, entry);
        case 254:
            return addSystemStorage(block, entry);
        case 255:
            return addSystemStatus(block, entry);
        default:
            return;
    }
}

}  // namespace

void HistoricalDataManager::beginHistoricalReplay(const QString& requester, const QString& start) {
    ChildPools::g_replayWorkers.run([=, this] { becomeWorker(requester, start); });
}

void HistoricalDataManager::becomeWorker(const QString& requester, const QString& start) {
    enterChild();
    _isWorker = true;
    auto* const job = new ReplayJob;
    _jobs.append(job);
    job->jobId = _nextJobId++;
    job->requester = requester;
    job->startString = start;
    job->ackTicks = job->continuedTicks = Clock::ticks();
    // Before the job is announced: the answer may come at once.
    if (!PubSubInterface::instance()->rejoin()) {
        DebugText::send(_debug, "no bus for the replay worker");
        ForkedChild::end();
    }
    Message created;
    created.construct(kCommandJobCreated, "i", job->jobId);
    sendMessage(created);
}

bool HistoricalDataManager::isAbandoned() const {
    return std::any_of(_jobs.cbegin(), _jobs.cend(), [](const ReplayJob* job) {
        return Clock::ticksSince(job->continuedTicks) > kContinueMilliseconds;
    });
}

void HistoricalDataManager::ackReplayData(int jobId, int sequence) {
    for (ReplayJob* const job : std::as_const(_jobs)) {
        if (job->jobId == jobId && job->sequence == sequence) {
            job->ackTicks = Clock::ticks();
            job->sequence = -job->sequence;
        }
    }
}

HistoricalDataManager::ReplayJob* HistoricalDataManager::findJob(int jobId) {
    const auto found = std::find_if(_jobs.cbegin(), _jobs.cend(),
                                    [jobId](const ReplayJob* job) { return job->jobId == jobId; });
    return found == _jobs.cend() ? nullptr : *found;
}

void HistoricalDataManager::continueHistoricalReplay(int jobId, QString options) {
    ReplayJob* const job = findJob(jobId);
    if (!job) {
        DebugText::send(_debug, "Failed to find jobID %d", jobId);
        return;
    }
    if (job->isStreaming) {
        return;
    }
    job->continuedTicks = Clock::ticks();
    job->channels.insert(parseChannels(options));
    const QDateTime start = QDateTime::fromString(job->startString, kStartFormat);
    if (!start.isValid()) {
        return;
    }
    job->startTime = static_cast<quint32>(start.toSecsSinceEpoch());
    job->isStreaming = true;
    try {
        replayDays(job, start.date());
    } catch (...) {
        DebugText::send(_debug, "no memory for the replay");
        ForkedChild::end(EXIT_FAILURE);
    }
    if (!g_quit) {
        ForkedChild::end();
    }
}

void HistoricalDataManager::replayDays(ReplayJob* job, const QDate& first) {
    findDays(job, first);
    for (const QString& day : std::as_const(job->days)) {
        prepDay(job, day);
        if (!replayDay(job)) {
            return;
        }
    }
}

void HistoricalDataManager::findDays(ReplayJob* job, const QDate& first) {
    int flag = 1;
    for (const DayFolder& folder : kDayFolders) {
        for (const QString& name : entriesOf(pathOf(folder, _archiveFolder))) {
            const QDate day = QDate::fromString(name, kDayFormat);
            if (day.isValid() && day >= first) {
                job->dayFlags[name] |= flag;
            }
        }
        flag <<= 1;
    }
    job->days = job->dayFlags.keys();
}

void HistoricalDataManager::prepDay(ReplayJob* job, const QString& day) {
    int flag = 1;
    for (const DayFolder& folder : kDayFolders) {
        const bool hasDay = job->dayFlags.value(day) & flag;
        flag <<= 1;
        if (!hasDay) {
            continue;
        }
        const QString dayPath = pathOf(folder, _archiveFolder) + QLatin1Char('/') + day;
        const QString file = QLatin1Char('/') + QLatin1StringView(folder.file);
        if (folder.type == FileEntry::System) {
            prepFileForHistoricalReplay(job, folder.type, dayPath + file, kSystemChannel);
            continue;
        }
        for (const QString& source : entriesOf(dayPath)) {
            const auto channel = job->channels.constFind(source);
            if (channel != job->channels.cend()) {
                prepFileForHistoricalReplay(job, folder.type,
                                            dayPath + QLatin1Char('/') + source + file, *channel);
            }
        }
    }
}

void HistoricalDataManager::prepFileForHistoricalReplay(ReplayJob* job,
                                                        FileEntry::FileEntryType type,
                                                        const QString& path, int channel) {
    auto entry = std::make_unique<FileEntry>();
    entry->path = path;
    entry->type = type;
    entry->channel = channel;
    if (entry->file.open(path, kOpenMode) && entry->file.seekToFirstRecord() &&
        readNextRecord(entry.get())) {
        job->files.push_back(std::move(entry));
    }
}

bool HistoricalDataManager::readNextRecord(FileEntry* entry) {
    // KEPT: the start that is compared here is a lookup's, which a worker has never done, so
    // every record passes: a job's own start selects whole days.
    do {
        entry->recordLength = entry->file.readRecord(
            entry->record.data(), static_cast<int>(entry->record.size()), entry->recordType);
        if (entry->recordLength < 1) {
            return false;
        }
        entry->timestamp = RecordTime::after(entry->record.data(), entry->timestamp);
    } while (entry->timestamp < _startTime || RecordTime::isTimeRecord(entry->recordType));
    return true;
}

bool HistoricalDataManager::replayDay(ReplayJob* job) {
    while (!job->files.empty()) {
        processReplayFileList(job);
        if (!awaitAcknowledgement(job)) {
            job->files.clear();
            return false;
        }
    }
    return true;
}

void HistoricalDataManager::processReplayFileList(ReplayJob* job) {
    // After the acknowledged n, which is kept as -n, comes n + 1.
    job->sequence = std::max(1 - job->sequence, 1);
    ReplayData block;
    while (!job->files.empty() && !block.overflow) {
        // Of equal times the first in the list.
        const auto next = std::min_element(
            job->files.begin(), job->files.end(),
            [](const auto& one, const auto& other) { return one->timestamp < other->timestamp; });
        addValues(&block, **next);
        if (!readNextRecord(next->get())) {
            job->files.erase(next);
        }
    }
    Message message;
    message.construct(kCommandBlock, "iiiB", job->jobId, job->sequence,
                      static_cast<int>(job->startTime), block.used, block.data.data());
    sendMessage(message);
}

bool HistoricalDataManager::awaitAcknowledgement(ReplayJob* job) {
    while (job->sequence >= 1) {
        processWaitingMessages();
        if (g_quit || Clock::ticksSince(job->ackTicks) > kAcknowledgeMilliseconds) {
            return false;
        }
    }
    return true;
}

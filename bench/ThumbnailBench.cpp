#include "bench/PairedTiming.h"
#include "bench/RecordedDay.h"
#include "bench/StorePeers.h"
#include "bus/DebugText.h"
#include "bus/ForkedChild.h"
#include "datafile/DataFile.h"
#include "datafile/MemoryCache.h"
#include "thumbnails/ThumbnailLayout.h"
#include "thumbnails/ThumbnailManager.h"

#include <QDate>
#include <QDir>
#include <QTextStream>

#include <stdexcept>

#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int kGaugeCode = 5;
constexpr int kIntervalsOfDay = 96;
const QString kDate = QStringLiteral("2024-05-17");

void dropLine(const char*, std::size_t) {}

void require(bool isGood, const char* what) {
    if (!isGood) {
        throw std::runtime_error(what);
    }
}

/// A daemon's thumbnail service and the recordings of some gauges on the unit's card.
class Site {
public:
    explicit Site(int sources = 1) {
        DebugText::setSink(dropLine);
        g_memoryCache = &_cache;
        _manager.setJob("site");
        for (int i = 0; i < sources; ++i) {
            RecordedDay::write(dataFile(i), kDate);
            build(i, kDate);  // so that the month's file is there, as on most days
        }
    }
    ~Site() {
        QDir("/mmc/site").removeRecursively();
        QDir("/root/data/site").removeRecursively();
        g_memoryCache = nullptr;
    }

    static QString name(int source) { return QString("flow-%1").arg(source); }
    static QString dataFile(int source, const QString& date = kDate) {
        return QString("/mmc/site/gauges/%1/%2/calcData.gdf").arg(date, name(source));
    }
    static QString thumbnailFile(int source) {
        return QString("/root/data/site/gauges/thumbnails/2024-05-%1.gdt").arg(name(source));
    }

    /// Everything that the child does for one source, the sync among it.
    void build(int source, const QString& date) {
        QDir().mkpath("/root/data/site/gauges/thumbnails");
        _manager.appendDaySingleGauge(date, name(source));
    }

    /// From open to the last write.
    int buildWithoutSync(const QString& dataPath, const QString& thumbnailPath) {
        DataFile data(dataPath);
        QFile thumbnail(thumbnailPath);
        QMap<int, int> slotMap;
        int headerSize = 0;
        require(data.open(dataPath, 8192) &&
                    _manager.appendDayOpenThumb("2024-05", data, thumbnail, headerSize, kGaugeCode,
                                                slotMap),
                "cannot open");
        return _manager.appendDayWorker(headerSize, slotMap, 16,
                                        ThumbnailLayout::monthStart("2024-05"), data, thumbnail);
    }

private:
    MemoryCache _cache{false};
    ThumbnailManager _manager{nullptr};
};

void oneSourceBesideBareLoop(benchmark::State& state) {
    Site site;
    const QString data = Site::dataFile(0);
    const QString thumbnail = Site::thumbnailFile(0);
    const QByteArray dataName = data.toLatin1();
    const QByteArray thumbnailName = thumbnail.toLatin1();
    PairedTiming timing(1);
    for (auto _ : state) {
        int ours = 0;
        int peer = 0;
        state.SetIterationTime(timing.turn(
            [&] { ours = site.buildWithoutSync(data, thumbnail); },
            [&] { peer = RecordedDay::bareThumbnail(dataName, thumbnailName, kDate, false); }));
        require(ours == kIntervalsOfDay && peer == kIntervalsOfDay, "not all were placed");
    }
    timing.report(state);
}

/// "times_as_fast": the peer's time over ours.
void reportSpeedUp(benchmark::State& state, const PairedTiming& timing) {
    timing.report(state);
    state.counters["times_as_fast"] = 1 / state.counters["ratio"];
}

void oneSourceBesideRoundRobin(benchmark::State& state) {
    Site site;
    RoundRobinPeer peer(kDate);
    PairedTiming timing(1);
    for (auto _ : state) {
        peer.clear();
        timing.turn([&] { site.buildWithoutSync(Site::dataFile(0), Site::thumbnailFile(0)); },
                    [&] { peer.update(); });
    }
    reportSpeedUp(state, timing);
}

void oneSourceBesideSql(benchmark::State& state) {
    Site site;
    SqlPeer peer(kDate);
    PairedTiming timing(1);
    for (auto _ : state) {
        int rows = 0;
        timing.turn([&] { site.buildWithoutSync(Site::dataFile(0), Site::thumbnailFile(0)); },
                    [&] { rows = peer.query(); });
        require(rows == kIntervalsOfDay, "the query found something else");
    }
    reportSpeedUp(state, timing);
}

void sixteenSourcesSynced(benchmark::State& state) {
    constexpr int kSources = 16;
    Site site(kSources);
    PairedTiming timing(kSources);
    const auto ours = [&] {
        for (int i = 0; i < kSources; ++i) {
            site.build(i, kDate);
        }
    };
    const auto peer = [&] {
        for (int i = 0; i < kSources; ++i) {
            RecordedDay::bareThumbnail(Site::dataFile(i).toLatin1(),
                                       Site::thumbnailFile(i).toLatin1(), kDate, true);
        }
    };
    for (auto _ : state) {
        state.SetIterationTime(timing.turn(ours, peer));
    }
    timing.report(state);
}

/// Day by day over a year; "ratio" is the median day of the last month over that of the first.
void yearOfOneSource(benchmark::State& state) {
    Site site;
    std::vector<double> first;
    std::vector<double> last;
    for (auto _ : state) {
        for (QDate day(2024, 1, 1); day.year() == 2024; day = day.addDays(1)) {
            const QString date = day.toString("yyyy-MM-dd");
            RecordedDay::write(Site::dataFile(0, date), date);
            PairedTiming timing(1);
            const double seconds = timing.turn([&] { site.build(0, date); }, [] {});
            QFile::remove(Site::dataFile(0, date));
            if (day.month() == 1) {
                first.push_back(seconds);
            } else if (day.month() == 12) {
                last.push_back(seconds);
            }
        }
    }
    state.counters["first_ns"] = PairedTiming::median(first) * 1e9;
    state.counters["ratio"] = PairedTiming::median(last) / PairedTiming::median(first);
}

/// Memory that is this process's alone, in bytes.
double privateBytes() {
    QFile file("/proc/self/smaps_rollup");
    require(file.open(QIODevice::ReadOnly), "no smaps_rollup");
    double bytes = 0;
    for (const QByteArray& line : file.readAll().split('\n')) {
        if (line.startsWith("Private_")) {
            bytes += line.simplified().split(' ').value(1).toDouble() * 1024;
        }
    }
    return bytes;
}

/// What a child has of its own after a day of `days` times the usual length.
void memoryOfChild(benchmark::State& state) {
    Site site;
    const int days = static_cast<int>(state.range(0));
    RecordedDay::write(Site::dataFile(0), kDate, days);
    double most = 0;
    for (auto _ : state) {
        int channel[2];
        require(::pipe(channel) == 0, "no pipe");
        if (ForkedChild::start() == 0) {
            site.build(0, kDate);
            const double bytes = privateBytes();
            const bool isSent = ::write(channel[1], &bytes, sizeof bytes) == sizeof bytes;
            _exit(isSent ? 0 : 1);
        }
        double bytes = 0;
        require(::read(channel[0], &bytes, sizeof bytes) == sizeof bytes, "no word from the child");
        ::close(channel[0]);
        ::close(channel[1]);
        ::wait(nullptr);
        most = std::max(most, bytes);
    }
    state.counters["file_MB"] = days * 1.0368;
    state.counters["private_MiB"] = most / (1024 * 1024);
}

BENCHMARK(oneSourceBesideBareLoop)->UseManualTime();
BENCHMARK(oneSourceBesideRoundRobin)->UseRealTime();
BENCHMARK(oneSourceBesideSql)->UseRealTime();
BENCHMARK(sixteenSourcesSynced)->UseManualTime();
BENCHMARK(yearOfOneSource)->Iterations(1);
BENCHMARK(memoryOfChild)->Arg(1)->Arg(50)->Iterations(1);

}  // namespace

BENCHMARK_MAIN();

#include "bench/BusFixture.h"
#include "bench/DownloadClient.h"
#include "bench/PairedTiming.h"
#include "bench/RsyncPeer.h"
#include "tests/support/DownloadDecoder.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <numeric>
#include <random>
#include <sstream>
#include <stdexcept>

namespace {

constexpr int kEight = 8;
constexpr int kSmallFileBytes = 100'000;
constexpr int kReads = 400;
constexpr double kMegabyte = 1e6;
constexpr double kMillisecond = 1e-3;
constexpr int kGapLimitsMilliseconds[] = {1, 5, 50, 1000};
const std::string kLarge = "/root/data/large.gdf";
const std::string kEighth = "/root/data/eighth.gdf";
const std::string kSmallFolder = "/root/data/small";
/// In memory, so that no disk is measured.
const std::string kCopyFolder = "/dev/shm/copy";

/// How much there is to do.
struct Extent {
    int largeBytes = 64'000'000;
    int smallFiles = 2000;
    int waitMilliseconds = 10'000;
};
constexpr Extent kQuick = {8'000'000, 20, 200};

void require(bool isGood, const char* what) {
    if (!isGood) {
        throw std::runtime_error(what);
    }
}

/// Records of a slow movement with a sensor's noise, which compress to about half. No stretch comes
/// twice: a compressor with a wide window would need to send it only once.
std::string recording(int bytes) {
    std::mt19937 random(1);
    std::uniform_int_distribution<int> noise(0, 63);
    std::string all;
    const auto append = [&](double value) {
        const auto stored = static_cast<float>(std::round(value * 1e4 + noise(random)) / 1e4);
        all.append(reinterpret_cast<const char*>(&stored), sizeof stored);
    };
    for (int second = 0; all.size() < static_cast<std::size_t>(bytes); ++second) {
        all.append("\2\1\5", 3);
        append(100 + std::sin(second / 3000.0));
        append(20 + std::cos(second / 9000.0));
        all += '\0';
    }
    return all;
}

std::string contentOf(const std::string& path) {
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return std::move(content).str();
}

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> all;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        all.push_back(line);
    }
    return all;
}

/// The daemon and the bare loop, with the same files to send.
class DownloadSides {
public:
    explicit DownloadSides(const Extent& extent)
        : _extent(extent),
          _bus({DaemonFixture::kReplyTopic, DownloadClient::kAskedTopic}),
          _daemon(_bus),
          _client(_bus.client()) {
        writeFiles();
        _bareDownload.start({{BARE_DOWNLOAD_PROGRAM, _bus.broker().socketPath(),
                              DownloadClient::kBareRequests, DaemonFixture::kReplyTopic},
                             {},
                             0});
        require(_bareDownload.waitForLog("ready\n", BusFixture::kAnswerMilliseconds),
                "no bare loop");
        checkStreams();
    }

    void measureLarge(benchmark::State& state) { measureFiles(state, kLarge, _largeBytes); }
    void measureSmall(benchmark::State& state) { measureFiles(state, _smallFiles, _smallBytes); }

    /// The times between one message of a stream and the next: how many are long. The bare loop's
    /// are what the machine does by itself.
    void measureGaps(benchmark::State& state) {
        PairedTiming timing(1);
        std::vector<double> ours;
        std::vector<double> bare;
        for (auto _ : state) {
            _client.takeGaps();
            state.SetIterationTime(timing.turnAfter([&] { _client.download({kLarge}); },
                                                    [&] { collectGaps(ours); },
                                                    [&] { _client.downloadBare(kLarge); }));
            collectGaps(bare);
        }
        state.counters["messages"] = static_cast<double>(ours.size());
        reportGaps(state, "ours", ours);
        reportGaps(state, "bare", bare);
    }

    /// Eight that each get an eighth, against one that gets all of it.
    void measureEight(benchmark::State& state) {
        PairedTiming timing(1);
        for (auto _ : state) {
            state.SetIterationTime(
                timing.turn([&] { _client.download(std::vector(kEight, kEighth)); },
                            [&] { _client.download({kLarge}); }));
        }
        timing.report(state);
    }

    /// Reports every millisecond, against reports at need.
    void measureReports(benchmark::State& state) {
        PairedTiming timing(1);
        const auto download = [this](DownloadClient::Reports reports) {
            _client.setReports(reports);
            _client.download({kLarge});
        };
        for (auto _ : state) {
            state.SetIterationTime(
                timing.turn([&] { download(DownloadClient::Reports::EveryMillisecond); },
                            [&] { download(DownloadClient::Reports::AtNeed); }));
        }
        _client.setReports(DownloadClient::Reports::AtNeed);
        timing.report(state);
        state.counters["rate_ratio"] = 1 / state.counters["ratio"];
    }

    /// Reads of 4 KB by another client while a download runs.
    void measureReads(benchmark::State& state) {
        const BusFixture::Request read = _daemon.openForReading();
        std::vector<double> seconds;
        _client.takeStreamBytes();
        for (auto _ : state) {
            for (int i = 0; i < kReads; ++i) {
                if (_client.isOver()) {
                    _client.begin(kLarge);
                }
                const std::string& payload = read.payloads[seconds.size() % read.payloads.size()];
                seconds.push_back(_client.ask(read.topic, payload, read.answerBytes));
            }
        }
        const double sum = std::accumulate(seconds.begin(), seconds.end(), 0.0);
        state.counters["stream_MB_per_s"] =
            static_cast<double>(_client.takeStreamBytes()) / kMegabyte / sum;
        _client.finish();
        std::sort(seconds.begin(), seconds.end());
        state.counters["ms"] = sum / static_cast<double>(seconds.size()) / kMillisecond;
        state.counters["p99_ms"] = seconds[seconds.size() * 99 / 100] / kMillisecond;
        state.counters["longest_ms"] = seconds.back() / kMillisecond;
    }

    /// The small files, against rsync, which also writes them.
    void measureRsync(benchmark::State& state, const std::string& options) {
        if (!RsyncPeer::isInstalled()) {
            state.SkipWithError("no rsync installed (package rsync)");
            return;
        }
        PairedTiming timing(1);
        std::vector<double> cpuRatios;
        std::vector<double> rsyncSeconds;
        for (auto _ : state) {
            std::filesystem::remove_all(kCopyFolder);
            double ours = 0;
            double peer = 0;
            state.SetIterationTime(
                timing.turn([&] { ours = daemonSeconds(_smallFiles); },
                            [&] { peer = RsyncPeer::copy(options, kSmallFolder, kCopyFolder); }));
            cpuRatios.push_back(ours / peer);
            rsyncSeconds.push_back(peer);
        }
        timing.report(state);
        state.counters["cpu_ratio"] = PairedTiming::median(cpuRatios);
        state.counters["rsync_ms_per_MB"] = millisecondsPerMegabyte(rsyncSeconds, _smallBytes);
    }

    /// Downloads that nothing is reported for. They wait on, so this comes last.
    void measureWaiting(benchmark::State& state) {
        const int wanted = static_cast<int>(state.range(0));
        for (auto _ : state) {
            _client.beginUnreported(wanted - _waiting, kEight);
            _waiting = wanted;
            _bus.client().pump(_extent.waitMilliseconds / 10);
            const auto& arrived = _bus.client().deliveries;
            const auto asked = std::count_if(arrived.begin(), arrived.end(), [](const auto& one) {
                return one.topic == DownloadClient::kAskedTopic;
            });
            require(asked == wanted && arrived.size() == static_cast<std::size_t>(wanted),
                    "not all of them wait");
            const double before = _daemon.process().cpuSeconds();
            _bus.client().pump(_extent.waitMilliseconds);
            const double spent = _daemon.process().cpuSeconds() - before;
            state.counters["percent"] = spent / (_extent.waitMilliseconds * kMillisecond) * 100;
        }
    }

private:
    void writeFiles() {
        const std::string large = recording(_extent.largeBytes);
        std::ofstream(kLarge, std::ios::binary) << large;
        _largeBytes = static_cast<double>(large.size());
        std::ofstream(kEighth, std::ios::binary) << large.substr(0, large.size() / kEight);
        std::filesystem::create_directories(kSmallFolder);
        for (int i = 0; i < _extent.smallFiles; ++i) {
            const std::size_t from =
                static_cast<std::size_t>(i) * kSmallFileBytes % (large.size() - kSmallFileBytes);
            const std::string path = kSmallFolder + "/" + std::to_string(i) + ".gdf";
            std::ofstream(path, std::ios::binary) << large.substr(from, kSmallFileBytes);
            _smallFiles += (i > 0 ? "\n" : "") + path;
        }
        _smallBytes = static_cast<double>(_extent.smallFiles) * kSmallFileBytes;
    }

    /// Both sides send the same bytes, and these are the files.
    void checkStreams() {
        const std::string request = kEighth + "\n" + lines(_smallFiles).front();
        const std::string ours = streamOf([&] { _client.download({request}); });
        const std::string bare = streamOf([&] { _client.downloadBare(request); });
        require(ours == bare, "the bare loop sends something else");
        DownloadDecoder decoder;
        decoder.add(ours);
        require(decoder.isComplete() && decoder.items().size() == 2, "a stream that is damaged");
        for (const std::string& path : lines(request)) {
            const auto& item = decoder.items()[path == kEighth ? 0 : 1];
            require(item.bytes == contentOf(path), "a file came otherwise than it is");
        }
    }

    template <typename Download>
    std::string streamOf(const Download& download) {
        std::string stream;
        _client.setTap([&](std::string_view piece) { stream += piece; });
        download();
        _client.setTap(nullptr);
        return stream;
    }

    /// The daemon's processor time for a download.
    double daemonSeconds(const std::string& request) {
        const double before = _daemon.process().cpuSeconds();
        _client.download({request});
        return _daemon.process().cpuSeconds() - before;
    }

    static double millisecondsPerMegabyte(const std::vector<double>& seconds, double bytes) {
        return PairedTiming::median(seconds) / kMillisecond / (bytes / kMegabyte);
    }

    /// Against the bare loop.
    void measureFiles(benchmark::State& state, const std::string& request, double bytes) {
        PairedTiming timing(1);
        std::vector<double> cpuSeconds;
        std::vector<double> cpuRatios;
        for (auto _ : state) {
            const double before = _bareDownload.cpuSeconds();
            state.SetIterationTime(
                timing.turn([&] { cpuSeconds.push_back(daemonSeconds(request)); },
                            [&] { _client.downloadBare(request); }));
            cpuRatios.push_back(cpuSeconds.back() / (_bareDownload.cpuSeconds() - before));
        }
        timing.report(state);
        state.counters["rate_ratio"] = 1 / state.counters["ratio"];
        state.counters["MB_per_s"] = bytes / kMegabyte / (state.counters["ours_ns"] * 1e-9);
        state.counters["cpu_ratio"] = PairedTiming::median(cpuRatios);
        state.counters["cpu_ms_per_MB"] = millisecondsPerMegabyte(cpuSeconds, bytes);
    }

    void collectGaps(std::vector<double>& gaps) {
        const std::vector<double> latest = _client.takeGaps();
        gaps.insert(gaps.end(), latest.begin(), latest.end());
    }

    static void reportGaps(benchmark::State& state, const std::string& side,
                           const std::vector<double>& gaps) {
        for (const int limit : kGapLimitsMilliseconds) {
            const auto isLonger = [limit](double gap) { return gap > limit * kMillisecond; };
            state.counters[side + "_over_" + std::to_string(limit) + "ms"] =
                static_cast<double>(std::count_if(gaps.begin(), gaps.end(), isLonger));
        }
        state.counters[side + "_longest_ms"] =
            *std::max_element(gaps.begin(), gaps.end()) / kMillisecond;
    }

    Extent _extent;
    BusFixture _bus;
    DaemonFixture _daemon;
    DownloadClient _client;
    ChildProcess _bareDownload;
    double _largeBytes = 0;
    std::string _smallFiles;
    double _smallBytes = 0;
    int _waiting = 0;
};

using Measure = void (DownloadSides::*)(benchmark::State&);

}  // namespace

int main(int argc, char** argv) {
    Extent extent;
    if (argc > 1 && std::strcmp(argv[argc - 1], "--quick") == 0) {
        extent = kQuick;
        --argc;
    }
    benchmark::Initialize(&argc, argv);
    DownloadSides sides(extent);
    const auto add = [&sides](const char* name, Measure measure) {
        return benchmark::RegisterBenchmark(
            name, [&sides, measure](benchmark::State& state) { (sides.*measure)(state); });
    };
    add("largeFileBesideBareLoop", &DownloadSides::measureLarge)->UseManualTime();
    add("smallFilesBesideBareLoop", &DownloadSides::measureSmall)->UseManualTime();
    add("gapsOfLargeFile", &DownloadSides::measureGaps)->UseManualTime();
    add("eightBesideOne", &DownloadSides::measureEight)->UseManualTime();
    add("reportsEveryMillisecond", &DownloadSides::measureReports)->UseManualTime();
    add("readsDuringDownload", &DownloadSides::measureReads)->UseRealTime();
    for (const char* options : {"-a", "-az"}) {
        benchmark::RegisterBenchmark(
            (std::string("besideRsync/") + options).c_str(),
            [&sides, options](benchmark::State& state) { sides.measureRsync(state, options); })
            ->UseManualTime();
    }
    add("waitingDownloads", &DownloadSides::measureWaiting)->Arg(1)->Arg(64)->Iterations(1);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}

#include "bench/BusFixture.h"
#include "bench/PairedTiming.h"
#include "bench/RecordedDay.h"
#include "bus/DebugText.h"
#include "bus/ForkedChild.h"
#include "core/shared/MessageQueue.h"
#include "datafile/MemoryCache.h"
#include "history/HistoricalDataManager.h"
#include "tests/support/FakeBus.h"
#include "tests/support/WireMessage.h"

#include <QDir>

#include <optional>
#include <stdexcept>
#include <thread>

#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int kGauges = 4;
/// The gauges, a gauge card and the system.
constexpr int kFiles = kGauges + 2;
constexpr double kRecords = static_cast<double>(kFiles) * RecordedDay::kSamples;
constexpr int kBegin = 231;
constexpr int kContinue = 232;
constexpr int kBlock = 233;
constexpr int kAcknowledge = 234;
constexpr char kStart[] = "20240517000000";
constexpr char kOptions[] = "flow-0=1|flow-1=2|flow-2=3|flow-3=4|card-1=1";
constexpr char kCommands[] = "StorageManager/to";
constexpr char kBareRequests[] = "bare/request";
constexpr char kBareReplies[] = "bare/reply";
constexpr int kReads = 400;
constexpr int kSilenceMilliseconds = 1000;
constexpr std::size_t kAcknowledgeBytes = 15;
const QString kDate = QStringLiteral("2024-05-17");

void writeDay() {
    for (int gauge = 0; gauge < kGauges; ++gauge) {
        RecordedDay::write(QString("/mmc/gauges/%1/flow-%2/calcData.gdf").arg(kDate).arg(gauge),
                           kDate);
    }
    RecordedDay::write(QString("/mmc/gaugecards/%1/card-1/rawData.gdf").arg(kDate), kDate, 1,
                       RecordedDay::kGaugeCard);
    RecordedDay::write(QString("/mmc/system/%1/systemData.gdf").arg(kDate), kDate, 1,
                       RecordedDay::kSystem);
}

/// Acknowledges each block in the drain that waits for it.
quint32 acknowledge() {
    static int sequence = 0;
    g_pHistoricalDataManager->ackReplayData(1, ++sequence);
    return 0;
}

/// The whole day in a worker whose blocks go nowhere.
void mergeAlone() {
    const pid_t child = fork();
    if (child == 0) {
        DebugText::setSink([](const char*, std::size_t) {});
        FakeBus bus;
        HistoricalDataManager manager(nullptr);
        g_pHistoricalDataManager = &manager;
        setDrainHooks({nullptr, acknowledge});
        manager.beginHistoricalReplay("bench", kStart);
        if (!manager.isWorkerThread()) {
            ::wait(nullptr);
            _exit(0);
        }
        manager.continueHistoricalReplay(1, kOptions);
        _exit(1);
    }
    int status = 0;
    if (::waitpid(child, &status, 0) != child || status != 0) {
        throw std::runtime_error("the merge failed");
    }
}

/// A client that replays from the daemon, beside one that reads a file.
class ReplaySides {
public:
    ReplaySides()
        : _bus({DaemonFixture::kReplyTopic, kBareReplies}),
          _daemon(_bus),
          _replayer(_bus.broker().socketPath()) {
        writeDay();
        _replayer.subscribe(_daemon.process().replyTopic());
        if (!_replayer.connect(BusFixture::kAnswerMilliseconds)) {
            throw std::runtime_error("no second connection");
        }
        _blocksOfDay = countBlocks();
        _echo.start({{BARE_ECHO_PROGRAM, _bus.broker().socketPath(), kBareRequests, kBareReplies,
                      std::to_string(_blockBytes)},
                     {},
                     0});
        _bus.waitUntilAnswered(echoRequest());
    }

    /// Against the merge without the bus, and block by block against the bare echo.
    void measureRate(benchmark::State& state) {
        PairedTiming merge(1);
        std::vector<double> echoRatios;
        for (auto _ : state) {
            const double seconds = merge.turn([&] { replayDay(); }, [] { mergeAlone(); });
            state.SetIterationTime(seconds);
            PairedTiming echo(1);
            const double echoSeconds =
                echo.turn([&] { _bus.exchange(echoRequest(), _blocksOfDay, 1); }, [] {});
            echoRatios.push_back(echoSeconds / seconds);
        }
        merge.report(state);
        state.counters["rate_ratio"] = 1 / state.counters["ratio"];
        state.counters["records_per_s"] = kRecords / (state.counters["ours_ns"] * 1e-9);
        state.counters["blocks"] = _blocksOfDay;
        state.counters["echo_rate_ratio"] = PairedTiming::median(echoRatios);
    }

    /// Reads of 4 KB by another client while days are replayed at full pace, against the same reads
    /// without.
    void measureReads(benchmark::State& state) {
        const BusFixture::Request read = _daemon.openForReading();
        const auto readAll = [&] { _bus.exchange(read, kReads, 1); };
        PairedTiming timing(kReads);
        for (auto _ : state) {
            std::jthread replayer([this](const std::stop_token& stop) {
                while (!stop.stop_requested()) {
                    replayDay();
                }
            });
            const auto endReplays = [&] {
                replayer.request_stop();
                replayer.join();
            };
            state.SetIterationTime(timing.turnAfter(readAll, endReplays, readAll));
        }
        timing.report(state);
    }

private:
    BusFixture::Request echoRequest() const {
        return {kBareRequests, {std::string(kAcknowledgeBytes, 'x')}, _blockBytes};
    }

    void send(const WireMessage& message) { _replayer.publish(kCommands, message.encoded()); }

    /// The next message with this command; nothing where there is none for so long.
    std::optional<WireMessage> next(int command, int milliseconds) {
        for (;;) {
            if (!_replayer.pumpUntil([&] { return !_replayer.deliveries.empty(); }, milliseconds)) {
                return std::nullopt;
            }
            const std::string payload = _replayer.deliveries.front().payload;
            _replayer.deliveries.pop_front();
            const auto message = WireMessage::decoded(payload);
            if (message && message->command == command) {
                _blockBytes = payload.size();
                return message;
            }
        }
    }

    void begin() {
        send(WireMessage(kBegin).text("bench").text(kStart));
        if (!next(kContinue, BusFixture::kAnswerMilliseconds)) {
            throw std::runtime_error("no replay worker");
        }
        send(WireMessage(kContinue).integer(1).text(kOptions));
    }

    /// Takes a block and acknowledges it; false where none comes in that time.
    bool takeBlock(int milliseconds) {
        const auto block = next(kBlock, milliseconds);
        if (block) {
            send(WireMessage(kAcknowledge).integer(1).integer(block->number(1)));
        }
        return block.has_value();
    }

    int countBlocks() {
        begin();
        int blocks = 0;
        while (takeBlock(kSilenceMilliseconds)) {
            ++blocks;
        }
        return blocks;
    }

    /// The whole day, each block acknowledged at once.
    void replayDay() {
        begin();
        for (int block = 0; block < _blocksOfDay; ++block) {
            if (!takeBlock(BusFixture::kAnswerMilliseconds)) {
                throw std::runtime_error("the replay stands still");
            }
        }
        _replayer.flush(BusFixture::kAnswerMilliseconds);
    }

    BusFixture _bus;
    DaemonFixture _daemon;
    RawBusClient _replayer;
    ChildProcess _echo;
    int _blocksOfDay = 0;
    std::size_t _blockBytes = 0;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    ReplaySides sides;
    benchmark::RegisterBenchmark("replayOfADay", [&](benchmark::State& state) {
        sides.measureRate(state);
    })->UseManualTime();
    benchmark::RegisterBenchmark("readsDuringReplay", [&](benchmark::State& state) {
        sides.measureReads(state);
    })->UseManualTime();
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}

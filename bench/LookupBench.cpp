#include "bench/BusFixture.h"
#include "bench/PairedTiming.h"
#include "bench/RecordedDay.h"
#include "bench/StorePeers.h"
#include "tests/support/WireMessage.h"

#include <array>
#include <stdexcept>

namespace {

constexpr int kLookups = 20;
constexpr int kFurtherGauges = 15;
constexpr int kLookupCommand = 230;
constexpr char kCommands[] = "StorageManager/to";
constexpr char kAnswers[] = "HistoricalData/gaugeData";
constexpr char kBareRequests[] = "bare/request";
constexpr char kBareReplies[] = "bare/reply";
const QString kDate = QStringLiteral("2024-05-17");
constexpr std::uint32_t kStartSecond = 22 * 3600;  // late in the day

QString dataFile(int gauge) {
    return QString("/root/data/site/gauges/%1/flow-%2/calcData.gdf").arg(kDate).arg(gauge);
}

/// A request for so many gauges, through broker and daemon.
std::string lookupOf(int gauges) {
    std::string list = "flow-0";
    for (int gauge = 1; gauge < gauges; ++gauge) {
        list += "\nflow-" + std::to_string(gauge);
    }
    return WireMessage(kLookupCommand)
        .text("site")
        .integer(0)
        .integer(42)
        .text(kDate.toStdString())
        .text("22:00:00")
        .text(list)
        .encoded();
}

class LookupSides {
public:
    LookupSides() : _bus({DaemonFixture::kReplyTopic, kAnswers, kBareReplies}), _daemon(_bus) {
        for (int gauge = 0; gauge <= kFurtherGauges; ++gauge) {
            RecordedDay::write(dataFile(gauge), kDate);
        }
        _bareLookup.start({{BARE_LOOKUP_PROGRAM, _bus.broker().socketPath(), kBareRequests,
                            kBareReplies, dataFile(0).toStdString(),
                            std::to_string(RecordedDay::midnight(kDate) + kStartSecond)},
                           {},
                           0});
        _bus.waitUntilAnswered({kBareRequests, {"ready?"}, 0});
    }

    /// One gauge, from the request to the end message.
    void measureOne(benchmark::State& state) {
        PairedTiming timing(kLookups);
        for (auto _ : state) {
            state.SetIterationTime(timing.turn([&] { repeat(kCommands, lookupOf(1), 1); },
                                               [&] { repeat(kBareRequests, "lookup", 1); }));
        }
        timing.report(state);
    }

    /// What each further gauge costs, beside the bare loop over its file.
    void measureFurther(benchmark::State& state) {
        std::vector<double> ratios;
        std::vector<double> ours;
        for (auto _ : state) {
            PairedTiming gauges(1);
            const double all = gauges.turn(
                [&] { repeat(kCommands, lookupOf(1 + kFurtherGauges), 1 + kFurtherGauges); },
                [] {});
            const double one = gauges.turn([&] { repeat(kCommands, lookupOf(1), 1); }, [] {});
            const double bare = gauges.turn([] { scanFurther(); }, [] {});
            state.SetIterationTime(all);
            ours.push_back((all - one) / (kLookups * kFurtherGauges));
            ratios.push_back((all - one) / kLookups / bare);
        }
        state.counters["ratio"] = PairedTiming::median(ratios);
        state.counters["ours_ns"] = PairedTiming::median(ours) * 1e9;
    }

private:
    static void scanFurther() {
        std::array<float, RecordedDay::kMinutes> values;
        for (int gauge = 1; gauge <= kFurtherGauges; ++gauge) {
            const int count =
                RecordedDay::bareLookup(dataFile(gauge).toLatin1(),
                                        RecordedDay::midnight(kDate) + kStartSecond, values.data());
            if (count != RecordedDay::kMinutes) {
                throw std::runtime_error("the bare loop found something else");
            }
        }
    }

    /// Lookups one after the other; each has an answer a gauge and an end.
    void repeat(const char* topic, const std::string& request, std::size_t gauges) {
        RawBusClient& client = _bus.client();
        for (int i = 0; i < kLookups; ++i) {
            client.deliveries.clear();
            client.publish(topic, request);
            if (!client.pumpUntil([&] { return client.deliveries.size() > gauges; },
                                  BusFixture::kAnswerMilliseconds)) {
                throw std::runtime_error("a lookup was not answered");
            }
            if (client.deliveries.front().payload.size() < RecordedDay::kMinutes * sizeof(float)) {
                throw std::runtime_error("a lookup found too little");
            }
        }
        client.deliveries.clear();
    }

    BusFixture _bus;
    DaemonFixture _daemon;
    ChildProcess _bareLookup;
};

/// No broker and another store: told beside the others, compared with nothing.
void sqlRange(benchmark::State& state) {
    SqlPeer peer(kDate);
    for (auto _ : state) {
        benchmark::DoNotOptimize(peer.openAndQueryHalfHour(kStartSecond));
    }
}

void roundRobinFetch(benchmark::State& state) {
    RoundRobinPeer peer(kDate);
    peer.clear();
    peer.update();
    for (auto _ : state) {
        peer.fetchHalfHour(kStartSecond);
    }
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    pinToOneCore();
    LookupSides sides;
    benchmark::RegisterBenchmark("lookupOfOneGauge", [&](benchmark::State& state) {
        sides.measureOne(state);
    })->UseManualTime();
    benchmark::RegisterBenchmark("eachFurtherGauge", [&](benchmark::State& state) {
        sides.measureFurther(state);
    })->UseManualTime();
    benchmark::RegisterBenchmark("sqlRange", sqlRange);
    benchmark::RegisterBenchmark("roundRobinFetch", roundRobinFetch);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}

#include "bench/BusFixture.h"

#include <benchmark/benchmark.h>

#include <poll.h>

#include <cstring>
#include <stdexcept>

namespace {

constexpr double kMebibyte = 1024 * 1024;
constexpr int kUnreadRequests = 10'000;
/// After this time without a job every wait of the daemon lasts 25 s.
constexpr int kSettleMilliseconds = 20'000;
constexpr int kWindowMilliseconds = 30'000;

/// Looks no closer than the program's start, so that a test does not take a minute.
bool g_isQuick = false;

/// How often the daemon wakes up for each keep-alive that is all that it gets.
void wakeUpsWhenIdle(benchmark::State& state) {
    for (auto _ : state) {
        BusFixture bus({DaemonFixture::kReplyTopic});
        DaemonFixture daemon(bus);
        RawBusClient answers(bus.broker().socketPath());
        answers.subscribe(daemon.process().replyTopic());
        if (!answers.connect(BusFixture::kAnswerMilliseconds)) {
            throw std::runtime_error("no connection to the broker");
        }
        answers.sendKeepAlivesOn(daemon.process().commandTopic());
        bus.client().sendKeepAlivesOn("");
        answers.pump(g_isQuick ? 0 : kSettleMilliseconds);
        answers.deliveries.clear();
        const std::int64_t switchesBefore = daemon.process().voluntarySwitches();
        const double cpuBefore = daemon.process().cpuSeconds();
        answers.pump(g_isQuick ? 500 : kWindowMilliseconds);
        state.counters["wakeups"] =
            static_cast<double>(daemon.process().voluntarySwitches() - switchesBefore);
        state.counters["deliveries"] = static_cast<double>(answers.deliveries.size());
        state.counters["cpu_ms"] = (daemon.process().cpuSeconds() - cpuBefore) * 1e3;
    }
}

/// The daemon's memory against a program that only loads the same libraries, both running.
void memoryWhenIdle(benchmark::State& state) {
    for (auto _ : state) {
        BusFixture bus({DaemonFixture::kReplyTopic});
        DaemonFixture daemon(bus);
        ChildProcess baseline;
        baseline.start({{BASELINE_PROGRAM}, {}, 0});
        bus.client().pump(500);
        const auto resident = static_cast<double>(daemon.process().residentBytes());
        const auto baselineResident = static_cast<double>(baseline.residentBytes());
        state.counters["ratio"] = resident / baselineResident;
        state.counters["ours_MiB"] = resident / kMebibyte;
        state.counters["peer_MiB"] = baselineResident / kMebibyte;
        state.counters["private_MiB"] =
            static_cast<double>(daemon.process().privateBytes()) / kMebibyte;
        state.counters["peer_private_MiB"] =
            static_cast<double>(baseline.privateBytes()) / kMebibyte;
    }
}

/// Pauses until a process has done nothing for a fifth of a second.
void waitUntilIdle(const ChildProcess& process) {
    double before = -1;
    for (double now = process.cpuSeconds(); now != before; now = process.cpuSeconds()) {
        before = now;
        poll(nullptr, 0, 200);
    }
}

/// How far the daemon's memory grows while a client sends reads and reads no answer. The answers
/// are counted afterwards: none may be missing.
void growthUnderUnreadAnswers(benchmark::State& state) {
    for (auto _ : state) {
        BusFixture bus({DaemonFixture::kReplyTopic});
        DaemonFixture daemon(bus);
        const BusFixture::Request read = daemon.openForReading();
        const std::int64_t before = daemon.process().residentBytes();
        for (std::size_t i = 0; i < kUnreadRequests; ++i) {
            bus.client().publish(read.topic, read.payloads[i % read.payloads.size()]);
            bus.client().flush(BusFixture::kAnswerMilliseconds);
        }
        waitUntilIdle(daemon.process());
        const std::int64_t after = daemon.process().peakResidentBytes();
        if (!bus.client().pumpUntil(
                [&] { return bus.client().deliveries.size() >= kUnreadRequests; },
                BusFixture::kAnswerMilliseconds)) {
            throw std::runtime_error("answers are missing");
        }
        state.counters["growth_MiB"] = static_cast<double>(after - before) / kMebibyte;
    }
}

BENCHMARK(wakeUpsWhenIdle)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(memoryWhenIdle)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(growthUnderUnreadAnswers)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1 && std::strcmp(argv[argc - 1], "--quick") == 0) {
        g_isQuick = true;
        --argc;
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}

#include "bench/BusFixture.h"
#include "bench/PairedTiming.h"
#include "bench/SftpPeer.h"

#include <fstream>

namespace {

constexpr int kRequests = 160;
constexpr char kBareRequests[] = "bare/request";
constexpr char kBareReplies[] = "bare/reply";

class RemoteRead {
public:
    RemoteRead() : _bus({DaemonFixture::kReplyTopic, kBareReplies}), _daemon(_bus) {
        const BusFixture::Request read = _daemon.openForReading();
        _echoRequest = {kBareRequests, read.payloads, read.answerBytes};
        _bareEcho.start({{BARE_ECHO_PROGRAM, _bus.broker().socketPath(), kBareRequests,
                          kBareReplies, std::to_string(read.answerBytes)},
                         {},
                         0});
        _bus.waitUntilAnswered(_echoRequest);
    }

    /// Against the bare echo; state.range(0) requests under way.
    void measure(benchmark::State& state) {
        const int underWay = static_cast<int>(state.range(0));
        const BusFixture::Request read = _daemon.openForReading();
        PairedTiming timing(kRequests);
        std::vector<double> cpuRatios;
        std::vector<double> cpuSeconds;
        for (auto _ : state) {
            const double daemonBefore = _daemon.process().cpuSeconds();
            const double echoBefore = _bareEcho.cpuSeconds();
            state.SetIterationTime(
                timing.turn([&] { _bus.exchange(read, kRequests, underWay); },
                            [&] { _bus.exchange(_echoRequest, kRequests, underWay); }));
            cpuSeconds.push_back(_daemon.process().cpuSeconds() - daemonBefore);
            cpuRatios.push_back(cpuSeconds.back() / (_bareEcho.cpuSeconds() - echoBefore));
        }
        timing.report(state);
        state.counters["rate_ratio"] = 1 / state.counters["ratio"];
        state.counters["cpu_ratio"] = PairedTiming::median(cpuRatios);
        state.counters["cpu_ns"] = PairedTiming::median(cpuSeconds) / kRequests * 1e9;
    }

private:
    BusFixture _bus;
    DaemonFixture _daemon;
    ChildProcess _bareEcho;
    BusFixture::Request _echoRequest;
};

/// No broker and another protocol: told beside the others, compared with nothing.
void readOverSftp(benchmark::State& state) {
    if (SftpPeer::program().empty()) {
        state.SkipWithError("no sftp-server installed (package openssh-sftp-server)");
        return;
    }
    const std::string path = "/root/data/sftp.bin";
    std::ofstream(path) << std::string(DaemonFixture::kFileBytes, 'x');
    SftpPeer peer(path);
    const double cpuBefore = peer.cpuSeconds();
    for (auto _ : state) {
        peer.exchange(kRequests, static_cast<int>(state.range(0)));
    }
    const double requests = static_cast<double>(state.iterations()) * kRequests;
    state.counters["ns"] =
        benchmark::Counter(requests, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    state.counters["cpu_ns"] = (peer.cpuSeconds() - cpuBefore) / requests * 1e9;
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    pinToOneCore();
    RemoteRead remoteRead;
    benchmark::RegisterBenchmark("remoteRead",
                                 [&](benchmark::State& state) { remoteRead.measure(state); })
        ->Arg(1)
        ->Arg(16)
        ->UseManualTime();
    benchmark::RegisterBenchmark("readOverSftp", readOverSftp)->Arg(1)->Arg(16)->UseRealTime();
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}

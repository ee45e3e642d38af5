#include "bench/PairedTiming.h"
#include "bus/Message.h"
#include "filesystem/FileProtocol.h"

#include <cstring>
#include <string>

namespace {

constexpr int kBlockBytes = 4096;
constexpr int kOperations = 2000;
constexpr double kAllowanceSeconds = 100e-9;

const std::string g_block(kBlockBytes, 'x');

void construct(Message& message) {
    message.construct(MESSAGE_FILE_READ, "iiB", 7, 8192, kBlockBytes, g_block.data());
}

/// The peer of both directions: the reply's bytes, copied.
void copyBytes(const char* bytes, std::size_t length, char* target) {
    for (int i = 0; i < kOperations; ++i) {
        std::memcpy(target, bytes, length);
        benchmark::DoNotOptimize(target);
        benchmark::ClobberMemory();
    }
}

void encodeReadReply(benchmark::State& state) {
    PairedTiming timing(kOperations, kAllowanceSeconds);
    Message reply;
    construct(reply);
    std::string target(static_cast<std::size_t>(reply.length()), '\0');
    for (auto _ : state) {
        state.SetIterationTime(timing.turn(
            [] {
                for (int i = 0; i < kOperations; ++i) {
                    Message message;
                    construct(message);
                    benchmark::DoNotOptimize(message.buffer());
                    benchmark::ClobberMemory();
                }
            },
            [&] { copyBytes(reply.buffer(), target.size(), target.data()); }));
    }
    timing.report(state);
}

void decodeReadReply(benchmark::State& state) {
    PairedTiming timing(kOperations, kAllowanceSeconds);
    Message reply;
    construct(reply);
    std::string target(static_cast<std::size_t>(reply.length()), '\0');
    for (auto _ : state) {
        state.SetIterationTime(timing.turn(
            [&] {
                for (int i = 0; i < kOperations; ++i) {
                    Message message;
                    message.construct(reply.buffer(), reply.length());
                    int length = 0;
                    benchmark::DoNotOptimize(message.parameterAsInt32(0));
                    benchmark::DoNotOptimize(message.parameterAsInt32(1));
                    benchmark::DoNotOptimize(message.parameterAsBLOB(2, length));
                    benchmark::ClobberMemory();
                }
            },
            [&] { copyBytes(reply.buffer(), target.size(), target.data()); }));
    }
    timing.report(state);
}

BENCHMARK(encodeReadReply)->UseManualTime();
BENCHMARK(decodeReadReply)->UseManualTime();

}  // namespace

BENCHMARK_MAIN();

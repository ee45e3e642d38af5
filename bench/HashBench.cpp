#include "bench/PairedTiming.h"
#include "hashing/FileHashManager.h"

#include <QCryptographicHash>
#include <QFile>
#include <QTemporaryFile>

#include <stdexcept>

namespace {

constexpr int kFileBytes = 4 * 1024 * 1024;
constexpr int kOffset = 1000;
constexpr int kLength = kFileBytes - 2 * kOffset;
constexpr qint64 kReadBytes = 8192;

QByteArray bareDigest(QFile& file) {
    file.seek(kOffset);
    QCryptographicHash hash(QCryptographicHash::Md5);
    char buffer[kReadBytes];
    for (qint64 left = kLength; left > 0;) {
        const qint64 count = file.read(buffer, qMin(left, kReadBytes));
        if (count < 1) {
            return {};
        }
        hash.addData(QByteArrayView(buffer, count));
        left -= count;
    }
    return hash.result();
}

void digestOfRange(benchmark::State& state) {
    QTemporaryFile file;
    if (!file.open() || file.write(QByteArray(kFileBytes, 'x')) != kFileBytes || !file.flush()) {
        throw std::runtime_error("no file to hash");
    }
    PairedTiming timing(1);
    QByteArray ours;
    QByteArray peer;
    for (auto _ : state) {
        state.SetIterationTime(
            timing.turn([&] { ours = FileHashManager::calculateFileHash(file, kOffset, kLength); },
                        [&] { peer = bareDigest(file); }));
        if (ours.isEmpty() || ours != peer) {
            throw std::runtime_error("the digests differ");
        }
    }
    timing.report(state);
}

BENCHMARK(digestOfRange)->UseManualTime();

}  // namespace

BENCHMARK_MAIN();

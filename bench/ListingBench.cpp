#include "bench/ListingPeers.h"
#include "bench/PairedTiming.h"
#include "bus/DebugText.h"
#include "bus/ForkedChild.h"
#include "hashing/FileHashManager.h"

#include <QDir>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <stdexcept>

namespace {

constexpr int kFilesEach = 1000;
int g_folders = 100;
const QString kOut = QStringLiteral("/root/data/out");

void dropLine(const char*, std::size_t) {}

void require(bool isGood, const char* what) {
    if (!isGood) {
        throw std::runtime_error(what);
    }
}

/// Makes a card of empty files, once: 100,000 unless it has to be quick.
void fillCard() {
    static const bool isFilled = [] {
        DebugText::setSink(dropLine);
        QDir().mkpath("/root/data/user1");
        for (int folder = 0; folder < g_folders; ++folder) {
            const QByteArray path = "/mmc/2024-" + QByteArray::number(folder);
            QDir().mkpath(path);
            for (int file = 0; file < kFilesEach; ++file) {
                const QByteArray name = path + "/flow-" + QByteArray::number(file) + ".gdf";
                require(::mknod(name.constData(), S_IFREG | 0644, 0) == 0, "cannot make a file");
            }
        }
        return true;
    }();
    require(isFilled, "no card");
}

/// The lines alone, not forced to storage.
void writeLines(const QString& root) {
    QFile out(kOut);
    require(out.open(QIODevice::WriteOnly | QIODevice::Unbuffered), "cannot write");
    FileHashManager::generateFileListingHelper(out, root, -1, -1);
}

void linesBesideBareWalk(benchmark::State& state) {
    fillCard();
    PairedTiming timing(1);
    qint64 ours = 0;
    qint64 peer = 0;
    for (auto _ : state) {
        state.SetIterationTime(
            timing.turn([&] { writeLines("/mmc"); },
                        [&] { ListingPeers::bareWalk("/mmc", "/root/data/bare"); }));
        ours = QFile(kOut).size();
        peer = QFile("/root/data/bare").size();
        require(ours == peer && ours > 0, "the listings differ in length");
    }
    timing.report(state);
}

void listingBesideFindAndSort(benchmark::State& state) {
    fillCard();
    PairedTiming timing(1);
    for (auto _ : state) {
        QString path;
        state.SetIterationTime(timing.turn(
            [&] { path = FileHashManager::generateFileListing("user1", "/mmc", -1, -1); },
            [&] { ListingPeers::findAndSort("/mmc", "/root/data/found"); }));
        require(QFile(path).size() == QFile("/root/data/found").size(),
                "the listings differ in length");
    }
    timing.report(state);
}

/// A value of /proc/self/status, in bytes.
double statusBytes(const std::string& field) {
    std::ifstream file("/proc/self/status");
    std::string word;
    while (file >> word) {
        if (word == field + ':') {
            double kilobytes = 0;
            file >> kilobytes;
            return kilobytes * 1024;
        }
    }
    throw std::runtime_error("no such field");
}

/// How far the memory of a listing's child grows beyond what it starts with.
void memoryOfChild(benchmark::State& state) {
    fillCard();
    const QString root = state.range(0) == 1 ? "/mmc/2024-0" : "/mmc";
    double most = 0;
    for (auto _ : state) {
        int channel[2];
        require(::pipe(channel) == 0, "no pipe");
        if (ForkedChild::start() == 0) {
            const double before = statusBytes("VmRSS");
            writeLines(root);
            const double grown = statusBytes("VmHWM") - before;
            const bool isSent = ::write(channel[1], &grown, sizeof grown) == sizeof grown;
            _exit(isSent ? 0 : 1);
        }
        double grown = 0;
        require(::read(channel[0], &grown, sizeof grown) == sizeof grown, "no word from the child");
        ::close(channel[0]);
        ::close(channel[1]);
        ::wait(nullptr);
        most = std::max(most, grown);
    }
    state.counters["files"] = static_cast<double>(state.range(0)) * kFilesEach;
    state.counters["growth_MiB"] = most / (1024 * 1024);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1 && std::strcmp(argv[argc - 1], "--quick") == 0) {
        g_folders = 3;
        --argc;
    }
    benchmark::RegisterBenchmark("linesBesideBareWalk", linesBesideBareWalk)->UseManualTime();
    benchmark::RegisterBenchmark("listingBesideFindAndSort", listingBesideFindAndSort)
        ->UseManualTime();
    benchmark::RegisterBenchmark("memoryOfChild", memoryOfChild)
        ->Arg(1)
        ->Arg(g_folders)
        ->Iterations(1);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}

#include "bench/PairedTiming.h"
#include "bus/DebugText.h"
#include "core/Signals.h"
#include "filesystem/Filesystem.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>
#include <string>

namespace {

namespace fs = std::filesystem;

constexpr int kFiles = 400;
constexpr std::size_t kFileBytes = 50 * 1024;
constexpr char kFolder[] = "/root/config/panel";
constexpr char kArchive[] = "/root/config/site.configBackup";
constexpr char kPeerArchive[] = "/root/config/peer.tgz";

/// Text as configuration is: tags that repeat, numbers that do not.
std::string page(std::mt19937& random) {
    std::string text = "<page>\n";
    while (text.size() < kFileBytes) {
        text += "  <field name=\"gauge" + std::to_string(random() % 500) + "\" limit=\"" +
                std::to_string(random()) + "\" unit=\"bar\"/>\n";
    }
    text.resize(kFileBytes);
    return text;
}

void writeFolder() {
    std::mt19937 random(1);
    for (int i = 0; i < kFiles; ++i) {
        const std::string folder = std::string(kFolder) + "/area" + std::to_string(i % 20);
        fs::create_directories(folder);
        std::ofstream(folder + "/page" + std::to_string(i)) << page(random);
    }
}

void require(bool isDone, const char* what) {
    if (!isDone) {
        throw std::runtime_error(what);
    }
}

/// A configuration folder of 20 MB, from the call until the archive is in storage under its name.
void archiveOfFolder(benchmark::State& state) {
    writeFolder();
    // As in the daemon, whose wait for tar the end of a child ends.
    DebugText::setSink([](const char*, std::size_t) {});
    installSignalHandlers();
    PairedTiming timing(1);
    for (auto _ : state) {
        state.SetIterationTime(timing.turn(
            [] {
                require(Filesystem::createConfigBackupFile(QStringLiteral("panel"),
                                                           QStringLiteral("site.configBackup")),
                        "no archive");
            },
            [] {
                const std::string command =
                    std::string("tar czf ") + kPeerArchive + " -C / root/config/panel";
                require(std::system(command.c_str()) == 0, "no archive of the peer's");
            }));
        require(fs::exists(kArchive), "no archive");
        const auto ours = static_cast<double>(fs::file_size(kArchive));
        const auto peer = static_cast<double>(fs::file_size(kPeerArchive));
        require(ours > 0.98 * peer && ours < 1.02 * peer, "the archives differ");
        fs::remove(kArchive);
    }
    timing.report(state);
}

BENCHMARK(archiveOfFolder)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();

#include "tests/fuzz/UnitRoots.h"

#include "tests/fuzz/Require.h"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>

#include <sys/resource.h>
#include <sys/stat.h>

namespace {

namespace fs = std::filesystem;

constexpr const char* kRoots[] = {"/root/data", "/root/config", "/mmc"};
/// The fuzzer's own files fall under the limit too; a merge writes one of a megabyte and more.
constexpr rlim_t kLongestFileBytes = 8 * 1024 * 1024;

void write(const char* path, std::size_t bytes) {
    std::ofstream(path) << std::string(bytes, 'x');
}

bool isUnderRoots(const std::string& path) {
    return path.starts_with("/root/data/") || path.starts_with("/root/config/") ||
           path.starts_with("/mmc");
}

/// Names that begin with "/mmc" are allowed beside the folder itself.
void removeCards() {
    for (const fs::directory_entry& entry : fs::directory_iterator("/")) {
        const std::string name = entry.path().filename();
        if (name.starts_with("mmc") && name != "mmc") {
            fs::remove_all(entry.path());
        }
    }
}

}  // namespace

UnitRoots::UnitRoots() {
    for (const char* root : kRoots) {
        REQUIRE(fs::is_directory(root) && fs::is_empty(root));
    }
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{kLongestFileBytes, kLongestFileBytes};
    REQUIRE(setrlimit(RLIMIT_FSIZE, &limit) == 0);
}

void UnitRoots::reset() const {
    for (const char* root : kRoots) {
        for (const fs::directory_entry& entry : fs::directory_iterator(root)) {
            fs::remove_all(entry.path());
        }
    }
    removeCards();
    write("/root/data/short.gdf", 10);
    write("/root/data/long.gdf", 9000);
    fs::create_directory("/root/data/folder");
    write("/root/data/folder/inner.txt", 100);
    write("/root/data/folder/.hidden", 1);
    REQUIRE(mkfifo("/root/data/fifo", 0600) == 0);
    fs::create_symlink("loop", "/root/data/loop");
    write("/root/config/job.xml", 50);
    write("/mmc/card.bin", 3000);
}

UnitRoots::Descriptors UnitRoots::descriptors() {
    Descriptors count;
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        const std::string target = fs::read_symlink(entry.path(), gone);
        count.underRoots += isUnderRoots(target) ? 1 : 0;
        ++count.all;
    }
    return count;
}

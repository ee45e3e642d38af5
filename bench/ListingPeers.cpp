#include "bench/ListingPeers.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <charconv>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <vector>

namespace {

constexpr std::size_t kBlockBytes = 64 * 1024;

void require(bool isGood, const char* what) {
    if (!isGood) {
        throw std::runtime_error(what);
    }
}

class BareWalk {
public:
    explicit BareWalk(int out) : _out(out) {}

    void addTree(const std::string& directory) {
        const int descriptor = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        require(descriptor >= 0, "cannot open a directory");
        std::vector<char> block(kBlockBytes);
        long count = 0;
        while ((count = ::syscall(SYS_getdents64, descriptor, block.data(), block.size())) > 0) {
            for (long offset = 0; offset < count;) {
                const auto* const entry = reinterpret_cast<const dirent64*>(block.data() + offset);
                add(directory, descriptor, *entry);
                offset += entry->d_reclen;
            }
        }
        ::close(descriptor);
    }

    void flush() {
        require(::write(_out, _lines.data(), _lines.size()) == static_cast<ssize_t>(_lines.size()),
                "cannot write");
        _lines.clear();
    }

private:
    void add(const std::string& directory, int descriptor, const dirent64& entry) {
        if (entry.d_name[0] == '.') {
            return;
        }
        if (entry.d_type == DT_DIR) {
            addTree(directory + '/' + entry.d_name);
            return;
        }
        struct statx status;
        require(::statx(descriptor, entry.d_name, 0, STATX_SIZE | STATX_MTIME, &status) == 0,
                "cannot look at a file");
        addNumber(status.stx_size);
        addNumber(static_cast<std::uint64_t>(status.stx_mtime.tv_sec));
        _lines.append(directory).append(1, '/').append(entry.d_name).append(1, '\n');
        if (_lines.size() >= kBlockBytes) {
            flush();
        }
    }

    void addNumber(std::uint64_t number) {
        char digits[20];
        _lines.append(digits, std::to_chars(digits, std::end(digits), number).ptr);
        _lines += ',';
    }

    int _out;
    std::string _lines;
};

}  // namespace

void ListingPeers::bareWalk(const std::string& root, const char* out) {
    const int descriptor = ::open(out, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    require(descriptor >= 0, "cannot open");
    BareWalk walk(descriptor);
    walk.addTree(root);
    walk.flush();
    ::close(descriptor);
}

void ListingPeers::findAndSort(const std::string& root, const std::string& out) {
    const std::string command =
        "find " + root + " -type f -printf '%s,%Ts,%p\\n' | LC_ALL=C sort -t, -k3 >" + out;
    require(std::system(command.c_str()) == 0, "no find or sort");
}

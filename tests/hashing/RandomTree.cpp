#include "tests/hashing/RandomTree.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <stdexcept>

namespace {

constexpr int kDeepest = 4;
constexpr unsigned kMostEntries = 8;
constexpr int kMostLinksToFolders = 3;

void require(bool isGood) {
    if (!isGood) {
        throw std::runtime_error("the tree cannot be made");
    }
}

}  // namespace

unsigned RandomTree::below(unsigned limit) {
    return static_cast<unsigned>(_random()) % limit;
}

std::string RandomTree::name() {
    static const std::vector<std::string> kPieces = {
        "a",          "b",          "A",          "Z",       "z",      "0",      "10",     "9",
        "_",          "-",          ",",          " ",       "\\",     "\n",     "~",      ".",
        "\u00E9",     "\u00DF",     "\u65E5",     "\u20AC",  "\uD7FF", "\uE000", "\uFB00", "\uFFFD",
        "\U00010000", "\U0001F600", "\U0010FFFF", "e\u0301", "\xC3",   "\xE9",   "\x7F",   "\x01"};
    std::string result;
    for (unsigned pieces = 1 + below(3); pieces > 0; --pieces) {
        result += kPieces[below(static_cast<unsigned>(kPieces.size()))];
    }
    return result;
}

void RandomTree::fill(const std::string& folder, int depth) {
    _folders.push_back(folder);
    for (unsigned entries = below(kMostEntries + 1); entries > 0; --entries) {
        const std::string path = folder + '/' + name();
        struct stat status;
        if (::lstat(path.c_str(), &status) != 0) {
            add(path, depth);
        }
    }
}

void RandomTree::add(const std::string& path, int depth) {
    const unsigned kind = below(20);
    if (kind < 8) {
        addFile(path);
    } else if (kind < 14 && depth < kDeepest) {
        require(::mkdir(path.c_str(), 0755) == 0);
        fill(path, depth + 1);
    } else if (kind < 19) {
        addLink(path);
    } else {
        require(::mkfifo(path.c_str(), 0600) == 0);
        _others.push_back(path);
    }
}

void RandomTree::addFile(const std::string& path) {
    const int descriptor = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    require(descriptor >= 0);
    const timespec times[2] = {{0, 0}, {static_cast<time_t>(_random()), 0}};
    require(::ftruncate(descriptor, below(2'000'000)) == 0 && ::futimens(descriptor, times) == 0);
    ::close(descriptor);
    _others.push_back(path);
}

void RandomTree::addLink(const std::string& path) {
    const bool isToFolder = _linksToFolders < kMostLinksToFolders && below(2) == 0;
    _linksToFolders += isToFolder ? 1 : 0;
    const std::vector<std::string>& targets = isToFolder ? _folders : _others;
    const std::string& target = targets[below(static_cast<unsigned>(targets.size()))];
    require(::symlink(target.c_str(), path.c_str()) == 0);
}

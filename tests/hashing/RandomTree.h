#pragma once

#include <random>
#include <string>
#include <vector>

/// A directory tree of everything that a card may hold: names in any case and script, hidden ones
/// and such as are no text at all, files, directories, links to what is there and what is not, and
/// FIFOs. Links to folders are few, because the ways through them multiply. One seed makes one
/// tree.
class RandomTree {
public:
    explicit RandomTree(unsigned seed) : _random(seed) {}

    /// REQUIRES: an empty folder.
    void fill(const std::string& folder) { fill(folder, 0); }

private:
    unsigned below(unsigned limit);
    std::string name();
    void fill(const std::string& folder, int depth);
    void add(const std::string& path, int depth);
    void addFile(const std::string& path);
    void addLink(const std::string& path);

    std::mt19937 _random;
    std::vector<std::string> _folders = {"."};
    std::vector<std::string> _others = {"missing", "/dev/null"};
    int _linksToFolders = 0;
};

#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

/// Reads a download's stream of records as a second implementation does: own decompressor, own
/// numbers. It is strict: what a daemon would never send is a fault, and so is every byte too many.
class DownloadDecoder {
public:
    enum class Kind { File, EmptyFile, NothingLeft, Directory, EmptyDirectory, Error };

    struct DirectoryEntry {
        bool isDirectory = false;
        std::int32_t size = 0;
        std::uint32_t modified = 0;
        std::string name;
    };

    /// What was sent of one entry of the request.
    struct Item {
        Kind kind = Kind::Error;
        bool isResumed = false;
        std::string bytes;    ///< of a file, or an error's text
        std::string failure;  ///< an error that came after the first blocks
        std::vector<DirectoryEntry> entries;
        std::vector<std::size_t> blocks;  ///< the lengths of the raw blocks
    };

    struct Record {
        unsigned type = 0;
        std::size_t length = 0;
    };

    /// Takes the next piece of the stream, cut anywhere.
    void add(std::string_view piece);

    /// The end record has come, and nothing behind it.
    bool isComplete() const { return _hasEnded && _rest.empty() && _fault.empty(); }
    /// The first fault, empty where there is none.
    const std::string& fault() const { return _fault; }
    const std::vector<Item>& items() const { return _items; }
    const std::vector<Record>& records() const { return _records; }

private:
    bool takeRecord();
    void take(unsigned type, std::string_view payload);
    void takeEmpty(unsigned type);
    void takeError(std::string_view text);
    void takeBlock(unsigned type, std::string_view payload);
    void addFileBlock(Item& item, const std::string& block);
    void addDirectoryBlock(Item& item, const std::string& block);
    void fail(const std::string& what);

    std::string _rest;
    std::string _fault;
    bool _hasEnded = false;
    bool _isOpen = false;  ///< the last item may get another block
    std::vector<Item> _items;
    std::vector<Record> _records;
};

/// Expands an LZF block. False where it is damaged or expands to more than `limit` bytes.
bool expandLzf(std::string_view packed, std::size_t limit, std::string& expanded);

#include "tests/support/DownloadDecoder.h"

namespace {

constexpr std::size_t kBlock = 64512;
constexpr std::size_t kHeader = 3;
constexpr std::size_t kEntryHeader = 13;
constexpr unsigned kFirst = 4;
constexpr unsigned kDirectory = 8;
constexpr unsigned kResumed = 16;

unsigned byteAt(std::string_view bytes, std::size_t index) {
    return static_cast<unsigned char>(bytes[index]);
}

std::uint32_t numberAt(std::string_view bytes, std::size_t index) {
    return byteAt(bytes, index) | byteAt(bytes, index + 1) << 8 | byteAt(bytes, index + 2) << 16 |
           byteAt(bytes, index + 3) << 24;
}

}  // namespace

bool expandLzf(std::string_view packed, std::size_t limit, std::string& expanded) {
    expanded.clear();
    std::size_t at = 0;
    while (at < packed.size()) {
        const unsigned control = byteAt(packed, at++);
        if (control < 32) {
            const std::size_t literal = control + 1;
            if (literal > packed.size() - at || expanded.size() + literal > limit) {
                return false;
            }
            expanded.append(packed.substr(at, literal));
            at += literal;
            continue;
        }
        std::size_t length = control >> 5;
        if (length == 7) {
            if (at == packed.size()) {
                return false;
            }
            length += byteAt(packed, at++);
        }
        length += 2;
        if (at == packed.size()) {
            return false;
        }
        const std::size_t distance = ((control & 31) << 8 | byteAt(packed, at++)) + 1;
        if (distance > expanded.size() || expanded.size() + length > limit) {
            return false;
        }
        // One by one: the copy may reach into itself.
        for (std::size_t from = expanded.size() - distance; length > 0; ++from, --length) {
            expanded.push_back(expanded[from]);
        }
    }
    return true;
}

void DownloadDecoder::fail(const std::string& what) {
    if (_fault.empty()) {
        _fault = "record " + std::to_string(_records.size()) + ": " + what;
    }
}

void DownloadDecoder::add(std::string_view piece) {
    if (_hasEnded) {
        fail("a message after the end");
    }
    _rest.append(piece);
    while (_fault.empty() && takeRecord()) {
    }
}

bool DownloadDecoder::takeRecord() {
    if (_rest.size() < kHeader) {
        return false;
    }
    const std::size_t length = byteAt(_rest, 1) | byteAt(_rest, 2) << 8;
    if (_rest.size() < kHeader + length) {
        return false;
    }
    const unsigned type = byteAt(_rest, 0);
    const std::string payload = _rest.substr(kHeader, length);
    _rest.erase(0, kHeader + length);
    _records.push_back({type, length});
    if (_hasEnded) {
        fail("behind the end");
        return false;
    }
    take(type, payload);
    return true;
}

void DownloadDecoder::take(unsigned type, std::string_view payload) {
    if (type == 132) {
        takeError(payload);
    } else if (payload.empty()) {
        takeEmpty(type);
    } else {
        takeBlock(type, payload);
    }
}

void DownloadDecoder::takeEmpty(unsigned type) {
    _isOpen = false;
    if (type == 4) {
        _hasEnded = true;
        return;
    }
    Item item;
    if (type == 5) {
        item.kind = Kind::EmptyFile;
    } else if (type == 13) {
        item.kind = Kind::EmptyDirectory;
    } else if (type == 21) {
        item.kind = Kind::NothingLeft;
        item.isResumed = true;
    } else {
        fail("type " + std::to_string(type) + " without a payload");
    }
    _items.push_back(item);
}

void DownloadDecoder::takeError(std::string_view text) {
    if (text != "Missing" && text != "Open error" && text != "Read error") {
        fail("an error of another text: " + std::string(text));
    }
    if (text == "Read error" && _isOpen) {
        _items.back().failure = text;
    } else {
        Item item;
        item.bytes = text;
        _items.push_back(item);
    }
    _isOpen = false;
}

void DownloadDecoder::takeBlock(unsigned type, std::string_view payload) {
    const unsigned flags = type & (kFirst | kDirectory | kResumed);
    const unsigned form = type - flags;
    std::string block(payload);
    if (form == 2) {
        if (!expandLzf(payload, kBlock, block) || block.size() <= payload.size()) {
            return fail("a block that does not expand");
        }
    } else if (form != 1) {
        return fail("an unknown type " + std::to_string(type));
    }
    if (block.size() > kBlock) {
        return fail("a block that is too long");
    }
    const Kind kind = (flags & kDirectory) != 0 ? Kind::Directory : Kind::File;
    if ((flags & kFirst) != 0) {
        _items.push_back({});
        _items.back().kind = kind;
        _items.back().isResumed = (flags & kResumed) != 0;
        if (_items.back().isResumed && kind == Kind::Directory) {
            return fail("a directory that is resumed");
        }
        _isOpen = true;
    } else if (!_isOpen || _items.back().kind != kind || (flags & kResumed) != 0) {
        return fail("a further block of nothing");
    }
    Item& item = _items.back();
    if (kind == Kind::Directory) {
        addDirectoryBlock(item, block);
    } else {
        addFileBlock(item, block);
    }
    item.blocks.push_back(block.size());
}

void DownloadDecoder::addFileBlock(Item& item, const std::string& block) {
    if (!item.blocks.empty() && item.blocks.back() != kBlock) {
        return fail("a block behind one that is not full");
    }
    item.bytes += block;
}

void DownloadDecoder::addDirectoryBlock(Item& item, const std::string& block) {
    std::size_t at = 0;
    while (at < block.size()) {
        if (block.size() - at < kEntryHeader || byteAt(block, at) > 1) {
            return fail("a damaged entry");
        }
        DirectoryEntry entry;
        entry.isDirectory = byteAt(block, at) == 1;
        entry.size = static_cast<std::int32_t>(numberAt(block, at + 1));
        entry.modified = numberAt(block, at + 5);
        const std::size_t length = numberAt(block, at + 9);
        if (length == 0 || length > block.size() - at - kEntryHeader) {
            return fail("an entry's name that does not end");
        }
        entry.name = block.substr(at + kEntryHeader, length);
        // The last block held as many entries as fit.
        if (at == 0 && !item.blocks.empty() &&
            item.blocks.back() + kEntryHeader + length <= kBlock) {
            return fail("an entry that had room in the block before");
        }
        at += kEntryHeader + length;
        item.entries.push_back(entry);
    }
}

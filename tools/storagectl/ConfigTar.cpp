#include "tools/storagectl/ConfigTar.h"

#include <QList>

#include <algorithm>
#include <limits>
#include <utility>

namespace storagectl {

namespace {

constexpr qsizetype kBlockBytes = 512;
constexpr int kZeroBlocksAtEnd = 2;
constexpr qint64 kMostExtensionBytes = 1024 * 1024;
constexpr int kModeBits = 07777;

constexpr char kOldFile = '\0';
constexpr char kFile = '0';
constexpr char kHardLink = '1';
constexpr char kLink = '2';
constexpr char kFolder = '5';
constexpr char kContiguousFile = '7';
constexpr char kLongName = 'L';
constexpr char kLongTarget = 'K';
constexpr char kRecords = 'x';

struct Field {
    qsizetype offset;
    qsizetype length;
};

constexpr Field kName{0, 100};
constexpr Field kMode{100, 8};
constexpr Field kSize{124, 12};
constexpr Field kModified{136, 12};
constexpr Field kChecksum{148, 8};
constexpr qsizetype kType = 156;
constexpr Field kTarget{157, 100};
constexpr Field kMagic{257, 6};
constexpr Field kPrefix{345, 155};

QByteArray untilZero(const QByteArray& bytes) {
    return bytes.left(bytes.indexOf('\0') < 0 ? bytes.size() : bytes.indexOf('\0'));
}

QByteArray textOf(const QByteArray& block, Field field) {
    return untilZero(block.mid(field.offset, field.length));
}

/// Large numbers stand in binary, marked by the first bit.
std::optional<qint64> binaryNumber(const QByteArray& bytes) {
    qint64 number = bytes[0] & 0x3F;
    const bool isNegative = (bytes[0] & 0x40) != 0;
    for (const char byte : bytes.mid(1)) {
        if (number > std::numeric_limits<qint64>::max() >> 8) {
            return std::nullopt;
        }
        number = (number << 8) | static_cast<unsigned char>(byte);
    }
    return isNegative ? std::nullopt : std::optional(number);
}

bool isAllOf(const QByteArray& text, char first, char last) {
    return !text.isEmpty() && std::all_of(text.cbegin(), text.cend(), [=](char letter) {
        return letter >= first && letter <= last;
    });
}

/// In octal digits with blanks in front or behind; nothing where it is no such number. Signs and
/// prefixes mean one thing to one reader, and another to the next.
std::optional<qint64> numberOf(const QByteArray& block, Field field) {
    const QByteArray bytes = block.mid(field.offset, field.length);
    if ((bytes[0] & 0x80) != 0) {
        return binaryNumber(bytes);
    }
    const QByteArray digits = untilZero(bytes).trimmed();
    if (digits.isEmpty()) {
        return 0;
    }
    return isAllOf(digits, '0', '7') ? std::optional(digits.toLongLong(nullptr, 8)) : std::nullopt;
}

bool hasItsChecksum(const QByteArray& block) {
    qint64 sum = 0;
    for (qsizetype i = 0; i < block.size(); ++i) {
        const bool isOfChecksum = i >= kChecksum.offset && i < kChecksum.offset + kChecksum.length;
        sum += isOfChecksum ? ' ' : static_cast<unsigned char>(block[i]);
    }
    return numberOf(block, kChecksum) == sum;
}

QByteArray nameOf(const QByteArray& block) {
    const QByteArray prefix = textOf(block, kPrefix);
    const bool isPosix = textOf(block, kMagic) == "ustar";
    const QByteArray name = textOf(block, kName);
    return isPosix && !prefix.isEmpty() ? prefix + '/' + name : name;
}

std::optional<TarMember::Kind> kindOf(char type) {
    switch (type) {
        case kOldFile:
        case kFile:
        case kContiguousFile:
            return TarMember::Kind::File;
        case kHardLink:
            return TarMember::Kind::HardLink;
        case kLink:
            return TarMember::Kind::Link;
        case kFolder:
            return TarMember::Kind::Folder;
        case '3':
        case '4':
        case '6':
            return TarMember::Kind::Special;
        default:
            return std::nullopt;
    }
}

std::optional<qint64> wholeNumber(const QByteArray& text) {
    bool fits = false;
    const qint64 number = text.toLongLong(&fits, 10);
    return fits && isAllOf(text, '0', '9') ? std::optional(number) : std::nullopt;
}

/// Whole seconds, of a time that may have a fraction or be long ago.
std::optional<qint64> secondsOf(const QByteArray& text) {
    bool fits = false;
    const qint64 seconds = text.split('.').first().toLongLong(&fits, 10);
    return fits ? std::optional(seconds) : std::nullopt;
}

}  // namespace

ConfigTar::ConfigTar(Found found) : _found(std::move(found)) {}

bool ConfigTar::isWhole() const {
    return _zeroBlocks >= kZeroBlocksAtEnd && _block.isEmpty() && _fault.isEmpty();
}

bool ConfigTar::add(const char* data, qsizetype length) {
    while (length > 0 && _fault.isEmpty()) {
        qsizetype step = 0;
        bool mayGoOn = true;
        if (_contentsLeft > 0) {
            step = static_cast<qsizetype>(qMin<qint64>(_contentsLeft, length));
            mayGoOn = takeContents(data, step);
        } else if (_paddingLeft > 0) {
            step = static_cast<qsizetype>(qMin<qint64>(_paddingLeft, length));
            _paddingLeft -= step;
        } else {
            step = qMin(kBlockBytes - _block.size(), length);
            _block.append(data, step);
            mayGoOn = _block.size() < kBlockBytes || takeBlock();
        }
        if (!mayGoOn) {
            return false;
        }
        data += step;
        length -= step;
    }
    return _fault.isEmpty();
}

bool ConfigTar::takeBlock() {
    const bool isZero = std::all_of(_block.cbegin(), _block.cend(), [](char b) { return b == 0; });
    bool mayGoOn = true;
    if (isZero) {
        ++_zeroBlocks;
    } else if (_zeroBlocks > 0) {
        mayGoOn = fail("something follows its end");
    } else {
        mayGoOn = takeHeader();
    }
    _block.clear();
    return mayGoOn;
}

bool ConfigTar::takeHeader() {
    const auto size = numberOf(_block, kSize);
    const auto mode = numberOf(_block, kMode);
    if (!hasItsChecksum(_block) || !size || !mode) {
        return fail("a member's header is damaged");
    }
    const char type = _block[kType];
    const bool isExtension = type == kLongName || type == kLongTarget || type == kRecords;
    _contentsLeft = isExtension ? *size : _extension.size.value_or(*size);
    _extensionType = isExtension ? type : '\0';
    if (isExtension && *size > kMostExtensionBytes) {
        return fail("a name in it is longer than any name can be");
    }
    if (!isExtension) {
        _member = {};
        _member.mode = static_cast<int>(*mode & kModeBits);
        _member.size = _contentsLeft;
        if (!takeMember(type)) {
            return false;
        }
    }
    _paddingLeft = (kBlockBytes - _contentsLeft % kBlockBytes) % kBlockBytes;
    return _contentsLeft > 0 || finishContents();
}

bool ConfigTar::takeMember(char type) {
    const auto kind = kindOf(type);
    if (!kind) {
        return fail("it has a kind of member that no backup has");
    }
    _member.kind = *kind;
    _member.name = _extension.name.value_or(nameOf(_block));
    _member.target = _extension.target.value_or(textOf(_block, kTarget));
    _member.modified = _extension.modified.value_or(numberOf(_block, kModified).value_or(-1));
    _extension = {};
    _digest.reset();
    if (_member.name.endsWith('/') && _member.kind == TarMember::Kind::File) {
        _member.kind = TarMember::Kind::Folder;
    }
    while (_member.name.size() > 1 && _member.name.endsWith('/')) {
        _member.name.chop(1);
    }
    if (_member.kind != TarMember::Kind::File && _member.size != 0) {
        return fail("a member without contents has a length");
    }
    return true;
}

bool ConfigTar::takeContents(const char* data, qsizetype length) {
    _contentsLeft -= length;
    if (_extensionType != 0) {
        _records.append(data, length);
    } else {
        _digest.addData(QByteArrayView(data, length));
    }
    return _contentsLeft > 0 || finishContents();
}

bool ConfigTar::finishContents() {
    if (_extensionType != 0) {
        return finishExtension();
    }
    if (_member.kind == TarMember::Kind::File) {
        _member.digest = _digest.result();
    }
    return _found(_member);
}

bool ConfigTar::finishExtension() {
    const QByteArray records = std::exchange(_records, {});
    if (_extensionType == kRecords) {
        return takeRecords(records);
    }
    return _extensionType == kLongName ? take(_extension.name, untilZero(records))
                                       : take(_extension.target, untilZero(records));
}

/// Said twice, readers differ in what counts.
bool ConfigTar::take(std::optional<QByteArray>& name, const QByteArray& value) {
    if (name) {
        return fail("a member has two names");
    }
    name = value;
    return true;
}

/// Each is "LENGTH KEY=VALUE\n", and LENGTH counts all of it.
bool ConfigTar::takeRecords(const QByteArray& records) {
    qsizetype at = 0;
    while (at < records.size()) {
        const qsizetype blank = records.indexOf(' ', at);
        const auto length = blank < 0 ? std::nullopt : wholeNumber(records.mid(at, blank - at));
        const bool fits = length && *length > blank - at + 1 && *length <= records.size() - at &&
                          records[at + static_cast<qsizetype>(*length) - 1] == '\n';
        if (!fits) {
            return fail("a member's extended header is damaged");
        }
        const QByteArray record =
            records.mid(blank + 1, at + static_cast<qsizetype>(*length) - blank - 2);
        const qsizetype equals = record.indexOf('=');
        if (equals < 0 || record.contains('\0')) {
            return fail("a member's extended header is damaged");
        }
        if (!takeRecord(record.left(equals), record.mid(equals + 1))) {
            return false;
        }
        at += static_cast<qsizetype>(*length);
    }
    return true;
}

bool ConfigTar::takeRecord(const QByteArray& key, const QByteArray& value) {
    if (key == "path") {
        return take(_extension.name, value);
    }
    if (key == "linkpath") {
        return take(_extension.target, value);
    }
    if (key == "mtime") {
        _extension.modified = secondsOf(value);
    } else if (key == "size") {
        _extension.size = wholeNumber(value);
        return _extension.size.has_value() || fail("a member's extended header is damaged");
    } else if (key.startsWith("GNU.sparse")) {
        return fail("it has a kind of member that no backup has");
    }
    return true;
}

bool ConfigTar::fail(const char* fault) {
    _fault = QString::fromLatin1(fault);
    return false;
}

}  // namespace storagectl

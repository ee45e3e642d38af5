#include "hashing/FileListing.h"

#include <QString>

#include <algorithm>
#include <charconv>
#include <limits>
#include <string_view>

namespace {

constexpr qsizetype kWriteBytes = 64 * 1024;

QByteArray toLatin1(std::string_view utf8) {
    return QString::fromUtf8(utf8.data(), static_cast<qsizetype>(utf8.size())).toLatin1();
}

bool isAscii(std::string_view text) {
    return std::all_of(text.begin(), text.end(),
                       [](char character) { return static_cast<signed char>(character) >= 0; });
}

template <typename Number>
void appendNumber(QByteArray& lines, Number number) {
    char digits[std::numeric_limits<Number>::digits10 + 2];
    const char* const end = std::to_chars(digits, std::end(digits), number).ptr;
    lines.append(digits, end - digits);
}

}  // namespace

void FileListing::addTree(const std::string& directory, const Progress& progress) {
    DirectoryEntries found(directory.c_str());
    const DirectoryEntries::Identity identity = found.identity();
    if (isOnTheWayDown(identity)) {
        return;
    }
    _wayDown.push_back(identity);
    found.read();
    const QByteArray writtenDirectory = toLatin1(directory);
    const int total = static_cast<int>(found.entries().size());
    int done = 0;
    if (progress) {
        progress(total, done);
    }
    for (const DirectoryEntries::Entry& entry : found.entries()) {
        if (progress) {
            progress(total, ++done);
        }
        if (entry.isFile) {
            addLine(entry, writtenDirectory, found.name(entry));
        } else if (entry.isDirectory) {
            addTree(directory + found.name(entry) + '/');
        }
    }
    _wayDown.pop_back();
}

void FileListing::flush() {
    qsizetype written = 0;
    // A device that is full takes the first part of a block without an error. After an error no
    // more is written: a device that had room again would forget it, and the listing have a hole.
    while (!_hasFailed && written < _lines.size()) {
        const qint64 count = _out.write(_lines.constData() + written, _lines.size() - written);
        _hasFailed = count <= 0;
        written += count;
    }
    _lines.resize(0);
}

bool FileListing::isOnTheWayDown(const DirectoryEntries::Identity& directory) const {
    return std::find(_wayDown.begin(), _wayDown.end(), directory) != _wayDown.end();
}

void FileListing::addLine(const DirectoryEntries::Entry& file, const QByteArray& directory,
                          const char* name) {
    appendNumber(_lines, file.size);
    _lines += ',';
    // The seconds are an unsigned 32-bit number, as everywhere in the unit's files.
    appendNumber(_lines, static_cast<quint32>(file.modified));
    _lines += ',';
    _lines += directory;
    if (isAscii(name)) {
        _lines += name;
    } else {
        _lines += toLatin1(name);
    }
    _lines += '\n';
    if (_lines.size() >= kWriteBytes) {
        flush();
    }
}

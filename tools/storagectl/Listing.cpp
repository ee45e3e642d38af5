#include "tools/storagectl/Listing.h"

#include <QString>

#include <algorithm>
#include <limits>

namespace storagectl {

namespace {

constexpr qint64 kLatestTime = std::numeric_limits<quint32>::max();

bool isNumber(QByteArrayView digits) {
    const auto isDigit = [](char letter) { return letter >= '0' && letter <= '9'; };
    return !digits.isEmpty() && std::all_of(digits.begin(), digits.end(), isDigit);
}

/// -1 where it is none that fits.
qint64 numberOf(QByteArrayView digits) {
    bool fits = false;
    const qint64 number = digits.toLongLong(&fits);
    return fits && isNumber(digits) ? number : -1;
}

bool isBefore(const Listing::Entry& first, const Listing::Entry& second) {
    return first.path < second.path;
}

}  // namespace

Listing::Listing(const QByteArray& text, const QByteArray& root)
    : _text(text), _start(QString::fromUtf8(root.endsWith('/') ? root : root + '/').toLatin1()) {
    const QByteArrayView all(_text);
    qsizetype begin = 0;
    while (begin < all.size()) {
        const qsizetype end = all.indexOf('\n', begin);
        // A line without its end was cut.
        const bool isWhole = end >= 0;
        const QByteArrayView line = all.sliced(begin, (isWhole ? end : all.size()) - begin);
        if (!isWhole || !takeLine(line)) {
            ++_unfitLines;
        }
        begin += line.size() + 1;
    }
}

bool Listing::takeLine(QByteArrayView line) {
    const qsizetype first = line.indexOf(',');
    const qsizetype second = line.indexOf(',', first + 1);
    if (first < 0 || second < 0) {
        return false;
    }
    const Entry entry{numberOf(line.first(first)),
                      numberOf(line.sliced(first + 1, second - first - 1)),
                      line.sliced(second + 1)};
    const bool hasNumbers = entry.size >= 0 && entry.modified >= 0 &&
                            entry.modified <= kLatestTime &&
                            entry.size <= std::numeric_limits<qint64>::max() - _bytes;
    if (!hasNumbers || !entry.path.startsWith(_start) ||
        !isPlainRelativePath(entry.path.sliced(_start.size()))) {
        return false;
    }
    _hasDoubtfulNames = _hasDoubtfulNames || entry.path.sliced(_start.size()).contains('?');
    _bytes += entry.size;
    _entries.push_back(entry);
    return true;
}

void Listing::sortByPath() {
    std::sort(_entries.begin(), _entries.end(), isBefore);
}

QByteArray Listing::pathOf(const Entry& entry) {
    return QString::fromLatin1(entry.path).toUtf8();
}

QByteArray Listing::nameOf(const Entry& entry) const {
    return QString::fromLatin1(entry.path.sliced(_start.size())).toUtf8();
}

bool isPlainRelativePath(QByteArrayView path) {
    qsizetype begin = 0;
    while (begin <= path.size()) {
        const qsizetype slash = path.indexOf('/', begin);
        const qsizetype end = slash < 0 ? path.size() : slash;
        const QByteArrayView name = path.sliced(begin, end - begin);
        if (name.isEmpty() || name == "." || name == ".." || name.contains('\0')) {
            return false;
        }
        begin = end + 1;
    }
    return true;
}

}  // namespace storagectl

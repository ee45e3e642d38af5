#pragma once

#include <QByteArray>
#include <QByteArrayView>

#include <vector>

namespace storagectl {

/// The text of a unit's listing: one file a line, "size,modified,path" in Latin-1; a path may hold
/// commas. It came over the wire or from a local file, and nothing in it is taken for granted:
/// a line that is none, leads out of its root or holds a component that is no plain name is left
/// out and counted. Entries point into the text.
class Listing {
public:
    struct Entry {
        qint64 size = 0;      ///< bytes
        qint64 modified = 0;  ///< seconds since 1970
        QByteArrayView path;  ///< absolute, Latin-1, in the listing's text
    };

    Listing() = default;
    /// `root` is a clean absolute path, in UTF-8.
    Listing(const QByteArray& text, const QByteArray& root);
    Listing(const Listing&) = delete;
    Listing& operator=(const Listing&) = delete;
    Listing(Listing&&) = default;
    Listing& operator=(Listing&&) = default;

    /// In the order of the text, until they are sorted.
    const std::vector<Entry>& entries() const { return _entries; }
    void sortByPath();
    /// The text as it came.
    const QByteArray& text() const { return _text; }
    /// Of all files together.
    qint64 bytes() const { return _bytes; }
    int unfitLines() const { return _unfitLines; }
    /// Whether a name holds "?", which also stands for each letter that Latin-1 does not have.
    bool hasDoubtfulNames() const { return _hasDoubtfulNames; }

    /// The whole path in UTF-8.
    static QByteArray pathOf(const Entry& entry);
    /// The path below the root, in UTF-8.
    QByteArray nameOf(const Entry& entry) const;

private:
    bool takeLine(QByteArrayView line);

    QByteArray _text;
    QByteArray _start;  ///< of every path: the root with a "/", in Latin-1
    std::vector<Entry> _entries;
    qint64 _bytes = 0;
    int _unfitLines = 0;
    bool _hasDoubtfulNames = false;
};

/// Whether a relative path stays below where it is put: no component is "", "." or "..", and none
/// holds a NUL.
bool isPlainRelativePath(QByteArrayView path);

}  // namespace storagectl

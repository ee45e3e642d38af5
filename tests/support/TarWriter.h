#pragma once

#include <QByteArray>
#include <QList>

/// Writes tar archives byte by byte, also those that no tar would write.
class TarWriter {
public:
    static constexpr char kFile = '0';
    static constexpr char kHardLink = '1';
    static constexpr char kSymbolicLink = '2';
    static constexpr char kCharacterDevice = '3';
    static constexpr char kFolder = '5';
    static constexpr char kFifo = '6';

    struct Member {
        QByteArray name;
        char type = kFile;
        QByteArray contents = {};
        QByteArray target = {};  ///< of a link
        int mode = 0644;
        qint64 claimedSize = -1;  ///< in the header, instead of that of the contents
    };

    TarWriter& add(const Member& member);
    TarWriter& file(const QByteArray& name, const QByteArray& contents, int mode = 0644);
    TarWriter& folder(const QByteArray& name, int mode = 0755);
    TarWriter& link(char type, const QByteArray& name, const QByteArray& target);
    /// A pax header for the next member: key, value.
    TarWriter& pax(const QList<std::pair<QByteArray, QByteArray>>& records);
    /// The next member's name, or its link's target, as long as one likes.
    TarWriter& longName(const QByteArray& name);
    TarWriter& longTarget(const QByteArray& target);
    /// A file of old sparse kind: `contents` at `offset`, and holes up to `size`.
    TarWriter& sparse(const QByteArray& name, const QByteArray& contents, qint64 offset,
                      qint64 size);

    /// With the end that an archive has.
    QByteArray bytes() const;
    QByteArray compressed() const { return gzip(bytes()); }

    static QByteArray gzip(const QByteArray& bytes);

private:
    QByteArray _bytes;
};

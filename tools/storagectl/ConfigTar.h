#pragma once

#include <QByteArray>
#include <QCryptographicHash>
#include <QString>

#include <functional>
#include <optional>

namespace storagectl {

/// One member of a tar archive.
struct TarMember {
    enum class Kind { File, HardLink, Link, Folder, Special };
    Kind kind = Kind::File;
    QByteArray name;  ///< as it stands, without slashes at the end
    int mode = 0;
    qint64 size = 0;
    qint64 modified = -1;  ///< seconds since 1970
    QByteArray target;     ///< of a link
    QByteArray digest;     ///< MD5 of a file's contents
};

/// Reads the members of a tar archive that comes in pieces cut anywhere: old, POSIX and GNU
/// headers, long names of both kinds. Contents are hashed and forgotten. Strict, because its word
/// decides whether the unit may replace a folder: a checksum that does not fit, a kind of member
/// that no backup has, or anything behind the end is a fault.
class ConfigTar {
public:
    /// Given each member when it is complete; says false to end the reading.
    using Found = std::function<bool(const TarMember& member)>;

    explicit ConfigTar(Found found);

    /// False once reading on makes no sense: `fault` says why, or `found` said false.
    bool add(const char* data, qsizetype length);
    /// Whether the archive's end was seen.
    bool isWhole() const;
    const QString& fault() const { return _fault; }

private:
    /// What extended headers say of the next member.
    struct Extension {
        std::optional<QByteArray> name;
        std::optional<QByteArray> target;
        std::optional<qint64> size;
        std::optional<qint64> modified;
    };

    bool takeBlock();
    bool takeHeader();
    bool takeMember(char type);
    bool takeContents(const char* data, qsizetype length);
    bool finishContents();
    bool finishExtension();
    bool takeRecords(const QByteArray& records);
    bool takeRecord(const QByteArray& key, const QByteArray& value);
    bool take(std::optional<QByteArray>& name, const QByteArray& value);
    bool fail(const char* fault);

    Found _found;
    QString _fault;
    QByteArray _block;
    int _zeroBlocks = 0;
    qint64 _contentsLeft = 0;
    qint64 _paddingLeft = 0;
    TarMember _member;
    Extension _extension;
    char _extensionType = 0;  ///< of the extended header being read, 0 where it is a member
    QByteArray _records;
    QCryptographicHash _digest{QCryptographicHash::Md5};
};

}  // namespace storagectl

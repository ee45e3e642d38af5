#pragma once

#include "filesystem/FileProtocol.h"
#include "tools/storagectl/Connection.h"
#include "tools/storagectl/PieceDigests.h"

#include <QByteArray>

#include <functional>
#include <limits>

namespace storagectl {

/// The remote file protocol as calls that wait for their answer. Paths are UTF-8. The wire has
/// signed 32-bit sizes and offsets, so a file above kLargestFileBytes is marked `tooLarge` where
/// that can be known: its reported length is wrapped, negative or small.
class FileService {
public:
    static constexpr qint64 kLargestFileBytes = std::numeric_limits<qint32>::max();

    enum OpenFlags : int { ReadOnly = 0x1, ReadWrite = 0x3 };

    struct OpenFile {
        int handle = -1;
        qint64 size = 0;
        bool tooLarge = false;
    };

    /// One path, as the daemon shows it. Times are seconds since 1970, -1 where not known.
    struct Entry {
        enum class Kind { Missing, File, Directory, OutsideRoots };
        Kind kind = Kind::Missing;
        QByteArray name;
        qint64 size = 0;
        bool tooLarge = false;
        qint64 created = -1;
        qint64 modified = -1;
    };

    explicit FileService(Connection& connection) : _connection(connection) {}

    /// `file` is valid with Success only. A failed open is Refused.
    Answer open(const QByteArray& path, OpenFlags flags, OpenFile& file);
    /// Waits for the answer, whatever it is: a handle also closes itself after 30 idle seconds.
    void close(const OpenFile& file);
    Answer truncate(const OpenFile& file, qint64 size);
    Answer hash(const OpenFile& file, qint64 offset, qint64 length, QByteArray& digest);
    /// Whether the file has these digests. `proved` is valid with Success only. `progress` is told
    /// the bytes compared so far.
    Answer prove(const OpenFile& file, const QList<PieceDigests::Piece>& pieces, bool& proved,
                 const std::function<void(qint64)>& progress);
    Answer remove(const QByteArray& path);
    Answer move(const QByteArray& from, const QByteArray& to);
    /// Calls `visit` for each entry, in the daemon's order, until it returns false. Refused means
    /// a path outside the roots; a missing directory has no entries.
    Answer list(const QByteArray& path, const QByteArray& filter,
                const std::function<bool(const Entry&)>& visit);
    /// What stands at a path. A directory without a listable parent and without entries cannot be
    /// told from a missing one.
    Answer lookUp(const QByteArray& path, Entry& entry);
    /// Why the daemon failed to `verb` a path, as far as it can be found out.
    Outcome explain(const QByteArray& path, const QString& verb);

    Connection& connection() { return _connection; }

private:
    Answer lookUpInParent(const QByteArray& path, Entry& entry, bool& parentListed);
    Answer lookUpByOpening(const QByteArray& path, Entry& entry);

    Connection& _connection;
};

/// Whether a path can travel to the daemon: not empty, valid UTF-8, no NUL. Unsafe if not.
Outcome checkWireName(const QByteArray& path);
/// The sentence for a file whose size the wire cannot carry.
Outcome tooLargeFor(const QByteArray& path);

QString text(const QByteArray& path);
QByteArray directoryOf(const QByteArray& path);
/// The last component, empty for "/", and for "." and "..".
QByteArray baseNameOf(const QByteArray& path);

}  // namespace storagectl

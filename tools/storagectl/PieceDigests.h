#pragma once

#include <QByteArray>
#include <QCryptographicHash>
#include <QList>

namespace storagectl {

/// The MD5 digests of a stream, piece by piece: what the two ends of a transfer compare. Pieces
/// rather than one digest of the whole, because the daemon serves nobody while it computes one,
/// and because a file handle would expire during a long one.
class PieceDigests {
public:
    static constexpr qint64 kPieceBytes = 16 * 1024 * 1024;

    struct Piece {
        qint64 offset = 0;
        qint64 length = 0;
        QByteArray digest;
    };

    void add(const char* data, qint64 length);
    void clear();
    /// Bytes added so far.
    qint64 length() const { return _length; }
    /// They cover every byte; the last one may be shorter. None for an empty stream.
    QList<Piece> pieces() const;

private:
    QList<Piece> _whole;
    QCryptographicHash _last{QCryptographicHash::Md5};
    qint64 _length = 0;
};

}  // namespace storagectl

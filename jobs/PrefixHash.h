#pragma once

#include <QCryptographicHash>
#include <QFile>
#include <QString>

/// The MD5 digest of an open file's first bytes, computed a piece at a time, because a long prefix
/// would hold up everything else. Reads from the file's position on, which is 0 at the start.
class PrefixHash {
public:
    /// Of one piece.
    static constexpr int kPieceBytes = 256 * 1024;

    /// `length` is above 0.
    explicit PrefixHash(int length) : _remaining(length) {}

    /// Takes in the next piece. False where the file ended before the prefix did, or cannot be
    /// read.
    bool addPiece(QFile& file);
    bool isComplete() const { return _remaining == 0; }
    /// Base64. REQUIRES: isComplete().
    QString text() const { return QString::fromLatin1(_hash.result().toBase64()); }

private:
    QCryptographicHash _hash{QCryptographicHash::Md5};
    int _remaining;
};

#pragma once

#include "tools/storagectl/Download.h"

namespace storagectl {

/// "<target>.part" beside a local target: takes fetched bytes, outlives a break, and becomes the
/// target by one rename when it is whole. It is locked, so that two runs never write one file. A
/// symbolic link or special file under either name is refused.
class PartialFile : public Sink {
public:
    explicit PartialFile(const QByteArray& target);
    ~PartialFile() override;
    PartialFile(const PartialFile&) = delete;
    PartialFile& operator=(const PartialFile&) = delete;

    /// Opens or creates it and computes the digests of what it holds.
    Outcome open(PieceDigests& present);
    Outcome append(const QByteArray& bytes) override;
    bool startOver() override;
    /// Flushes, sets the modification time (seconds since 1970, -1 leaves it), and renames.
    Outcome finish(qint64 modified);
    /// Removes it if it holds nothing.
    void discardIfEmpty();

    const QByteArray& path() const { return _path; }

private:
    Outcome checkTarget() const;

    QByteArray _target;
    QByteArray _path;
    int _descriptor = -1;
    qint64 _length = 0;
};

}  // namespace storagectl

#pragma once

#include "tools/storagectl/Download.h"

namespace storagectl {

/// "<target>.part" beside a local target: takes fetched bytes, outlives a break, and becomes the
/// target by one rename when it is whole. It is locked, so that two runs never write one file. A
/// symbolic link or special file under either name is refused.
class PartialFile : public Sink {
public:
    static constexpr char kEnding[] = ".part";

    explicit PartialFile(const QByteArray& target);
    ~PartialFile() override;
    PartialFile(const PartialFile&) = delete;
    PartialFile& operator=(const PartialFile&) = delete;

    /// Opens or creates it, and tells what it holds, in order.
    Outcome open(const std::function<void(const char* data, qint64 length)>& present);
    /// The same, as digests.
    Outcome open(PieceDigests& present);
    Outcome append(const QByteArray& bytes) override;
    bool startOver() override;
    /// Sets the modification time (seconds since 1970, -1 leaves it), flushes, and renames.
    Outcome finish(qint64 modified);
    /// The steps of it. A rename of what was not flushed may show an empty file after a crash.
    Outcome stamp(qint64 modified);
    Outcome flush();
    /// Unsafe where somebody else has changed or replaced it.
    Outcome putInPlace();
    /// Removes it if it holds nothing.
    void discardIfEmpty();
    /// Lets another transfer have it.
    void close();

    const QByteArray& path() const { return _path; }
    const QByteArray& target() const { return _target; }
    /// REQUIRES: open.
    int descriptor() const { return _descriptor; }
    /// Nothing more can be written, to this file or to others beside it.
    bool isDiskFull() const { return _isDiskFull; }

private:
    Outcome checkTarget() const;
    Outcome openLocked();
    Outcome readPresent(const std::function<void(const char* data, qint64 length)>& present);
    bool isStillItself() const;

    QByteArray _target;
    QByteArray _path;
    int _descriptor = -1;
    qint64 _length = 0;
    bool _isDiskFull = false;
};

/// What to say of a transfer that failed; empty where nothing is kept.
QString keptText(qint64 bytes, const QByteArray& partialPath);

/// Flushes the names in a directory. What failed is found out when they are used.
void syncDirectory(const QByteArray& directory);

}  // namespace storagectl

#pragma once

#include "tools/storagectl/LocalSource.h"
#include "tools/storagectl/Transfer.h"

namespace storagectl {

/// Sends a local file to "<path>.part" on the unit, proves it there, and moves it onto the path.
/// The partial file is never opened with truncation: it is cut to nothing by a request of its own,
/// and only where it is longer than the file or has other contents. The move is sent once: a
/// repeated one would delete what the first has put in place, so that where its answer is lost
/// the state of both names is looked at instead.
class Upload : public Transfer {
public:
    Upload(const TransferTools& tools, LocalSource& source, const QByteArray& path,
           PieceDigests& digests);

    QByteArray partialPath() const { return _path + ".part"; }
    qint64 bytesPresent() const { return _confirmed; }
    qint64 resumedFrom() const { return _resumedFrom; }

protected:
    Outcome attempt() override;

private:
    Outcome openPartial(FileService::OpenFile& file);
    Outcome takeUp(const FileService::OpenFile& file);
    Outcome send(const FileService::OpenFile& file);
    Outcome postChunks(const FileService::OpenFile& file);
    Outcome verify();
    Outcome moveIntoPlace();
    Outcome checkMove(Answer answer);
    Outcome proveWhole(const QByteArray& path, bool& whole);

    LocalSource& _source;
    qint64 _resumedFrom = -1;
    /// Bytes that the unit is known to hold; `_digests` is ahead by what is under way.
    qint64 _confirmed = 0;
};

}  // namespace storagectl

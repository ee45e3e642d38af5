#pragma once

#include "tools/storagectl/FileService.h"
#include "tools/storagectl/Output.h"
#include "tools/storagectl/PieceDigests.h"
#include "tools/storagectl/Progress.h"

namespace storagectl {

/// What a transfer needs; all of it the caller's, and living longer than the transfer.
struct TransferTools {
    FileService& files;
    Output& output;
    Progress& progress;
    int retries;              ///< attempts in a row that may end without any progress
    qint64 bytesASecond = 0;  ///< that a download keeps to; 0 is without a limit
};

/// Work that survives breaks: an attempt opens the remote file, proves by digests what is already
/// there, goes on from it, and proves the whole. After a break of the broker, the daemon or the
/// handle the next attempt does the same again, so there is one path for a resumed transfer,
/// whoever interrupted it. A daemon that never answered is not waited for again.
class Transfer {
public:
    /// Bytes in one request, and requests under way: measured, see docs/storagectl.md.
    static constexpr int kChunkBytes = 64 * 1024;
    static constexpr int kWindow = 8;

    virtual ~Transfer() = default;
    Outcome run();

protected:
    Transfer(const TransferTools& tools, const QByteArray& path, PieceDigests& digests)
        : _tools(tools), _path(path), _digests(digests) {}

    virtual Outcome attempt() = 0;

    /// Compares `_digests` with the remote file.
    Outcome prove(const FileService::OpenFile& file, bool& proved);

    TransferTools _tools;
    QByteArray _path;
    /// Of the bytes in place so far; the caller's.
    PieceDigests& _digests;
};

}  // namespace storagectl

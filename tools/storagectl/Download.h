#pragma once

#include "tools/storagectl/Transfer.h"

namespace storagectl {

/// Where fetched bytes go, in order.
class Sink {
public:
    virtual ~Sink() = default;
    virtual Outcome append(const QByteArray& bytes) = 0;
    /// Forgets everything taken so far. False where that cannot be done.
    virtual bool startOver() = 0;
};

/// Fetches a file as it was when its size was first asked, or when it last started over.
class Download : public Transfer {
public:
    /// `digests` describe the bytes that the sink holds already, from an earlier run.
    Download(const TransferTools& tools, const QByteArray& path, Sink& sink, PieceDigests& digests);

    /// The size that was asked, -1 before an answer came.
    qint64 size() const { return _size; }
    qint64 bytesPresent() const { return _digests.length(); }
    /// Bytes of the earlier run that were proved and not fetched again.
    qint64 resumedFrom() const { return _resumedFrom; }

protected:
    Outcome attempt() override;

private:
    Outcome takeUp(const FileService::OpenFile& file);
    Outcome startOver(const QString& reason);
    Outcome fetch(const FileService::OpenFile& file);
    Outcome take(const Connection::Answered& answered);
    Outcome holdBack(qint64 bytes, quint32 since);
    Outcome verify(const FileService::OpenFile& file);

    Sink& _sink;
    qint64 _size = -1;
    qint64 _resumedFrom = -1;
};

}  // namespace storagectl

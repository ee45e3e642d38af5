#include "tools/storagectl/StreamReader.h"

#include "jobs/DownloadStream.h"

#include <QtEndian>

#include <lzf.h>

namespace storagectl {

namespace {

using namespace DownloadStream;

constexpr unsigned char kBlockFlags = kFirstBlock | kDirectoryBlock | kResumedBlock;
constexpr char kReadError[] = "Read error";

}  // namespace

bool StreamReader::fail(const QString& fault) {
    _fault = fault;
    _rest.clear();
    return false;
}

bool StreamReader::add(const char* data, qint64 length) {
    if (!_fault.isEmpty()) {
        return false;
    }
    _rest.append(data, length);
    qint64 taken = 0;
    while (_rest.size() - taken >= kRecordHeaderBytes) {
        const char* record = _rest.constData() + taken;
        const qint64 payloadBytes = qFromLittleEndian<quint16>(record + 1);
        const qint64 recordBytes = kRecordHeaderBytes + payloadBytes;
        if (_rest.size() - taken < recordBytes) {
            break;
        }
        const std::string_view payload(record + kRecordHeaderBytes,
                                       static_cast<std::size_t>(payloadBytes));
        if (!takeRecord(static_cast<unsigned char>(record[0]), payload)) {
            return false;
        }
        taken += recordBytes;
    }
    _rest.remove(0, taken);
    return !_hasEnded || _rest.isEmpty() || fail("something comes behind the end");
}

bool StreamReader::takeRecord(unsigned char type, std::string_view payload) {
    if (_hasEnded) {
        return fail("something comes behind the end");
    }
    if (type == kError) {
        return takeFailure(payload);
    }
    return payload.empty() ? takeMark(type) : takeBlock(type, payload);
}

bool StreamReader::takeMark(unsigned char type) {
    using Start = StreamEvents::Start;
    _open = Open::Nothing;
    switch (type) {
        case kEnd:
            _hasEnded = true;
            return true;
        case kEmptyFile:
            _events.began(Start::EmptyFile);
            return true;
        case kEmptyDirectory:
            _events.began(Start::EmptyDirectory);
            return true;
        case kNothingLeft:
            _events.began(Start::NothingLeft);
            return true;
        default:
            return fail(QString("an empty record of type %1").arg(type));
    }
}

/// A file or directory may fail in the middle; any other failure is an entry of its own. So is one
/// in the middle of an entry that was longer when it was listed: the count of entries is short
/// then.
bool StreamReader::takeFailure(std::string_view reason) {
    const bool isOfOpenEntry =
        _open != Open::Nothing && reason == kReadError && _events.expectsMore();
    if (!isOfOpenEntry) {
        _events.began(StreamEvents::Start::Failure);
    }
    _open = Open::Nothing;
    _events.failed(QByteArray(reason.data(), static_cast<qsizetype>(reason.size())));
    return true;
}

bool StreamReader::takeBlock(unsigned char type, std::string_view payload) {
    const unsigned char kind = type & static_cast<unsigned char>(~kBlockFlags);
    const bool isDirectory = (type & kDirectoryBlock) != 0;
    if (kind != kRawBlock && kind != kCompressedBlock) {
        return fail(QString("a record of the unknown type %1").arg(type));
    }
    std::string_view block = payload;
    if (kind == kCompressedBlock) {
        _expanded.resize(kBlockBytes);
        const unsigned length =
            lzf_decompress(payload.data(), static_cast<unsigned>(payload.size()), _expanded.data(),
                           static_cast<unsigned>(_expanded.size()));
        if (length == 0) {
            return fail("a block that cannot be expanded");
        }
        block = std::string_view(_expanded.constData(), length);
    } else if (payload.size() > kBlockBytes) {
        return fail("a block that is too long");
    }
    if (!openBlock((type & kFirstBlock) != 0, (type & kResumedBlock) != 0,
                   isDirectory ? Open::Directory : Open::File)) {
        return false;
    }
    if (isDirectory) {
        return takeEntries(block);
    }
    _events.fileBytes(block.data(), static_cast<qint64>(block.size()));
    return true;
}

bool StreamReader::openBlock(bool isFirst, bool isResumed, Open kind) {
    using Start = StreamEvents::Start;
    if (isResumed && (!isFirst || kind == Open::Directory)) {
        return fail("a resumed block in the wrong place");
    }
    if (!isFirst) {
        return _open == kind || fail("a block that belongs to nothing");
    }
    _open = kind;
    const Start file = isResumed ? Start::ResumedFile : Start::File;
    _events.began(kind == Open::Directory ? Start::Directory : file);
    return true;
}

bool StreamReader::takeEntries(std::string_view block) {
    while (!block.empty()) {
        if (block.size() < kEntryHeaderBytes) {
            return fail("an entry of a directory that is cut short");
        }
        const auto kind = static_cast<unsigned char>(block[0]);
        const auto nameBytes = qFromLittleEndian<quint32>(block.data() + 9);
        if (kind > kDirectoryEntry || nameBytes > block.size() - kEntryHeaderBytes) {
            return fail("an entry of a directory that is damaged");
        }
        StreamEvents::Entry entry;
        entry.isDirectory = kind == kDirectoryEntry;
        // Unsigned, so that a file above 2 GB is seen to be too large.
        entry.size = qFromLittleEndian<quint32>(block.data() + 1);
        entry.modified = qFromLittleEndian<quint32>(block.data() + 5);
        entry.name = QByteArray(block.data() + kEntryHeaderBytes, nameBytes);
        _events.directoryEntry(entry);
        block.remove_prefix(kEntryHeaderBytes + nameBytes);
    }
    return true;
}

}  // namespace storagectl

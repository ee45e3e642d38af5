#pragma once

#include "datafile/RecordLengths.h"
#include "datafile/RecordStream.h"
#include "datafile/RecordTime.h"
#include "tools/storagectl/Outcome.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <memory>

namespace storagectl {

/// A recording (.gdf) or thumbnail file (.gdt), read as far as it can be. It is never written.
/// What is wrong with its header is a sentence in `damage`; only a file without the 80 bytes of
/// one has nothing to read. Owns the descriptor.
class Recording {
public:
    /// A record as it stands in the file.
    struct Record {
        const char* bytes;  ///< type byte and payload, then zeros: 256 readable bytes
        int type;
        int length;  ///< bytes that the file has of it
        int wanted;  ///< bytes that its type asks for
        quint32 time;
        qint64 offset;
    };

    Recording() = default;
    ~Recording();
    Recording(const Recording&) = delete;
    Recording& operator=(const Recording&) = delete;

    /// Takes over a descriptor. `path` is for messages, and tells by its ending what this is.
    /// Integrity where there is no header.
    Outcome adopt(int descriptor, const QByteArray& path);

    const QByteArray& path() const { return _path; }
    /// Whether it holds the first sample of each 15 minutes.
    bool isThumbnail() const { return _path.toLower().endsWith(".gdt"); }
    qint64 size() const { return _size; }
    quint32 version() const;
    quint32 created() const;
    quint32 statedHeaderSize() const;
    quint32 statedTypes() const;
    QString source() const;
    /// The header up to the first record, by its size or, where that lies, by its types.
    const QByteArray& header() const { return _header; }
    const QStringList& damage() const { return _damage; }

    bool isKnown(int type) const { return _lengths.isKnown(static_cast<quint8>(type)); }
    int recordBytes(int type) const { return 1 + _lengths.payload(static_cast<quint8>(type)); }

    /// Calls `visit(record)` for every record, with the time that the stream gives it. Returns the
    /// bytes at the end that are no record: a type byte alone, or what cannot be read.
    template <typename Visitor>
    qint64 forEach(Visitor visit) const;

private:
    static constexpr int kBlockBytes = 256 * 1024;

    void readHeader();
    bool read(qint64 offset, qint64 length, QByteArray& bytes) const;

    QByteArray _path;
    int _descriptor = -1;
    qint64 _size = 0;
    QByteArray _header;
    RecordLengths _lengths;
    QStringList _damage;
};

template <typename Visitor>
qint64 Recording::forEach(Visitor visit) const {
    const auto block = std::make_unique<char[]>(kBlockBytes);
    RecordStream stream(_descriptor, _lengths, block.get(), kBlockBytes);
    qint64 offset = _header.size();
    quint32 time = created();
    stream.seek(offset);
    stream.forEach([&](const char* bytes, int type, int length) {
        time = RecordTime::after(bytes, time);
        visit(Record{bytes, type, length, recordBytes(type), time, offset});
        offset += length;
        return true;
    });
    return std::max<qint64>(0, _size - offset);
}

}  // namespace storagectl

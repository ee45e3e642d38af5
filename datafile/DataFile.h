#pragma once

#include "bus/DebugText.h"
#include "datafile/RecordLengths.h"
#include "datafile/RecordStream.h"

#include <QFile>
#include <QObject>
#include <QRecursiveMutex>
#include <QString>

#include <array>
#include <memory>

/// The codes of a file's records and of their values are plain numbers of the devices that write
/// them; those that the format itself knows are in DataFileFormat.
struct DataFileRecord {
    using Type = int;
};
struct DataFileRecordType {
    using MnemonicType = int;
};

/// A record-oriented, append-only log of timestamped samples (.gdf, .gdt; layout in
/// docs/formats.md). Closed, or open with a header in memory. A new file: `create`, the record
/// types, `writeHeader`, then records. An existing one: `open`, then `seekToFirstRecord` to read,
/// or records to append. Failures are results, not log lines, but where an operation says so. It
/// reads and writes past Qt's buffers: a record is in the kernel when its write returns.
class DataFile : public QObject {
    Q_OBJECT

public:
    static constexpr int kMaximumRecordTypes = 256;
    static constexpr int kMaximumLocations = 64;

    /// `source` names the data's source, in at most 63 Latin-1 characters; longer is cut.
    explicit DataFile(const QString& source, QObject* parent = nullptr);
    ~DataFile() override;

    /// Creates or truncates the file and makes a fresh header, in memory only. `mode` is kept and
    /// changes nothing. On failure the object is closed.
    bool create(const QString& filename, int mode);
    /// Appends a record type to a new file's header. Its index, or -1 where there is no such
    /// header or it is full. At most 30 characters of the name are kept.
    int addRecordType(const QString& name, DataFileRecord::Type type);
    /// Appends a value of `width` bytes to a record type. False where there is no such type, it
    /// has 55 values, or its record would be longer than 255. A name is cut to 15 characters.
    bool addRecordTypeMnemonic(int recordTypeIndex, const QString& name,
                               DataFileRecordType::MnemonicType type, int width);
    /// Index of a record type, by name in any case or the first by code; -1 where there is none.
    int findRecordType(const QString& name) const;
    int findRecordType(DataFileRecord::Type type) const;
    /// The whole record with its type byte: 5, 2 and 3 for the codes 1 to 3, 1 for any below 1,
    /// else as described; -1 where it is not.
    int recordTypeLength(DataFileRecord::Type type) const;
    /// Writes the header over the file's beginning; once, before any record. Logs failures.
    bool writeHeader();

    /// Opens an existing file for reading and appending, positioned at its end. A file below 80
    /// bytes is logged. False too where the header's length is below 80, above 8192 or above the
    /// file's; the object is then closed.
    bool open(const QString& filename, int mode);
    /// False where nothing is open.
    bool close();

    QString source() const { return _source; }
    /// Empty where nothing is open.
    QString filename() const { return _filename; }
    int mode() const { return _mode; }
    /// The header as the file has it, `headerSize` bytes, owned by this; null where closed.
    const char* header() const { return _header.get(); }
    /// 0 where closed.
    int headerSize() const;

    /// A recursive mutex, for a sequence of reads that must be one step.
    void lock() { _mutex.lock(); }
    void unlock() { _mutex.unlock(); }

    /// Keeps the position, to come back to with `popLocation`, and returns it; seek next. -1, and
    /// nothing kept, where nothing is open or the current entry is the 64th.
    qint64 pushLocation();
    void popLocation();
    /// Where the next byte is read or written, as the current entry has it.
    qint64 location() const { return _locations[_locationIndex]; }
    bool seekToOffset(qint64 offset);
    bool seekToFirstRecord();
    qint64 currentOffset() const { return _stream.offset(); }
    bool endOfFile() const;
    /// Bytes in the file now; 0 where closed.
    qint64 size() const;

    /// Bytes read: 0 at the end, -1 on failure.
    int readData(void* buffer, int length);

    /// Writes what takes a reader from the last time to `time` (seconds since 1970): nothing, or
    /// a record of 2, 3 or 5 bytes. To be called before each record whose time is another.
    bool addRecordTimestamp(unsigned time);
    /// Appends one record, its type byte first. Logs failures.
    bool writeRecord(const void* bytes, int length);

    /// Reads the next record, type byte and payload, and returns its length; -1 at the end. The
    /// buffer has at least 256 bytes, whatever `bufferLength` says, which is only asked to be
    /// positive; of the first 256 it holds, those that the record has not are set to 0.
    int readRecord(void* buffer, int bufferLength, DataFileRecord::Type& type);
    /// The records from here on without lock and copy, through a block of the caller's (see
    /// RecordStream). This object's own position stays. REQUIRES: open.
    RecordStream stream(char* block, int blockBytes) const;

    /// Payload bytes of the device's own codes, for records that no header describes; 0, logged,
    /// for an unknown one.
    static int getRecordTypeLength(int version, DataFileRecord::Type type);

private:
    bool adopt(const QString& filename, QIODevice::OpenMode flags);
    bool readHeader();
    void makeHeader();
    void noteHeader();
    bool write(const char* bytes, int length);
    qint64& currentLocation() { return _locations[_locationIndex]; }

    QRecursiveMutex _mutex;
    QString _source;
    std::unique_ptr<QFile> _file;
    QString _filename;
    int _mode = 0;
    std::array<qint64, kMaximumLocations> _locations{};
    int _locationIndex = 0;
    quint32 _lastTimestamp = 0;
    std::unique_ptr<char[]> _header;
    bool _isNew = false;  ///< the header has room for more record types
    RecordLengths _lengths;
    std::unique_ptr<char[]> _block;
    RecordStream _stream;
    DebugTextTarget _debug{"DataFile"};
};

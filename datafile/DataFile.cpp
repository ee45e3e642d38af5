#include "datafile/DataFile.h"

#include "bus/Clock.h"
#include "core/shared/RegularFile.h"

#include <cerrno>
#include <cstring>
#include <limits>
#include <mutex>

#include <unistd.h>

using namespace DataFileFormat;

namespace {

constexpr quint32 kCurrentVersion = 2;
constexpr int kNewHeaderBytes =
    kFixedHeaderBytes + DataFile::kMaximumRecordTypes * kDescriptorBytes;
constexpr int kMaximumRecordLength = 255;
constexpr int kBlockBytes = 16 * 1024;
// The first time appended to a file is never a step from a time that the file does not hold.
constexpr quint32 kFarAheadSeconds = 1'000'000;

quint32 now() {
    return static_cast<quint32>(Clock::wallSeconds());
}

/// Copies at most `room - 1` characters; the rest of the room stays as it was, zero.
void copyName(const QString& name, char* target, int room) {
    const QByteArray bytes = name.left(room - 1).toLatin1();
    std::memcpy(target, bytes.constData(), static_cast<std::size_t>(bytes.size()));
}

}  // namespace

DataFile::DataFile(const QString& source, QObject* parent)
    : QObject(parent),
      _source(source.left(kSourceBytes - 1)),
      _block(new char[kBlockBytes]),
      _stream(-1, _lengths, _block.get(), kBlockBytes) {}

DataFile::~DataFile() = default;

bool DataFile::create(const QString& filename, int mode) {
    close();
    _mode = mode;
    if (!adopt(filename, QIODevice::ReadWrite | QIODevice::Truncate)) {
        return false;
    }
    makeHeader();
    return true;
}

void DataFile::makeHeader() {
    _header = std::make_unique<char[]>(kNewHeaderBytes);
    _isNew = true;
    _lastTimestamp = now();
    setField(_header.get(), kVersionOffset, kCurrentVersion);
    setField(_header.get(), kCreatedOffset, _lastTimestamp);
    setField(_header.get(), kHeaderSizeOffset, kFixedHeaderBytes);
    copyName(_source, _header.get() + kSourceOffset, kSourceBytes);
    noteHeader();
    currentLocation() = kFixedHeaderBytes;
}

int DataFile::addRecordType(const QString& name, DataFileRecord::Type type) {
    const quint32 count = _isNew ? statedTypes(_header.get()) : kMaximumRecordTypes;
    if (count >= kMaximumRecordTypes) {
        return -1;
    }
    setField(_header.get(), kRecordTypeCountOffset, count + 1);
    setField(_header.get(), kHeaderSizeOffset,
             static_cast<quint32>(headerSize() + kDescriptorBytes));
    const int index = static_cast<int>(count);
    char* const added = descriptor(_header.get(), index);
    copyName(name, added, kNameBytes);
    added[kTypeOffset] = static_cast<char>(type);
    added[kLengthOffset] = 1;
    noteHeader();
    return index;
}

bool DataFile::addRecordTypeMnemonic(int recordTypeIndex, const QString& name,
                                     DataFileRecordType::MnemonicType type, int width) {
    if (!_isNew || recordTypeIndex < 0 ||
        recordTypeIndex >= static_cast<int>(statedTypes(_header.get()))) {
        return false;
    }
    char* const target = descriptor(_header.get(), recordTypeIndex);
    const int slot = byteAt(target, kMnemonicCountOffset);
    const int room = kMaximumRecordLength - byteAt(target, kLengthOffset);
    if (slot >= kMaximumMnemonics || width < 0 || width > room) {
        return false;
    }
    ++target[kMnemonicCountOffset];
    copyName(name, target + kMnemonicNamesOffset + slot * kMnemonicNameBytes, kMnemonicNameBytes);
    target[kMnemonicTypesOffset + slot] = static_cast<char>(type);
    target[kMnemonicWidthsOffset + slot] = static_cast<char>(width);
    target[kLengthOffset] = static_cast<char>(byteAt(target, kLengthOffset) + width);
    noteHeader();
    return true;
}

int DataFile::findRecordType(const QString& name) const {
    const int count = _header ? describedTypes(_header.get(), headerSize()) : 0;
    for (int i = 0; i < count; ++i) {
        const char* const stored = descriptor(_header.get(), i);
        const auto length = static_cast<qsizetype>(::strnlen(stored, kNameBytes));
        if (name.compare(QLatin1StringView(stored, length), Qt::CaseInsensitive) == 0) {
            return i;
        }
    }
    return -1;
}

int DataFile::findRecordType(DataFileRecord::Type type) const {
    const int count = _header ? describedTypes(_header.get(), headerSize()) : 0;
    for (int i = 0; i < count; ++i) {
        if (byteAt(descriptor(_header.get(), i), kTypeOffset) == type) {
            return i;
        }
    }
    return -1;
}

int DataFile::recordTypeLength(DataFileRecord::Type type) const {
    return _lengths.described(type);
}

bool DataFile::writeHeader() {
    if (!_header || !_file) {
        DebugText::send(_debug, "writeHeader() no header or file");
        return false;
    }
    if (!_file->seek(0)) {
        DebugText::send(_debug, "writeHeader() failed to seek");
        return false;
    }
    _stream.renew(0);
    if (!write(_header.get(), headerSize())) {
        DebugText::send(_debug, "writeHeader() failed to write header");
        return false;
    }
    currentLocation() = headerSize();
    _lastTimestamp = field(_header.get(), kCreatedOffset);
    return true;
}

bool DataFile::open(const QString& filename, int mode) {
    close();
    _mode = mode;
    if (!adopt(filename, QIODevice::ReadWrite | QIODevice::ExistingOnly)) {
        return false;
    }
    if (!readHeader()) {
        close();
        return false;
    }
    _lastTimestamp = now() + kFarAheadSeconds;
    const qint64 end = size();
    currentLocation() = end;
    if (!seekToOffset(end)) {
        DebugText::send(_debug, "open() failed to seek to end of file!");
    }
    return true;
}

bool DataFile::readHeader() {
    const qint64 fileSize = size();
    if (fileSize < kFixedHeaderBytes) {
        DebugText::plain("Data file is smaller than a valid header size!");
        return false;
    }
    char fixed[kFixedHeaderBytes];
    if (readData(fixed, kFixedHeaderBytes) < kFixedHeaderBytes) {
        return false;
    }
    const quint32 stated = field(fixed, kHeaderSizeOffset);
    if (stated > fileSize || stated > kMaximumHeaderBytes || stated < kFixedHeaderBytes) {
        return false;
    }
    _header = std::make_unique<char[]>(stated);
    std::memcpy(_header.get(), fixed, kFixedHeaderBytes);
    const int rest = static_cast<int>(stated) - kFixedHeaderBytes;
    if (rest > 0 && readData(_header.get() + kFixedHeaderBytes, rest) < rest) {
        return false;
    }
    noteHeader();
    return true;
}

bool DataFile::close() {
    if (!_file) {
        return false;
    }
    _file.reset();
    _filename.clear();
    _header.reset();
    _isNew = false;
    _lengths = RecordLengths();
    _locationIndex = 0;
    currentLocation() = 0;
    _stream = RecordStream(-1, _lengths, _block.get(), kBlockBytes);
    return true;
}

bool DataFile::adopt(const QString& filename, QIODevice::OpenMode flags) {
    auto file = std::make_unique<QFile>();
    if (!RegularFile::open(*file, filename, flags)) {
        return false;
    }
    _file = std::move(file);
    _filename = filename;
    _stream = RecordStream(_file->handle(), _lengths, _block.get(), kBlockBytes);
    return true;
}

int DataFile::headerSize() const {
    return _header ? static_cast<int>(field(_header.get(), kHeaderSizeOffset)) : 0;
}

void DataFile::noteHeader() {
    _lengths = RecordLengths(_header.get(), headerSize());
}

qint64 DataFile::pushLocation() {
    if (!_file || _locationIndex + 1 >= kMaximumLocations) {
        return -1;
    }
    currentLocation() = currentOffset();
    ++_locationIndex;
    return _locations[_locationIndex - 1];
}

void DataFile::popLocation() {
    if (_locationIndex < 1) {
        return;
    }
    --_locationIndex;
    seekToOffset(currentLocation());
}

bool DataFile::seekToOffset(qint64 offset) {
    if (!_file || offset < 0 || !_file->seek(offset)) {
        return false;
    }
    _stream.seek(offset);
    currentLocation() = offset;
    return true;
}

bool DataFile::seekToFirstRecord() {
    return seekToOffset(headerSize());
}

bool DataFile::endOfFile() const {
    return currentOffset() >= size();
}

qint64 DataFile::size() const {
    return _file ? _file->size() : 0;
}

int DataFile::readData(void* buffer, int length) {
    if (!_file || length < 0) {
        return -1;
    }
    ssize_t count = -1;
    do {
        count = ::pread(_file->handle(), buffer, static_cast<std::size_t>(length), currentOffset());
    } while (count < 0 && errno == EINTR);
    if (count > 0) {
        _stream.seek(currentOffset() + count);
        currentLocation() += count;
    }
    return static_cast<int>(count);
}

bool DataFile::addRecordTimestamp(unsigned time) {
    const auto step = static_cast<qint32>(time - _lastTimestamp);
    char record[5];
    int length = 0;
    if (step == 0) {
        return true;
    }
    if (step >= std::numeric_limits<qint8>::min() && step <= std::numeric_limits<qint8>::max()) {
        record[0] = kShortTimeStep;
        record[1] = static_cast<char>(step);
        length = 2;
    } else if (step >= std::numeric_limits<qint16>::min() &&
               step <= std::numeric_limits<qint16>::max()) {
        record[0] = kTimeStep;
        qToLittleEndian(static_cast<qint16>(step), record + 1);
        length = 3;
    } else {
        record[0] = kAbsoluteTime;
        qToLittleEndian(static_cast<quint32>(time), record + 1);
        length = 5;
    }
    if (!write(record, length)) {
        return false;
    }
    currentLocation() += length;
    _lastTimestamp = time;
    return true;
}

bool DataFile::writeRecord(const void* bytes, int length) {
    const std::lock_guard lock(_mutex);
    if (!write(static_cast<const char*>(bytes), length)) {
        DebugText::send(_debug, "writeRecord() failed to write %d bytes", length);
        return false;
    }
    currentLocation() += length;
    return true;
}

bool DataFile::write(const char* bytes, int length) {
    if (!_file || length < 0 || !_file->seek(currentOffset())) {
        return false;
    }
    const qint64 written = _file->write(bytes, length);
    _stream.renew(_file->pos());
    return written == length;
}

int DataFile::readRecord(void* buffer, int bufferLength, DataFileRecord::Type& type) {
    const std::lock_guard lock(_mutex);
    if (!_file || bufferLength < 1) {
        return -1;
    }
    const qint64 before = currentOffset();
    const bool isWhole = _stream.next();
    const qint64 read = currentOffset() - before;
    if (read > 0) {
        currentLocation() += read;
        type = _stream.type();
        std::memset(buffer, 0,
                    static_cast<std::size_t>(std::min(bufferLength, kMaximumRecordBytes)));
        std::memcpy(buffer, _stream.record(), static_cast<std::size_t>(read));
    }
    return isWhole ? static_cast<int>(read) : -1;
}

RecordStream DataFile::stream(char* block, int blockBytes) const {
    RecordStream stream(_file->handle(), _lengths, block, blockBytes);
    stream.renew(currentOffset());
    return stream;
}

int DataFile::getRecordTypeLength(int version, DataFileRecord::Type type) {
    const int payload = RecordLengths::builtIn(static_cast<quint32>(version), type);
    if (payload < 0) {
        DebugText::plain("UNKNOWN RECORD TYPE %d", type);
        return 0;
    }
    return payload;
}

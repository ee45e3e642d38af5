#include "datafile/DataFile.h"
#include "tests/fuzz/FuzzInput.h"
#include "tests/fuzz/Require.h"
#include "tests/support/DataFileBytes.h"
#include "tests/support/Files.h"
#include "tests/support/PlainRecordReader.h"

#include <QFile>

#include <cstdint>
#include <vector>

/// Any bytes as a data file, or behind a header whose record types and sizes are chosen: it opens
/// where its header is sound, and then `readRecord`, a stream's `next` and its `forEach` give the
/// plain reader's records, and end where it ends. What is appended is there afterwards, behind what
/// was there.

namespace {

const QString kPath = QStringLiteral("/root/data/fuzzed.gdf");
constexpr char kAppended[] = {103, 1, 2, 3, 4};

void discardLine(const char* /*line*/, std::size_t /*length*/) {}

bool isReadable(const QByteArray& bytes) {
    if (bytes.size() < DataFileFormat::kFixedHeaderBytes) {
        return false;
    }
    const quint32 size =
        DataFileFormat::field(bytes.constData(), DataFileFormat::kHeaderSizeOffset);
    return size >= 80 && size <= 8192 && size <= bytes.size();
}

QList<QByteArray> byReadRecord(DataFile& file) {
    QList<QByteArray> records;
    std::vector<char> buffer(DataFileFormat::kMaximumRecordBytes);
    DataFileRecord::Type type = -1;
    for (int length = 0; (length = file.readRecord(buffer.data(), 256, type)) >= 0;) {
        REQUIRE(length >= 1 && length <= 256);
        REQUIRE(type == DataFileFormat::byteAt(buffer.data(), 0));
        REQUIRE(file.location() == file.currentOffset());
        records += QByteArray(buffer.data(), length);
    }
    return records;
}

QList<QByteArray> byNext(RecordStream& stream) {
    QList<QByteArray> records;
    while (stream.next()) {
        REQUIRE(stream.length() >= 1 && stream.length() <= 256);
        records += QByteArray(stream.record(), 256).first(stream.length());
    }
    return records;
}

QList<QByteArray> byForEach(RecordStream& stream) {
    QList<QByteArray> records;
    stream.forEach([&records](const char* record, int type, int length) {
        REQUIRE(length >= 1 && length <= 256);
        REQUIRE(type == DataFileFormat::byteAt(record, 0));
        records += QByteArray(record, 256).first(length);
        return true;
    });
    return records;
}

void checkRecords(DataFile& file, PlainRecordReader plain, int blockBytes) {
    const QList<QByteArray> expected = plain.rest();
    for (const auto walk : {byNext, byForEach}) {
        std::vector<char> block(static_cast<std::size_t>(blockBytes));
        RecordStream stream = file.stream(block.data(), blockBytes);
        REQUIRE(walk(stream) == expected);
        REQUIRE(stream.offset() == plain.offset());
    }
    REQUIRE(byReadRecord(file) == expected);
    REQUIRE(file.currentOffset() == plain.offset());
}

void checkDescriptions(const DataFile& file) {
    for (int type = -1; type <= 256; ++type) {
        const int index = file.findRecordType(type);
        REQUIRE(index >= -1 && index < 7);
        const int length = file.recordTypeLength(type);
        REQUIRE(length >= -1 && length <= 255);
        REQUIRE(type <= 3 || (index < 0) == (length < 0));
    }
    REQUIRE(file.findRecordType(QStringLiteral("no such name")) < 7);
}

void checkAppending(const QByteArray& bytes) {
    DataFile file(QStringLiteral("fuzz"));
    REQUIRE(file.open(kPath, 0));
    REQUIRE(file.location() == bytes.size());
    REQUIRE(file.addRecordTimestamp(77));
    REQUIRE(file.writeRecord(kAppended, sizeof kAppended));
    const QByteArray after =
        bytes + QByteArray("\x01\x4D\0\0\0", 5) + QByteArray(kAppended, sizeof kAppended);
    REQUIRE(readTestFile(kPath) == after);
    REQUIRE(file.seekToFirstRecord());
    checkRecords(file, PlainRecordReader(after), 4096);
}

void write(const QByteArray& bytes) {
    QFile file(kPath);
    REQUIRE(file.open(QIODevice::WriteOnly | QIODevice::Unbuffered));
    REQUIRE(file.write(bytes) == bytes.size());
}

/// README.md tells the encoding.
QByteArray fileOf(FuzzInput& input) {
    constexpr int kMostTypes = 8;
    constexpr int kFieldsFollow = 0x80;
    const int choice = input.takeByte();
    QList<DataFileBytes::Described> types(choice % (kMostTypes + 2));
    if (types.size() > kMostTypes) {
        return QByteArray::fromStdString(input.takeRest());
    }
    for (DataFileBytes::Described& type : types) {
        type.code = input.takeByte();
        type.length = input.takeByte();
    }
    QByteArray file = DataFileBytes::header(types);
    if (choice >= kFieldsFollow) {
        for (const int field : {0, 8, 76}) {
            DataFileBytes::setField(file, field, static_cast<quint32>(input.takeInteger()));
        }
    }
    return file + QByteArray::fromStdString(input.takeRest());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    DebugText::setSink(discardLine);
    FuzzInput input(data, size);
    const QByteArray bytes = fileOf(input);
    write(bytes);
    {
        DataFile file(QStringLiteral("fuzz"));
        const bool isOpen = file.open(kPath, 0);
        REQUIRE(isOpen == isReadable(bytes));
        if (isOpen) {
            checkDescriptions(file);
            REQUIRE(file.seekToFirstRecord());
            checkRecords(file, PlainRecordReader(bytes), RecordStream::kMinimumBlockBytes);
            checkAppending(bytes);
        }
    }
    DebugText::setSink(nullptr);
    return 0;
}

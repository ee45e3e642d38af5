#include "datafile/DataFile.h"
#include "datafile/MemoryCache.h"
#include "tests/fuzz/FuzzInput.h"
#include "tests/fuzz/Require.h"
#include "tests/support/DataFileBytes.h"
#include "tests/support/RecordedSource.h"
#include "tests/thumbnails/ThumbnailModel.h"
#include "thumbnails/ThumbnailLayout.h"
#include "thumbnails/ThumbnailManager.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <optional>

#include <sys/mman.h>
#include <unistd.h>

/// A day's data file and the month's thumbnail file, or none, with record types and sizes that are
/// chosen, or any bytes at all: what comes of them is, byte by byte, what a plain model makes of
/// them, twice, and nothing larger than a month. README.md tells the encoding.

namespace {

constexpr char kMonth[] = "2024-05";
constexpr int kFallbackTypes[] = {5, 90, 100, 20, 103, 255};
constexpr std::uint8_t kHasTarget = 128;
constexpr std::uint8_t kTypes = 7;
constexpr std::uint8_t kHasChangedField = 8;
constexpr std::uint8_t kHasNoHeader = 16;
/// 31 days of 96 blocks of seven of the longest slots, behind the longest header.
constexpr qsizetype kLargestThumbnail = 8192 + 31 * 96 * 7 * 124 + 868;

void discardLine(const char* /*line*/, std::size_t /*length*/) {}

/// A file in memory that has a name.
class NamedFile {
public:
    explicit NamedFile(const QByteArray& bytes) : _descriptor(::memfd_create("file", MFD_CLOEXEC)) {
        REQUIRE(_descriptor >= 0);
        REQUIRE(::write(_descriptor, bytes.constData(), static_cast<std::size_t>(bytes.size())) ==
                bytes.size());
    }
    ~NamedFile() { ::close(_descriptor); }
    NamedFile(const NamedFile&) = delete;
    NamedFile& operator=(const NamedFile&) = delete;

    QString path() const { return QStringLiteral("/proc/self/fd/%1").arg(_descriptor); }
    QByteArray bytes() const {
        QFile file(path());
        REQUIRE(file.open(QIODevice::ReadOnly));
        return file.readAll();
    }

private:
    int _descriptor;
};

/// What the thumbnail file holds afterwards.
QByteArray build(ThumbnailManager& manager, const QString& source, const QString& target,
                 int fallbackType, int day, int& count) {
    DataFile data(source);
    if (!data.open(source, 0)) {
        count = ThumbnailModel::kNoSource;
        return {};
    }
    QFile thumb(target);
    QMap<int, int> slotMap;
    int headerSize = 0;
    if (!manager.appendDayOpenThumb(kMonth, data, thumb, headerSize, fallbackType, slotMap)) {
        count = ThumbnailModel::kNoThumbnail;
        return {};
    }
    count = manager.appendDayWorker(headerSize, slotMap, day - 1,
                                    ThumbnailLayout::monthStart(kMonth), data, thumb);
    REQUIRE(thumb.seek(0));
    return thumb.readAll();
}

struct Input {
    QByteArray source;
    std::optional<QByteArray> target;
    int fallbackType;
    int day;
};

QByteArray takeHeader(FuzzInput& input) {
    const std::uint8_t choice = input.takeByte();
    if (choice & kHasNoHeader) {
        return {};
    }
    RecordedSource file;
    for (int i = 0; i < (choice & kTypes); ++i) {
        const std::uint8_t type = input.takeByte();
        file.describe(type, input.takeByte());
    }
    if (choice & kHasChangedField) {
        const int offset = input.takeByte() % (DataFileFormat::kFixedHeaderBytes - 3);
        DataFileBytes::setField(file.bytes, offset, static_cast<quint32>(input.takeInteger()));
    }
    return file.bytes;
}

Input take(FuzzInput& bytes) {
    Input input = {.source = {}, .target = std::nullopt, .fallbackType = 0, .day = 0};
    input.day = bytes.takeByte() % 31 + 1;
    const std::uint8_t choice = bytes.takeByte();
    input.fallbackType = kFallbackTypes[choice % std::size(kFallbackTypes)];
    if (choice & kHasTarget) {
        input.target = takeHeader(bytes) + QByteArray::fromStdString(bytes.takeBlock());
    }
    input.source = takeHeader(bytes);
    while (!bytes.isAtEnd()) {
        input.source += static_cast<char>(bytes.takeByte());
    }
    return input;
}

/// The day done twice: the second time finds its own work.
void check(const Input& input) {
    MemoryCache cache(false);
    g_memoryCache = &cache;
    ThumbnailManager manager(nullptr);
    const NamedFile source(input.source);
    const QString fresh = QStringLiteral("/dev/shm/fuzz_thumbnail.%1.gdt").arg(::getpid());
    QFile::remove(fresh);
    const NamedFile existing(input.target.value_or(QByteArray()));
    const QString target = input.target ? existing.path() : fresh;
    ThumbnailModel model(kMonth, input.fallbackType);
    model.file = input.target;
    for (int turn = 0; turn < 2; ++turn) {
        int count = 0;
        const QByteArray file =
            build(manager, source.path(), target, input.fallbackType, input.day, count);
        REQUIRE(count == model.appendDay(input.source, input.day));
        if (count >= 0) {
            REQUIRE(file == *model.file);
            REQUIRE(file.size() <=
                    std::max(kLargestThumbnail, input.target.value_or(QByteArray()).size()));
        }
    }
    REQUIRE(source.bytes() == input.source);
    QFile::remove(fresh);
    g_memoryCache = nullptr;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    DebugText::setSink(discardLine);
    FuzzInput input(data, size);
    check(take(input));
    DebugText::setSink(nullptr);
    return 0;
}

#include "bench/RecordedDay.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QtEndian>

#include <array>
#include <bit>
#include <cmath>
#include <cstring>
#include <stdexcept>

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr int kGaugeRecordBytes = 10;
constexpr int kStepBytes = 2;
constexpr int kTimeBytes = 5;
constexpr std::uint32_t kMinuteSeconds = 60;
constexpr std::uint32_t kIntervalSeconds = 900;

template <typename Value>
void append(QByteArray& bytes, Value value) {
    const Value stored = qToLittleEndian(value);
    bytes.append(reinterpret_cast<const char*>(&stored), sizeof stored);
}

QByteArray header(std::uint32_t created, const RecordedDay::Kind& kind) {
    QByteArray bytes;
    append<std::uint32_t>(bytes, 2);
    append<std::uint32_t>(bytes, created);
    append<std::uint32_t>(bytes, RecordedDay::kHeaderBytes);
    bytes.append(QByteArray("flow-1").leftJustified(64, '\0'));
    append<std::uint32_t>(bytes, 1);
    QByteArray type = QByteArray(kind.name).leftJustified(31, '\0');
    type.append(kind.type).append(static_cast<char>(kind.recordBytes));
    return (bytes + type).leftJustified(RecordedDay::kHeaderBytes, '\0');
}

void appendSample(QByteArray& bytes, int second, const RecordedDay::Kind& kind) {
    QByteArray record(1, kind.type);
    append(record, static_cast<float>(100 + std::sin(second / 3000.0)));
    append(record, static_cast<float>(20 + std::cos(second / 9000.0)));
    bytes += record.leftJustified(kind.recordBytes, '\0');
}

QByteArray bytesOf(const QString& date, int repeats, const RecordedDay::Kind& kind) {
    const std::uint32_t midnight = RecordedDay::midnight(date);
    QByteArray all = header(midnight, kind);
    for (int repeat = 0; repeat < repeats; ++repeat) {
        all.append(1);
        append(all, midnight);
        appendSample(all, 0, kind);
        for (int second = 1; second < RecordedDay::kSamples; ++second) {
            all.append(2).append(1);
            appendSample(all, second, kind);
        }
    }
    return all;
}

/// A descriptor that closes itself.
struct Descriptor {
    Descriptor(const char* name, int flags) : number(::open(name, flags | O_CLOEXEC)) {
        if (number < 0) {
            throw std::runtime_error(std::string("cannot open ") + name);
        }
    }
    ~Descriptor() { ::close(number); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int number;
};

/// Calls `visit(time, record)` for each sample of a block, until it returns false; `time` goes on
/// from block to block. Returns how many bytes it has used: all whole records of the block.
template <typename Visit>
std::size_t readBlock(const char* block, std::size_t size, std::uint32_t& time, bool& goesOn,
                      const Visit& visit) {
    std::uint32_t now = time;
    const char* next = block;
    const char* const last = block + size - kGaugeRecordBytes;
    while (next <= last && goesOn) {
        switch (*next) {
            case 5:
                goesOn = visit(now, next);
                next += kGaugeRecordBytes;
                break;
            case 2:
                now += static_cast<unsigned char>(next[1]);
                next += kStepBytes;
                break;
            case 1:
                now = qFromLittleEndian<std::uint32_t>(next + 1);
                next += kTimeBytes;
                break;
            default:
                throw std::runtime_error("no such record in this file");
        }
    }
    time = now;
    return static_cast<std::size_t>(next - block);
}

/// The shortest way through a file of this kind: 64 KB blocks, and the record lengths known.
template <typename Visit>
void forEachSample(const char* file, const Visit& visit) {
    const Descriptor data(file, O_RDONLY);
    static std::array<char, 65536> block;
    std::uint32_t time = 0;
    off_t offset = RecordedDay::kHeaderBytes;
    for (bool goesOn = true; goesOn;) {
        const ssize_t count = ::pread(data.number, block.data(), block.size(), offset);
        if (count < kGaugeRecordBytes) {
            return;
        }
        offset += static_cast<off_t>(
            readBlock(block.data(), static_cast<std::size_t>(count), time, goesOn, visit));
    }
}

void writeSlot(int thumbnail, std::uint32_t time, std::uint32_t interval, const char* record) {
    char slot[RecordedDay::kSlotBytes];
    slot[0] = 1;
    qToLittleEndian(time, slot + 1);
    std::memcpy(slot + kTimeBytes, record, kGaugeRecordBytes);
    const off_t offset =
        RecordedDay::kHeaderBytes + static_cast<off_t>(interval) * RecordedDay::kSlotBytes;
    if (::pwrite(thumbnail, slot, sizeof slot, offset) != sizeof slot) {
        throw std::runtime_error("cannot write the thumbnail");
    }
}

}  // namespace

namespace RecordedDay {

std::uint32_t midnight(const QString& date) {
    const QDate day = QDate::fromString(date, "yyyy-MM-dd");
    return static_cast<std::uint32_t>(QDateTime(day, QTime(0, 0), Qt::UTC).toSecsSinceEpoch());
}

void write(const QString& path, const QString& date, int repeats, const Kind& kind) {
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    const QByteArray contents = bytesOf(date, repeats, kind);
    if (!file.open(QIODevice::WriteOnly) || file.write(contents) != contents.size()) {
        throw std::runtime_error("cannot write " + path.toStdString());
    }
}

int bareThumbnail(const char* dataFile, const char* thumbnailFile, const QString& date,
                  bool isSynced) {
    const Descriptor thumbnail(thumbnailFile, O_RDWR);
    const std::uint32_t monthStart = midnight(date.left(8) + "01");
    std::uint32_t intervalStart = 0;
    int written = 0;
    forEachSample(dataFile, [&](std::uint32_t time, const char* record) {
        if (time - intervalStart >= kIntervalSeconds) {
            intervalStart = time;
            writeSlot(thumbnail.number, time, (time - monthStart) / kIntervalSeconds, record);
            ++written;
        }
        return true;
    });
    if (isSynced && ::fsync(thumbnail.number) != 0) {
        throw std::runtime_error("cannot sync the thumbnail");
    }
    return written;
}

int bareLookup(const char* dataFile, std::uint32_t start, float* values) {
    int count = 0;
    forEachSample(dataFile, [&](std::uint32_t time, const char* record) {
        if (time >= start + static_cast<std::uint32_t>(count) * kMinuteSeconds) {
            values[count++] = std::bit_cast<float>(qFromLittleEndian<std::uint32_t>(record + 1));
        }
        return count < kMinutes;
    });
    return count;
}

}  // namespace RecordedDay

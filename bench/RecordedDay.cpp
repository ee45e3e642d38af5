#include "bench/RecordedDay.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QtEndian>

#include <array>
#include <cmath>
#include <cstring>
#include <stdexcept>

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr int kGaugeRecordBytes = 10;
constexpr int kStepBytes = 2;
constexpr std::uint32_t kIntervalSeconds = 900;

template <typename Value>
void append(QByteArray& bytes, Value value) {
    const Value stored = qToLittleEndian(value);
    bytes.append(reinterpret_cast<const char*>(&stored), sizeof stored);
}

QByteArray header(std::uint32_t created) {
    QByteArray bytes;
    append<std::uint32_t>(bytes, 2);
    append<std::uint32_t>(bytes, created);
    append<std::uint32_t>(bytes, RecordedDay::kHeaderBytes);
    bytes.append(QByteArray("flow-1").leftJustified(64, '\0'));
    append<std::uint32_t>(bytes, 1);
    QByteArray type = QByteArray("gauge").leftJustified(31, '\0');
    type.append(5).append(kGaugeRecordBytes);
    return (bytes + type).leftJustified(RecordedDay::kHeaderBytes, '\0');
}

void appendSample(QByteArray& bytes, int second) {
    bytes.append(5);
    append(bytes, static_cast<float>(100 + std::sin(second / 3000.0)));
    append(bytes, static_cast<float>(20 + std::cos(second / 9000.0)));
    bytes.append('\0');
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

/// What the bare loop knows on its way through the file.
struct BareWalk {
    int thumbnail;
    std::uint32_t monthStart;
    std::uint32_t time = 0;
    std::uint32_t intervalStart = 0;
    bool isWanted = false;
    int written = 0;

    void moveTo(std::uint32_t newTime) {
        time = newTime;
        if (time - intervalStart >= kIntervalSeconds) {
            intervalStart = time;
            isWanted = true;
        }
    }

    void placeSample(const char* record) {
        isWanted = false;
        char slot[RecordedDay::kSlotBytes];
        slot[0] = 1;
        qToLittleEndian(time, slot + 1);
        std::memcpy(slot + 5, record, kGaugeRecordBytes);
        const off_t offset =
            RecordedDay::kHeaderBytes +
            static_cast<off_t>((time - monthStart) / kIntervalSeconds) * RecordedDay::kSlotBytes;
        if (::pwrite(thumbnail, slot, sizeof slot, offset) != sizeof slot) {
            throw std::runtime_error("cannot write the thumbnail");
        }
        ++written;
    }

    /// Returns how many bytes it has used: all whole records of the block.
    std::size_t readBlock(const char* block, std::size_t size) {
        const char* next = block;
        const char* const last = block + size - kGaugeRecordBytes;
        while (next <= last) {
            switch (*next) {
                case 5:
                    if (isWanted) {
                        placeSample(next);
                    }
                    next += kGaugeRecordBytes;
                    break;
                case 2:
                    moveTo(time + static_cast<unsigned char>(next[1]));
                    next += kStepBytes;
                    break;
                case 1:
                    moveTo(qFromLittleEndian<std::uint32_t>(next + 1));
                    next += 5;
                    break;
                default:
                    throw std::runtime_error("no such record in this file");
            }
        }
        return static_cast<std::size_t>(next - block);
    }
};

}  // namespace

namespace RecordedDay {

std::uint32_t midnight(const QString& date) {
    const QDate day = QDate::fromString(date, "yyyy-MM-dd");
    return static_cast<std::uint32_t>(QDateTime(day, QTime(0, 0), Qt::UTC).toSecsSinceEpoch());
}

QByteArray bytes(const QString& date, int repeats) {
    QByteArray all = header(midnight(date));
    for (int repeat = 0; repeat < repeats; ++repeat) {
        all.append(1);
        append(all, midnight(date));
        appendSample(all, 0);
        for (int second = 1; second < kSamples; ++second) {
            all.append(2).append(1);
            appendSample(all, second);
        }
    }
    return all;
}

void write(const QString& path, const QString& date, int repeats) {
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    const QByteArray contents = bytes(date, repeats);
    if (!file.open(QIODevice::WriteOnly) || file.write(contents) != contents.size()) {
        throw std::runtime_error("cannot write " + path.toStdString());
    }
}

int bareThumbnail(const char* dataFile, const char* thumbnailFile, const QString& date,
                  bool isSynced) {
    const Descriptor data(dataFile, O_RDONLY);
    const Descriptor thumbnail(thumbnailFile, O_RDWR);
    static std::array<char, 65536> block;
    BareWalk walk{thumbnail.number, midnight(date.left(8) + "01")};
    off_t offset = kHeaderBytes;
    for (;;) {
        const ssize_t count = ::pread(data.number, block.data(), block.size(), offset);
        if (count < kGaugeRecordBytes) {
            break;
        }
        offset += static_cast<off_t>(walk.readBlock(block.data(), static_cast<std::size_t>(count)));
    }
    if (isSynced && ::fsync(thumbnail.number) != 0) {
        throw std::runtime_error("cannot sync the thumbnail");
    }
    return walk.written;
}

}  // namespace RecordedDay

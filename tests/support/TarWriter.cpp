#include "tests/support/TarWriter.h"

#include <QtEndian>

namespace {

constexpr int kBlockBytes = 512;
constexpr int kTime = 1'600'000'000;
constexpr quint32 kCrcPolynomial = 0xEDB88320;

QByteArray padded(const QByteArray& contents) {
    const qsizetype rest = contents.size() % kBlockBytes;
    return rest == 0 ? contents : contents + QByteArray(kBlockBytes - rest, '\0');
}

QByteArray octal(qint64 number, int width) {
    return QByteArray::number(number, 8).rightJustified(width - 1, '0') + '\0';
}

/// As much of it as the field takes.
void put(QByteArray& block, int offset, int width, const QByteArray& field) {
    block.replace(offset, std::min<qsizetype>(width, field.size()), field.left(width));
}

void putChecksum(QByteArray& block) {
    put(block, 148, 8, QByteArray(8, ' '));
    int sum = 0;
    for (const char byte : block) {
        sum += static_cast<unsigned char>(byte);
    }
    put(block, 148, 8, octal(sum, 7) + ' ');
}

QByteArray header(const TarWriter::Member& member, bool isPosix = true) {
    QByteArray block(kBlockBytes, '\0');
    put(block, 0, 100, member.name);
    put(block, 100, 8, octal(member.mode, 8));
    put(block, 108, 8, octal(0, 8));
    put(block, 116, 8, octal(0, 8));
    put(block, 124, 12,
        octal(member.claimedSize < 0 ? member.contents.size() : member.claimedSize, 12));
    put(block, 136, 12, octal(kTime, 12));
    put(block, 156, 1, QByteArray(1, member.type));
    put(block, 157, 100, member.target);
    put(block, 257, 8,
        isPosix ? QByteArray("ustar\0"
                             "00",
                             8)
                : QByteArray("ustar  \0", 8));
    put(block, 329, 8, octal(1, 8));
    put(block, 337, 8, octal(3, 8));
    putChecksum(block);
    return block;
}

quint32 crc(const QByteArray& bytes) {
    quint32 value = 0xFFFFFFFF;
    for (const char byte : bytes) {
        value ^= static_cast<unsigned char>(byte);
        for (int bit = 0; bit < 8; ++bit) {
            value = (value >> 1) ^ ((value & 1) != 0 ? kCrcPolynomial : 0);
        }
    }
    return ~value;
}

QByteArray littleEndianNumber(quint32 number) {
    QByteArray bytes(4, '\0');
    qToLittleEndian(number, bytes.data());
    return bytes;
}

}  // namespace

TarWriter& TarWriter::add(const Member& member) {
    _bytes += header(member) + padded(member.contents);
    return *this;
}

TarWriter& TarWriter::file(const QByteArray& name, const QByteArray& contents, int mode) {
    return add({.name = name, .contents = contents, .mode = mode});
}

TarWriter& TarWriter::folder(const QByteArray& name, int mode) {
    return add({.name = name, .type = kFolder, .mode = mode});
}

TarWriter& TarWriter::link(char type, const QByteArray& name, const QByteArray& target) {
    return add({.name = name, .type = type, .target = target});
}

TarWriter& TarWriter::pax(const QList<std::pair<QByteArray, QByteArray>>& records) {
    QByteArray contents;
    for (const auto& [key, value] : records) {
        const QByteArray record = ' ' + key + '=' + value + '\n';
        qsizetype length = record.size();
        while (QByteArray::number(length).size() + record.size() != length) {
            length = QByteArray::number(length).size() + record.size();
        }
        contents += QByteArray::number(length) + record;
    }
    return add({.name = "pax", .type = 'x', .contents = contents});
}

TarWriter& TarWriter::longName(const QByteArray& name) {
    return add({.name = "././@LongLink", .type = 'L', .contents = name + '\0'});
}

TarWriter& TarWriter::longTarget(const QByteArray& target) {
    return add({.name = "././@LongLink", .type = 'K', .contents = target + '\0'});
}

TarWriter& TarWriter::sparse(const QByteArray& name, const QByteArray& contents, qint64 offset,
                             qint64 size) {
    QByteArray block = header({.name = name, .type = 'S', .contents = contents}, false);
    put(block, 329, 16, QByteArray(16, '\0'));
    put(block, 386, 12, octal(offset, 12));
    put(block, 398, 12, octal(contents.size(), 12));
    put(block, 410, 12, octal(size, 12));
    put(block, 422, 12, octal(0, 12));
    put(block, 483, 12, octal(size, 12));
    putChecksum(block);
    _bytes += block + padded(contents);
    return *this;
}

QByteArray TarWriter::bytes() const {
    return _bytes + QByteArray(2 * kBlockBytes, '\0');
}

QByteArray TarWriter::gzip(const QByteArray& bytes) {
    // Between Qt's own length and zlib's header in front, and zlib's checksum behind. Of nothing,
    // Qt makes nothing; deflate makes an empty block.
    const QByteArray deflated =
        bytes.isEmpty() ? QByteArray::fromHex("0300") : qCompress(bytes).mid(4 + 2).chopped(4);
    return QByteArray::fromHex("1f8b0800000000000003") + deflated + littleEndianNumber(crc(bytes)) +
           littleEndianNumber(static_cast<quint32>(bytes.size()));
}

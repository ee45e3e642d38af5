#include "tests/support/DataFileBytes.h"

namespace DataFileBytes {

QByteArray littleEndian(quint32 value) {
    QByteArray bytes;
    for (int shift = 0; shift < 32; shift += 8) {
        bytes += static_cast<char>(value >> shift & 0xFF);
    }
    return bytes;
}

void setField(QByteArray& file, int offset, quint32 value) {
    file.replace(offset, 4, littleEndian(value));
}

QByteArray header(const QList<Described>& types) {
    const auto count = static_cast<quint32>(types.size());
    QByteArray bytes = littleEndian(2) + littleEndian(1'700'000'000) +
                       littleEndian(80 + 1024 * count) + QByteArray("source").leftJustified(64, 0) +
                       littleEndian(count);
    for (const Described& type : types) {
        QByteArray descriptor = QByteArray("type").leftJustified(1024, 0);
        descriptor[31] = static_cast<char>(type.code);
        descriptor[32] = static_cast<char>(type.length);
        bytes += descriptor;
    }
    return bytes;
}

const QList<BuiltInRow>& builtInRows() {
    static const QList<BuiltInRow> rows = {
        {4, {1}},
        {1, {2, 220}},
        {2, {3, 106, 111}},
        {9, {4, 5, 116}},
        {12, {6, 90, 98, 210, 251, 254}},
        {255, {7}},
        {252, {8}},
        {20, {9}},
        {127, {10, 253}},
        {0, {11}},
        {8, {20, 96, 97, 99, 181, 186, 240}},
        {11, {100}},
        {37, {101}},
        {48, {102}},
        {4, {103, 104, 121, 123, 124, 125, 126}},
        {32, {105, 195}},
        {30, {107}},
        {7, {110, 120, 215, 217}},
        {5, {114, 117, 122}},
        {10, {115, 216}},
        {13, {180, 185, 200}},
        {22, {190, 218}},
        {15, {252}},
        {17, {255}},
    };
    return rows;
}

int builtInPayload(quint32 version, int code) {
    if (code == 1 && version == 0) {
        return 3;
    }
    for (const BuiltInRow& row : builtInRows()) {
        if (row.codes.contains(code)) {
            return row.payloadBytes;
        }
    }
    return -1;
}

}  // namespace DataFileBytes

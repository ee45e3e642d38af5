#include "tools/storagectl/RecordLayout.h"

#include "datafile/DataFileFormat.h"

#include <QtEndian>

#include <bit>
#include <cmath>
#include <cstring>

namespace storagectl {

namespace {

using Kind = RecordField::Kind;

constexpr int kGauge = 5;
constexpr int kGaugeCard = 90;
constexpr int kSystemPower = 252;
constexpr int kSystemStorage = 254;
constexpr int kSystemStatus = 255;

constexpr quint32 kNotANumber = 0x7FC00000;
constexpr float kSmallestReal = 1e-6F;
constexpr float kLargestReal = 1e9F;

/// The device's known records: names and meanings for files whose header describes none.
const QList<RecordLayout>& knownRecords() {
    static const QList<RecordLayout> all = {
        {kGauge,
         "gauge",
         {{"value", 1, 4, Kind::Real},
          {"temperature", 5, 4, Kind::Real},
          {"status", 9, 1, Kind::Unsigned}}},
        {kGaugeCard,
         "gauge card",
         {{"bytes1-4", 1, 4, Kind::RealOrSigned, true},
          {"LV", 5, 4, Kind::Real},
          {"LC", 9, 4, Kind::Real}}},
        {kSystemPower,
         "power",
         {{"SsysVoltage", 1, 4, Kind::Real},
          {"SsysCurrent", 5, 4, Kind::Real},
          {"Stemp", 9, 4, Kind::Real},
          {"Sapvcc", 13, 2, Kind::Unsigned},
          {"SsysFlags", 15, 1, Kind::Unsigned}}},
        {kSystemStorage,
         "storage",
         {{"SdiskFree", 1, 4, Kind::Signed},
          {"ScardFree", 5, 4, Kind::Signed},
          {"ScardSize", 9, 4, Kind::Signed}}},
        {kSystemStatus,
         "status",
         {{"Sambient", 1, 4, Kind::Real},
          {"Sdie", 5, 4, Kind::Real},
          {"SfreeMemory", 9, 4, Kind::Signed},
          {"Sload", 13, 4, Kind::Signed},
          {"Sconnections", 17, 1, Kind::Unsigned}}},
    };
    return all;
}

const RecordLayout* knownRecord(int type) {
    for (const RecordLayout& layout : knownRecords()) {
        if (layout.type == type) {
            return &layout;
        }
    }
    return nullptr;
}

void explain(RecordField& field, const RecordLayout* known) {
    for (const RecordField& same : known ? known->fields : QList<RecordField>()) {
        if (same.offset == field.offset && same.width == field.width) {
            field.kind = same.kind;
            field.isGuessed = same.isGuessed;
            return;
        }
    }
    constexpr Kind kByWidth[] = {Kind::Bytes, Kind::Unsigned, Kind::Signed, Kind::Bytes,
                                 Kind::RealOrSigned};
    field.kind = field.width <= 4 ? kByWidth[field.width] : Kind::Bytes;
    field.isGuessed = true;
}

QString nameAt(const char* bytes, int room) {
    return QString::fromLatin1(bytes, static_cast<qsizetype>(::strnlen(bytes, room)));
}

RecordLayout described(const char* descriptor, const RecordLayout* known) {
    using namespace DataFileFormat;
    RecordLayout layout;
    layout.isDescribed = true;
    layout.name = nameAt(descriptor, kNameBytes);
    const int count = std::min<int>(byteAt(descriptor, kMnemonicCountOffset), kMaximumMnemonics);
    int offset = 1;
    for (int i = 0; i < count; ++i) {
        const char* const name = descriptor + kMnemonicNamesOffset + i * kMnemonicNameBytes;
        RecordField field{nameAt(name, kMnemonicNameBytes), offset,
                          byteAt(descriptor, kMnemonicWidthsOffset + i)};
        if (field.name.isEmpty()) {
            field.name = QString("value%1").arg(i + 1);
        }
        explain(field, known);
        offset += field.width;
        layout.fields.append(field);
    }
    return layout;
}

/// Values that a header gives more room than the records have are not there.
void fitInto(RecordLayout& layout, int recordBytes) {
    const auto isOutside = [recordBytes](const RecordField& field) {
        return field.width == 0 || field.offset + field.width > recordBytes;
    };
    layout.fields.removeIf(isOutside);
    int covered = 1;
    for (const RecordField& field : std::as_const(layout.fields)) {
        covered += field.width;
        layout.wantsHex = layout.wantsHex || field.isGuessed;
    }
    layout.wantsHex = layout.wantsHex || covered < recordBytes;
}

}  // namespace

double RecordField::number(const char* record) const {
    const char* const bytes = record + offset;
    if (kind == Kind::Real) {
        return std::bit_cast<float>(qFromLittleEndian<quint32>(bytes));
    }
    const bool isSigned = kind != Kind::Unsigned;
    switch (width) {
        case 1:
            return DataFileFormat::byteAt(bytes, 0);
        case 2:
            return isSigned ? qFromLittleEndian<qint16>(bytes) : qFromLittleEndian<quint16>(bytes);
        default:
            return qFromLittleEndian<qint32>(bytes);
    }
}

QString RecordField::textOf(const char* record) const {
    if (!isNumber()) {
        return QString::fromLatin1(QByteArray(record + offset, width).toHex());
    }
    return decimalText(number(record));
}

QString decimalText(double value) {
    constexpr double kLargestWhole = 1e15;
    if (std::trunc(value) == value && std::fabs(value) < kLargestWhole) {
        return QString::number(static_cast<qint64>(value));
    }
    // Nine significant digits tell every 32-bit real from its neighbours; most need fewer.
    char digits[32];
    for (int precision = 6; precision <= 9; ++precision) {
        std::snprintf(digits, sizeof digits, "%.*g", precision, value);
        if (std::strtof(digits, nullptr) == static_cast<float>(value)) {
            break;
        }
    }
    return QString::fromLatin1(digits);
}

QString RecordField::kindName() const {
    switch (kind) {
        case Kind::Unsigned:
            return QString("unsigned %1").arg(width * 8);
        case Kind::Signed:
            return QString("signed %1").arg(width * 8);
        case Kind::Real:
            return "real 32";
        case Kind::RealOrSigned:
            return "4 bytes";
        case Kind::Bytes:
            break;
    }
    return QString("%1 bytes").arg(width);
}

RecordLayout layoutOf(const QByteArray& header, int type, int recordBytes) {
    using namespace DataFileFormat;
    const RecordLayout* const known = knownRecord(type);
    RecordLayout layout = known ? *known : RecordLayout();
    const int count = describedTypes(header.constData(), static_cast<int>(header.size()));
    for (int i = count - 1; i >= 0; --i) {
        const char* const found = descriptor(header.constData(), i);
        if (byteAt(found, kTypeOffset) == type) {
            layout = described(found, known);
        }
    }
    layout.type = type;
    if (layout.name.isEmpty()) {
        layout.name = QString("type %1").arg(type);
    }
    fitInto(layout, recordBytes);
    return layout;
}

bool looksReal(const char* bytes) {
    const auto bits = qFromLittleEndian<quint32>(bytes);
    const float size = std::fabs(std::bit_cast<float>(bits));
    return bits == 0 || bits == kNotANumber || (size >= kSmallestReal && size <= kLargestReal);
}

}  // namespace storagectl

#include "tools/storagectl/ReplayBlock.h"

#include "tools/storagectl/Output.h"
#include "tools/storagectl/RecordLayout.h"

#include <QtEndian>

#include <bit>
#include <cmath>

namespace storagectl {

namespace {

enum ItemKind : char { Int = 0, Float = 1, String = 2 };

constexpr qsizetype kNumberBytes = 4;

bool takeNumber(ReplayBlock& block, ItemKind kind, const QByteArray& rest) {
    if (rest.size() < kNumberBytes) {
        return false;
    }
    if (kind == Int) {
        const auto number = qFromLittleEndian<qint32>(rest.constData());
        block.kind = "int";
        block.text = QString::number(number);
        block.value = number;
        return true;
    }
    const auto number = std::bit_cast<float>(qFromLittleEndian<quint32>(rest.constData()));
    block.kind = "float";
    block.text = decimalText(double{number});
    block.value = std::isfinite(number) ? QJsonValue(block.text.toDouble()) : block.text;
    return true;
}

bool takeText(ReplayBlock& block, const QByteArray& rest) {
    const qsizetype end = rest.indexOf('\0');
    const QString text = QString::fromUtf8(rest.left(end));
    block.kind = "string";
    block.text = '"' + escaped(text) + '"';
    block.value = text;
    return end >= 0;
}

}  // namespace

ReplayBlock ReplayBlock::decode(const QByteArray& bytes) {
    ReplayBlock block;
    block.bytes = bytes.size();
    if (bytes.isEmpty()) {
        return block;
    }
    const qsizetype end = bytes.indexOf('\0', 1);
    const QByteArray rest = bytes.mid(end + 1);
    const char kind = bytes[0];
    const bool isValue =
        end > 1 &&
        ((kind == String && takeText(block, rest)) ||
         ((kind == Int || kind == Float) && takeNumber(block, static_cast<ItemKind>(kind), rest)));
    block.content = isValue ? Content::Value : Content::Damaged;
    block.name = isValue ? bytes.mid(1, end - 1) : QByteArray();
    return block;
}

int ReplayBlock::channel() const {
    for (const char* const suffix : {"P", "T", "status"}) {
        if (name.startsWith('G') && name.endsWith(suffix)) {
            bool isNumber = false;
            const int number = name.mid(1, name.size() - 1 - qstrlen(suffix)).toInt(&isNumber);
            return isNumber ? number : -1;
        }
    }
    return -1;
}

}  // namespace storagectl

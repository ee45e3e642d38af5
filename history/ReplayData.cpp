#include "history/HistoricalDataManager.h"

#include <QtEndian>

#include <algorithm>
#include <bit>
#include <cstring>
#include <limits>

namespace {

using ReplayData = HistoricalDataManager::ReplayData;

enum ItemKind : char { Int = 0, Float = 1, String = 2 };

void add(ReplayData* block, ItemKind kind, const char* name, const void* value, qint64 valueBytes) {
    const qint64 nameBytes = static_cast<qint64>(std::strlen(name)) + 1;
    const qint64 size = 1 + nameBytes + valueBytes;
    block->overflow = block->overflow || size > ReplayData::kBytes - block->used;
    block->used =
        static_cast<int>(std::min<qint64>(block->used + size, std::numeric_limits<int>::max()));

    char* const begin = block->data.data();
    const qint64 room = ReplayData::kStorageBytes - 1;
    begin[0] = kind;
    std::memcpy(begin + 1, name, static_cast<std::size_t>(std::min(nameBytes, room)));
    if (nameBytes < room) {
        std::memcpy(begin + 1 + nameBytes, value,
                    static_cast<std::size_t>(std::min(valueBytes, room - nameBytes)));
    }
}

void addNumber(ReplayData* block, ItemKind kind, const char* name, quint32 value) {
    const quint32 stored = qToLittleEndian(value);
    add(block, kind, name, &stored, sizeof stored);
}

}  // namespace

void HistoricalDataManager::replayAddInt(ReplayData* block, const char* name, int value) {
    addNumber(block, Int, name, static_cast<quint32>(value));
}

void HistoricalDataManager::replayAddFloat(ReplayData* block, const char* name, float value) {
    addNumber(block, Float, name, std::bit_cast<quint32>(value));
}

void HistoricalDataManager::replayAddString(ReplayData* block, const char* name, const char* text) {
    add(block, String, name, text, static_cast<qint64>(std::strlen(text)) + 1);
}

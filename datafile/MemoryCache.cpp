#include "datafile/MemoryCache.h"

#include <algorithm>
#include <limits>
#include <mutex>
#include <new>

MemoryCache* g_memoryCache = nullptr;

/// The head of one heap block; the data follow it in the same block.
struct MemoryCache::MemoryCacheEntry {
    qint32 capacity;
    void* data;
};

void MemoryCache::FreeEntry::operator()(MemoryCacheEntry* entry) const {
    ::operator delete(entry);
}

namespace {

// A later request that is a little larger than an earlier one then fits into the same buffer.
constexpr double kGrowthFactor = 1.25;

int capacityFor(int size) {
    const double wanted = std::max(size, 0) * kGrowthFactor + 1;
    return static_cast<int>(std::min<double>(wanted, std::numeric_limits<int>::max()));
}

std::unique_lock<QMutex> lockIf(bool threadSafe, QMutex& mutex) {
    return threadSafe ? std::unique_lock(mutex) : std::unique_lock<QMutex>();
}

}  // namespace

MemoryCache::MemoryCache(bool threadSafe) : _threadSafe(threadSafe) {}

MemoryCache::~MemoryCache() {
    clearList(_free);
    clearList(_inUse);
}

void MemoryCache::clearList(EntryList& list) {
    const auto lock = lockIf(_threadSafe, _mutex);
    list.clear();
}

MemoryCache::EntryPointer MemoryCache::newEntry(int size) {
    const int capacity = capacityFor(size);
    void* block = ::operator new(sizeof(MemoryCacheEntry) + static_cast<std::size_t>(capacity));
    auto* entry = static_cast<MemoryCacheEntry*>(block);
    return EntryPointer(new (entry) MemoryCacheEntry{capacity, entry + 1});
}

void* MemoryCache::acquireBuffer(int size) {
    const auto lock = lockIf(_threadSafe, _mutex);
    const auto fitting = std::find_if(
        _free.begin(), _free.end(), [size](const auto& entry) { return entry->capacity >= size; });
    if (fitting == _free.end()) {
        _inUse.push_front(newEntry(size));
    } else {
        _inUse.splice(_inUse.begin(), _free, fitting);
    }
    return _inUse.front()->data;
}

void MemoryCache::releaseBuffer(void* buffer) {
    const auto lock = lockIf(_threadSafe, _mutex);
    const auto held = std::find_if(_inUse.begin(), _inUse.end(),
                                   [buffer](const auto& entry) { return entry->data == buffer; });
    if (held != _inUse.end()) {
        _free.splice(_free.begin(), _inUse, held);
    }
}

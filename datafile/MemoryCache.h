#pragma once

#include <QMutex>

#include <list>
#include <memory>

/// A pool of reusable heap buffers for work that needs a large scratch buffer a file. The pool
/// only grows: no buffer is shrunk or freed before the cache is destroyed, and with it every
/// buffer goes, those still held by a caller too. Contents are never initialised.
class MemoryCache {
public:
    /// With `threadSafe` every operation holds a mutex from end to end; otherwise none is locked.
    explicit MemoryCache(bool threadSafe);
    ~MemoryCache();
    MemoryCache(const MemoryCache&) = delete;
    MemoryCache& operator=(const MemoryCache&) = delete;

    /// Returns at least `size` bytes (a negative size counts as 0), owned by the cache: the most
    /// recently released buffer that is large enough, or a new one. Never null.
    void* acquireBuffer(int size);

    /// Gives a buffer back. A pointer that is not in use changes nothing.
    void releaseBuffer(void* buffer);

private:
    struct MemoryCacheEntry;
    struct FreeEntry {
        void operator()(MemoryCacheEntry* entry) const;
    };
    using EntryPointer = std::unique_ptr<MemoryCacheEntry, FreeEntry>;
    using EntryList = std::list<EntryPointer>;

    static EntryPointer newEntry(int size);
    void clearList(EntryList& list);

    // Newest first, both.
    EntryList _inUse;
    EntryList _free;
    bool _threadSafe;
    QMutex _mutex;
};

extern MemoryCache* g_memoryCache;

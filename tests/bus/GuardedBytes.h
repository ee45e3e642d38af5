#pragma once

#include <QByteArray>

#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <new>

/// A copy of some bytes that ends where the readable memory ends: reading the byte behind the last
/// one ends the test program.
class GuardedBytes {
public:
    explicit GuardedBytes(const QByteArray& bytes) {
        const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
        const std::size_t pages = (static_cast<std::size_t>(bytes.size()) + page - 1) / page;
        const std::size_t readable = (pages == 0 ? 1 : pages) * page;
        _mappedBytes = readable + page;
        _memory =
            mmap(nullptr, _mappedBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (_memory == MAP_FAILED) {
            throw std::bad_alloc();
        }
        char* const end = static_cast<char*>(_memory) + readable;
        mprotect(end, page, PROT_NONE);
        _data = end - bytes.size();
        std::memcpy(_data, bytes.constData(), static_cast<std::size_t>(bytes.size()));
    }
    ~GuardedBytes() { munmap(_memory, _mappedBytes); }
    GuardedBytes(const GuardedBytes&) = delete;
    GuardedBytes& operator=(const GuardedBytes&) = delete;

    const char* data() const { return _data; }

private:
    void* _memory = nullptr;
    std::size_t _mappedBytes = 0;
    char* _data = nullptr;
};

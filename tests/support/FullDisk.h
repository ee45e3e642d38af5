#pragma once

#include <sys/resource.h>

#include <csignal>

/// The disk is full for every file at `bytes`, while it lives.
class FullDiskAt {
public:
    explicit FullDiskAt(rlim_t bytes) {
        ::getrlimit(RLIMIT_FSIZE, &_before);
        _handler = std::signal(SIGXFSZ, SIG_IGN);
        const rlimit limit = {bytes, _before.rlim_max};
        ::setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FullDiskAt() {
        ::setrlimit(RLIMIT_FSIZE, &_before);
        std::signal(SIGXFSZ, _handler);
    }
    FullDiskAt(const FullDiskAt&) = delete;
    FullDiskAt& operator=(const FullDiskAt&) = delete;

private:
    rlimit _before = {};
    void (*_handler)(int) = nullptr;
};

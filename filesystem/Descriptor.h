#pragma once

#include <unistd.h>
#include <utility>

/// Owns an open file descriptor; negative where there is none.
class Descriptor {
public:
    explicit Descriptor(int number = -1) : _number(number) {}
    ~Descriptor() {
        if (isOpen()) {
            ::close(_number);
        }
    }
    Descriptor(Descriptor&& other) noexcept : _number(std::exchange(other._number, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(_number, other._number);
        return *this;
    }

    bool isOpen() const { return _number >= 0; }
    int number() const { return _number; }

private:
    int _number;
};

#pragma once

#include <QtGlobal>

/// While it lives, the disk has room for so many bytes more that are written at a position, into
/// all files together. One at a time.
class FailingWrite {
public:
    explicit FailingWrite(qint64 room);
    ~FailingWrite();
    FailingWrite(const FailingWrite&) = delete;
    FailingWrite& operator=(const FailingWrite&) = delete;
};

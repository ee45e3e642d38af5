#pragma once

/// While it lives, the system refuses to move any descriptor's position: what no real regular file
/// does on demand. One at a time.
class FailingSeek {
public:
    FailingSeek();
    ~FailingSeek();
    FailingSeek(const FailingSeek&) = delete;
    FailingSeek& operator=(const FailingSeek&) = delete;
};

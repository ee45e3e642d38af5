#pragma once

/// While it lives, no directory can be read beyond a number of names, "." and ".." among them:
/// what a real one does on a damaged card only. One at a time.
class FailingReaddir {
public:
    explicit FailingReaddir(int names);
    ~FailingReaddir();
    FailingReaddir(const FailingReaddir&) = delete;
    FailingReaddir& operator=(const FailingReaddir&) = delete;
};

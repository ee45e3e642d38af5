#pragma once

#include <QByteArray>
#include <QList>
#include <QtGlobal>

#include <functional>

/// A program run without a shell, and waited for. It gets its arguments as they are, nothing of
/// the daemon but what is named here, and dies with it. Nothing is logged.
struct Subprocess {
    /// The program, found by PATH, first.
    QList<QByteArray> arguments = {};
    /// Descriptors that stay the caller's.
    int input = -1;
    int output = -1;
    /// A file that would grow beyond this ends the program by a signal; 0 sets no limit.
    qint64 longestFileBytes = 0;
    int longestMilliseconds = 0;
    /// Asked every kWatchMilliseconds; the program is killed where it says no.
    std::function<bool()> mayGoOn = {};

    static constexpr int kWatchMilliseconds = 20;

    /// Blocks until the program has ended. Its exit status; kStopped where a signal ended it, it
    /// could not be started, or took too long.
    int run() const;
    static constexpr int kStopped = -1;

private:
    [[noreturn]] void become(const QList<char*>& argumentVector) const;
    int waitFor(int process, unsigned reapedBefore) const;
};

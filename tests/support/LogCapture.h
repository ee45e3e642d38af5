#pragma once

#include <QByteArray>
#include <QList>

/// Collects every log line written while it lives, instead of standard error. One at a time.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    /// Whole lines, "target: text", oldest first.
    const QList<QByteArray>& lines() const;
    int count(const QByteArray& line) const;
    bool contains(const QByteArray& line) const { return count(line) > 0; }
    void clear();
};

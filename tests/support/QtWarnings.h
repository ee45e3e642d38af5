#pragma once

#include <QByteArray>
#include <QList>

/// Collects what Qt itself prints while it lives: our code is to ask Qt for nothing that makes
/// it complain. One at a time.
class QtWarnings {
public:
    QtWarnings();
    ~QtWarnings();
    QtWarnings(const QtWarnings&) = delete;
    QtWarnings& operator=(const QtWarnings&) = delete;

    const QList<QByteArray>& lines() const;
    void clear();
};

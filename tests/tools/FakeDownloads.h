#pragma once

#include "tests/tools/FakeDaemon.h"

#include <QByteArray>
#include <QMap>

#include <functional>
#include <vector>

/// The fake daemon's downloads, while it lives: packs the daemon's files as they are when they are
/// asked for, and sends the stream as far as the reports allow.
class FakeDownloads {
public:
    explicit FakeDownloads(FakeDaemon& daemon);
    ~FakeDownloads();
    FakeDownloads(const FakeDownloads&) = delete;
    FakeDownloads& operator=(const FakeDownloads&) = delete;

    /// The entries of every request, oldest first.
    std::vector<QByteArrayList> requests;
    /// The counts reported, oldest first.
    std::vector<int> reports;
    bool refuses = false;
    /// May spoil or cut a whole stream before it is sent.
    std::function<void(QByteArray& stream)> spoil;
    /// Told before each data message, counted over all of them; false loses it and ends the job.
    std::function<bool(int number)> onMessage;
    /// A directory that cannot be listed, and so on: the answer to a path, as a failure's text.
    QMap<QByteArray, QByteArray> failures;

    /// A record as it travels.
    static QByteArray record(int type, const QByteArray& payload = {});

private:
    struct Job {
        int transfer = 0;
        QByteArray rest;
    };

    bool begin(const QByteArray& connection, const Message& request);
    bool report(const QByteArray& connection, int count);
    QByteArray packed(const QByteArray& entry) const;
    QByteArray packedFile(const QByteArray& contents, qsizetype from) const;
    QByteArray packedDirectory(const QByteArray& path) const;

    FakeDaemon& _daemon;
    QMap<QByteArray, Job> _jobs;
    int _messages = 0;
};

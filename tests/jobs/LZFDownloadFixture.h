#pragma once

#include "jobs/LZFDownloadRemoteJob.h"
#include "jobs/RemoteJobManager.h"
#include "tests/support/DownloadDecoder.h"
#include "tests/support/FakeBus.h"
#include "tests/support/FakeClock.h"
#include "tests/support/Files.h"
#include "tests/support/LogCapture.h"
#include "tests/support/QtWarnings.h"

#include <QCryptographicHash>

#include <gtest/gtest.h>

#include <random>

/// A download over a fake bus and empty roots, sliced by hand.
class LZFDownloadFixture : public testing::Test {
protected:
    using Kind = DownloadDecoder::Kind;

    static constexpr int kConnection = 7;
    static constexpr int kTransfer = 3;
    static constexpr int kBlock = 64512;
    static constexpr int kMostQueued = 90112;

    void SetUp() override {
        emptyRoots();
        log.clear();
    }
    void TearDown() override {
        EXPECT_TRUE(warnings.lines().isEmpty()) << warnings.lines().value(0).toStdString();
    }

    LZFDownloadRemoteJob* start(const QString& request, int connection = kConnection) {
        auto* job = new LZFDownloadRemoteJob(&manager, connection, kTransfer, request);
        manager.addJob(job);
        return job;
    }

    /// As `start`, with the first report in and the messages of the start taken.
    LZFDownloadRemoteJob* startDrained(const QString& request) {
        LZFDownloadRemoteJob* const job = start(request);
        job->handleWriteCount(0);
        bus.takeSent();
        return job;
    }

    /// Slices until the job is over, on a connection that is always drained. Returns their number.
    int runToEnd() {
        int slices = 0;
        for (; !manager.jobs().isEmpty() && slices < 200'000; ++slices) {
            static_cast<LZFDownloadRemoteJob*>(manager.jobs().first())->handleWriteCount(0);
            manager.runSlice();
        }
        EXPECT_TRUE(manager.jobs().isEmpty()) << "the job does not end";
        return slices;
    }

    /// The pieces of the stream that were sent since the last call.
    QList<QByteArray> takePieces() {
        QList<QByteArray> pieces;
        for (const FakeBus::Sent& sent : bus.takeSent()) {
            EXPECT_EQ(sent.token, "ConnectionManager.clientMessage");
            EXPECT_EQ(sent.connection, kConnection);
            EXPECT_EQ(sent.message.command(), 5296);
            EXPECT_STREQ(sent.message.formatString(), "iB");
            EXPECT_EQ(sent.message.parameterAsInt32(0), kTransfer);
            int length = 0;
            const char* const piece = sent.message.parameterAsBLOB(1, length);
            EXPECT_LE(length, 8150);
            pieces.append(QByteArray(piece, length));
        }
        return pieces;
    }

    QByteArray takeStream() { return takePieces().join(); }

    /// What a whole download says, decoded.
    DownloadDecoder download(const QString& request) {
        startDrained(request);
        runToEnd();
        DownloadDecoder decoder;
        for (const QByteArray& piece : takePieces()) {
            decoder.add({piece.constData(), static_cast<std::size_t>(piece.size())});
        }
        EXPECT_TRUE(decoder.isComplete()) << decoder.fault();
        return decoder;
    }

    /// The one item of a download of one entry.
    DownloadDecoder::Item downloadOne(const QString& request) {
        const DownloadDecoder decoder = download(request);
        EXPECT_EQ(decoder.items().size(), 1U);
        return decoder.items().empty() ? DownloadDecoder::Item() : decoder.items().front();
    }

    /// Bytes that no compressor shortens.
    QByteArray noise(int length) {
        QByteArray bytes(length, '\0');
        for (char& byte : bytes) {
            byte = static_cast<char>(random() & 0xff);
        }
        return bytes;
    }

    /// Bytes that shrink, and differ at every place where a block could be doubled or left out.
    static QByteArray text(int length) {
        QByteArray bytes;
        for (int i = 0; bytes.size() < length; ++i) {
            bytes += "line " + QByteArray::number(i) + " of a recording\n";
        }
        bytes.truncate(length);
        return bytes;
    }

    static QString hashOf(const QByteArray& bytes) {
        return QString::fromLatin1(
            QCryptographicHash::hash(bytes, QCryptographicHash::Md5).toBase64());
    }

    static QString resume(const QString& path, const QByteArray& prefix) {
        return path + '|' + hashOf(prefix) + '|' + QString::number(prefix.size());
    }

    /// Waits on the bus, and tells whether that was skipped.
    bool skipsWait() {
        bus.transport().waits.clear();
        bus.bus().readWaitingMessages(1000);
        return bus.transport().waits == QList<int>{0};
    }

    bool logged(const QByteArray& text) const {
        return log.contains("LZFDownloadRemoteJob: " + text);
    }

    QtWarnings warnings;
    FakeClock clock;
    LogCapture log;
    FakeBus bus;
    RemoteJobManager manager;
    std::mt19937 random{20240229};
};

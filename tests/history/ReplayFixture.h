#pragma once

#include "tests/history/HistoryFixture.h"
#include "tests/support/DataFileBytes.h"
#include "tests/support/RecordedSource.h"

#include <QtEndian>

/// A manager whose replay worker is played by a forked child of the test, and its client by the
/// hook of the child's waits.
class ReplayFixture : public HistoryFixture {
protected:
    using Client = std::function<void()>;

    /// Starts a replay of May 2024, and in its worker, continues it with `options`.
    ChildReport replay(const QString& options, const Client& client,
                       const QString& start = QStringLiteral("20240501000000")) {
        return worker(start, [this, options, client] {
            bus.transport().onWait = [client](int) { client(); };
            continueJob(1, options);
        });
    }
    /// With a client that acknowledges each block at once.
    ChildReport replay(const QString& options) {
        return replay(options, [this] { acknowledgeLast(); });
    }

    /// Starts a replay, and goes on with `life` in its worker.
    ChildReport worker(const QString& start, const std::function<void()>& life) {
        return children.run([&] {
            manager.beginHistoricalReplay("client", start);
            if (manager.isWorkerThread()) {
                life();
            }
        });
    }

    void continueJob(int job, const QString& options) {
        Message message;
        message.construct(232, "iS", job, options.toUtf8().constData());
        processMessage(message);
    }

    void acknowledge(int job, int sequence) { deliver(234, job, sequence); }

    void deliver(int command, int first, int second) {
        Message message;
        message.construct(command, "ii", first, second);
        bus.transport().deliver("StorageManager.to", {message.buffer(), message.length()});
    }

    /// The block sent last, as its client sees it; command -1 where there is none.
    Message lastBlock() {
        if (bus.transport().sent.isEmpty()) {
            return {};
        }
        return FakeBus::decoded(bus.transport().sent.last()).message;
    }

    void acknowledgeLast() {
        const Message block = lastBlock();
        if (block.command() == 233) {
            acknowledge(block.parameterAsInt32(0), block.parameterAsInt32(1));
        }
    }

    static QByteArray bytesOf(const Message& block) {
        int length = 0;
        const char* const bytes = block.parameterAsBLOB(3, length);
        return {bytes, length};
    }

    static QList<QByteArray> blocksOf(const ChildReport& report) {
        QList<QByteArray> blocks;
        for (const FakeBus::Sent& sent : report.sent) {
            if (sent.message.command() == 233) {
                blocks.append(bytesOf(sent.message));
            }
        }
        return blocks;
    }

    static constexpr char kLaunched[] =
        "HistoricalDataManager: Historical data lookup process launched";
    static constexpr char kDay[] = "2024-05-01";

    static void put(const char* folder, const char* day, const char* rest,
                    const RecordedSource& source) {
        writeTestFile(QStringLiteral("%1/%2/%3").arg(folder, day, rest), source.bytes);
    }
    /// A gauge with one record for each time, of the statuses 1, 2 and so on.
    static void putGauge(const char* name, const QList<quint32>& times, const char* day = kDay) {
        RecordedSource source;
        char status = 0;
        for (const quint32 time : times) {
            source.at(time).record(5, gauge(++status));
        }
        writeTestFile(QStringLiteral("/root/data/gauges/%1/%2/calcData.gdf").arg(day, name),
                      source.bytes);
    }

    static QByteArray floatBytes(float value) {
        QByteArray bytes(4, '\0');
        qToLittleEndian(value, bytes.data());
        return bytes;
    }
    static QByteArray gauge(char status, float first = 1, float second = 2) {
        return floatBytes(first) + floatBytes(second) + QByteArray(1, status);
    }
    /// A gauge's item that a block ends with, and so begins with.
    static QByteArray statusItem(int channel, quint8 status) {
        return QByteArray(1, '\0') + "G" + QByteArray::number(channel) + "status" +
               QByteArray(1, '\0') + DataFileBytes::littleEndian(status);
    }
    static QByteArray padded(const QByteArray& begin, int used) {
        return begin.leftJustified(used, '\0');
    }
};

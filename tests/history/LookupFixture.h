#pragma once

#include "tests/history/HistoryFixture.h"
#include "tests/support/RecordedSource.h"

#include <QtEndian>

/// A manager that is asked for gauges of the archive folder "well", on 1 May 2024 as a rule.
class LookupFixture : public HistoryFixture {
protected:
    static constexpr char kDate[] = "2024-05-01";
    static constexpr char kNextDate[] = "2024-05-02";
    static constexpr quint32 kMidnight = 1'714'521'600;  // of the date
    static constexpr quint32 kTen = kMidnight + 36'000;
    static constexpr char kLaunched[] =
        "HistoricalDataManager: Historical data lookup process launched";

    using Minutes = QList<float>;

    /// Both values of a gauge record and its status byte.
    static QByteArray values(float first, float second = 0.0F) {
        QByteArray payload(9, '\0');
        qToLittleEndian(first, payload.data());
        qToLittleEndian(second, payload.data() + 4);
        return payload;
    }

    /// Samples of a gauge from `start` on, one every `step` seconds: 1, 2, 3 and so on.
    static RecordedSource samples(quint32 start, int step, int count) {
        RecordedSource source;
        source.at(start);
        for (int i = 0; i < count; ++i) {
            if (i > 0) {
                source.shortStep(step);
            }
            source.record(5, values(static_cast<float>(i + 1), static_cast<float>(-i - 1)));
        }
        return source;
    }

    static Minutes minutesOf(const Message& answer) {
        int length = 0;
        const char* const block = answer.parameterAsBLOB(3, length);
        Minutes result(length / 4);
        for (float& minute : result) {
            minute = qFromLittleEndian<float>(block + 4 * (&minute - result.constData()));
        }
        return result;
    }

    static QString path(const char* root, const char* day, const char* gauge) {
        return QStringLiteral("%1/well/gauges/%2/%3/calcData.gdf").arg(root, day, gauge);
    }
    static void record(const RecordedSource& source, const char* day = kDate,
                       const char* gauge = "G", const char* root = "/root/data") {
        writeTestFile(path(root, day, gauge), source.bytes);
    }

    ChildReport lookup(const char* gauges, const char* time = "10:00:00", int selector = 0,
                       const char* date = kDate) {
        return children.run(
            [&] { manager.lookup("well", selector, 77, date, time, QString::fromUtf8(gauges)); });
    }

    /// The minutes of the only gauge that is asked for.
    Minutes minutes(const char* time = "10:00:00", int selector = 0) {
        const ChildReport report = lookup("G", time, selector);
        EXPECT_EQ(report.sent.size(), 2);
        EXPECT_EQ(report.status, 0);
        return report.sent.isEmpty() ? Minutes() : minutesOf(report.sent[0].message);
    }
};

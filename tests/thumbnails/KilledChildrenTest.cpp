#include "core/ThumbnailSchedule.h"

#include "core/shared/ReapedChildren.h"
#include "datafile/MemoryCache.h"
#include "tests/core/DaemonFixture.h"
#include "tests/support/Files.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QHash>

#include <csignal>
#include <random>

namespace {

constexpr int kHeaderBytes = 80;
constexpr int kDays = 10;
constexpr int kGauges = 4;
constexpr int kSamples = 20'000;
/// 2024-05-01 00:00:00 UTC.
constexpr quint32 kMay = 1'714'521'600;
constexpr quint32 kDaySeconds = 86'400;
constexpr char kThumbnails[] = "/root/data/well7/gauges/thumbnails";
/// One fewer than it takes for a day to be given up.
constexpr int kKillsPerDay = ThumbnailSchedule::kMaximumAttempts - 1;

QByteArray littleEndian32(quint32 number) {
    QByteArray bytes(4, '\0');
    qToLittleEndian(number, bytes.data());
    return bytes;
}

/// A header that describes no record types, then samples (code 5, 9 bytes) 4 s apart.
QByteArray recording(quint32 start, char gauge) {
    QByteArray bytes = littleEndian32(2) + littleEndian32(start) + littleEndian32(80) +
                       QByteArray(64, '\0') + littleEndian32(0);
    for (int i = 0; i < kSamples; ++i) {
        bytes += QByteArray("\x02\x04\x05") + littleEndian32(static_cast<quint32>(i)) +
                 QByteArray(5, gauge);
    }
    return bytes;
}

QString dateOf(int day) {
    return QString::asprintf("2024-05-%02d", day + 1);
}

/// The schedule with the real ThumbnailManager, whose children are real processes and say nothing
/// over the fake bus: each one that ends is taken for lost.
class KilledChildrenTest : public DaemonFixture {
protected:
    KilledChildrenTest() { g_memoryCache = new MemoryCache(false); }
    ~KilledChildrenTest() override {
        delete g_memoryCache;
        g_memoryCache = nullptr;
    }

    void SetUp() override {
        emptyRoots();
        for (int day = 0; day < kDays; ++day) {
            for (int gauge = 0; gauge < kGauges; ++gauge) {
                const quint32 start = kMay + static_cast<quint32>(day) * kDaySeconds;
                writeTestFile(
                    QString("/mmc/well7/gauges/%1/g%2/calcData.gdf").arg(dateOf(day)).arg(gauge),
                    recording(start, static_cast<char>('a' + gauge)));
            }
        }
    }

    /// Builds all days from nothing; `meet` is called with the notified text and the child of each
    /// start. Returns the thumbnail files.
    QHash<QString, QByteArray> buildAll(const std::function<void(const QByteArray&, pid_t)>& meet) {
        QDir("/root/data/well7").removeRecursively();
        for (int day = 0; day < kDays; ++day) {
            ThumbnailSchedule::request("well7", dateOf(day));
        }
        while (!g_thumbnailDays.isEmpty() || g_thumbnailDaysOutstanding > 0) {
            clock.tick += ThumbnailSchedule::kLostAfterMilliseconds;
            ThumbnailSchedule::runStep();
            if (const pid_t child = runningChild()) {
                meet(bus.takeSent().last().message.parameterAsString(4), child);
                awaitEnd(child);
            }
            ReapedChildren::reap();
            ThumbnailSchedule::runStep();
        }
        QHash<QString, QByteArray> files;
        const QDir folder(kThumbnails);
        for (const QString& name : folder.entryList(QDir::Files | QDir::Hidden)) {
            files[name] = readTestFile(folder.filePath(name));
        }
        return files;
    }

    static pid_t runningChild() {
        QFile children(QString("/proc/self/task/%1/children").arg(getpid()));
        return children.open(QIODevice::ReadOnly) ? children.readAll().trimmed().toInt() : 0;
    }

    static void awaitEnd(pid_t child) {
        siginfo_t info;
        waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT);
    }

    static bool wasKilled(pid_t child) {
        siginfo_t info;
        return waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT) == 0 &&
               info.si_code == CLD_KILLED;
    }
};

TEST_F(KilledChildrenTest, Killed50TimesTheQueueEndsWithTheBytesOfAnUndisturbedRun) {
    QElapsedTimer timer;
    timer.start();
    const auto undisturbed = buildAll([](const QByteArray&, pid_t) {});
    const qint64 childNanoseconds = timer.nsecsElapsed() / kDays;
    ASSERT_EQ(undisturbed.size(), kGauges);
    for (const QByteArray& file : undisturbed) {
        ASSERT_GT(file.size(), kHeaderBytes);
    }

    std::mt19937 random(20240501);
    int killed = 0;
    for (int run = 0; run < 50 && killed < 50; ++run) {
        QHash<QByteArray, int> kills;
        const auto disturbed = buildAll([&](const QByteArray& day, pid_t child) {
            if (kills[day] == kKillsPerDay) {
                return;
            }
            const qint64 when = static_cast<qint64>(random() % 1000) * childNanoseconds / 1000;
            for (timer.start(); timer.nsecsElapsed() < when;) {
            }
            kill(child, SIGKILL);
            const bool hit = wasKilled(child);
            kills[day] += hit ? 1 : 0;
            killed += hit ? 1 : 0;
        });
        ASSERT_EQ(disturbed, undisturbed) << "run " << run;
    }
    EXPECT_GE(killed, 50);
}

}  // namespace

#include "tests/support/FakeBus.h"
#include "tests/support/Files.h"
#include "tests/support/RecordedSource.h"
#include "tests/thumbnails/RandomRecordings.h"
#include "tests/thumbnails/ThumbnailFixture.h"

#include <QDir>
#include <QDirIterator>
#include <QElapsedTimer>

#include <algorithm>
#include <csignal>
#include <limits>

#include <sys/wait.h>

namespace {

using Tree = QMap<QString, QByteArray>;

class ThumbnailKillTest : public ThumbnailFixture {
protected:
    static constexpr int kKills = 50;
    /// Some children end before they are killed.
    static constexpr int kMostAttempts = 2000;
    static constexpr int kGauges = 6;
    static constexpr int kDays = 3;

    ThumbnailKillTest() { useQuickFolders(); }

    static void recordDays() {
        RandomRecordings random(1);
        for (int day = 0; day < kDays; ++day) {
            for (int gauge = 0; gauge < kGauges; ++gauge) {
                RecordedSource source = RecordedSource().describe(40, 10);
                source.at(kMonthStart + static_cast<quint32>(day) * 86400);
                for (int second = 0; second < 86400; second += 10) {
                    const auto value = static_cast<char>(random.number(0, 255));
                    source.record(40, QByteArray(9, value)).shortStep(10);
                }
                recordGauge(dateOf(day), QStringLiteral("G%1").arg(gauge), source.bytes);
            }
        }
    }

    static QString dateOf(int day) { return QString::asprintf("2024-05-%02d", day + 1); }

    /// True where the child ended before it was killed.
    bool append(int day, qint64 killAfterNanoseconds) {
        QElapsedTimer timer;
        timer.start();
        const pid_t child = _manager.appendDay(dateOf(day));
        EXPECT_GT(child, 0);
        int status = -1;
        while (::waitpid(child, &status, WNOHANG) == 0) {
            if (timer.nsecsElapsed() >= killAfterNanoseconds) {
                ::kill(child, SIGKILL);
                EXPECT_EQ(::waitpid(child, &status, 0), child);
                break;
            }
        }
        return WIFEXITED(status);
    }

    static constexpr qint64 kNever = std::numeric_limits<qint64>::max();

    static Tree thumbnails() {
        Tree tree;
        QDirIterator files(kQuickRoot, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
        while (files.hasNext()) {
            const QString path = files.next();
            tree[path] = readTestFile(path);
        }
        return tree;
    }

    FakeBus _bus;
};

TEST_F(ThumbnailKillTest, DaysOfChildrenKilledAtRandomMomentsAndDoneAgainHaveTheSameBytes) {
    recordDays();
    qint64 shortest = kNever;
    for (int day = 0; day < kDays; ++day) {
        QElapsedTimer timer;
        timer.start();
        ASSERT_TRUE(append(day, kNever));
        shortest = std::min(shortest, timer.nsecsElapsed());
    }
    const Tree expected = thumbnails();
    ASSERT_EQ(expected.size(), kGauges);
    RandomRecordings random(2);
    int killed = 0;
    for (int attempt = 0; attempt < kMostAttempts && killed < kKills; ++attempt) {
        ASSERT_TRUE(QDir(kQuickRoot).removeRecursively());
        const int unlucky = random.number(0, kDays - 1);
        if (append(unlucky, shortest * random.number(0, 1000) / 1000)) {
            continue;
        }
        ++killed;
        for (int day = 0; day < kDays; ++day) {
            ASSERT_TRUE(append((unlucky + day) % kDays, kNever));
        }
        ASSERT_EQ(thumbnails(), expected) << "attempt " << attempt;
    }
    EXPECT_EQ(killed, kKills) << "too many ended before their time";
}

}  // namespace

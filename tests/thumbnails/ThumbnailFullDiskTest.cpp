#include "tests/support/Files.h"
#include "tests/support/RecordedSource.h"
#include "tests/thumbnails/ThumbnailFixture.h"

#include <QDir>

#include <algorithm>
#include <csignal>

#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

/// While it lives no file grows beyond `bytes`: what would is told that there is no room.
class FileLimit {
public:
    explicit FileLimit(rlim_t bytes) {
        std::signal(SIGXFSZ, SIG_IGN);
        ::getrlimit(RLIMIT_FSIZE, &_before);
        const rlimit limit{bytes, _before.rlim_max};
        ::setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileLimit() { ::setrlimit(RLIMIT_FSIZE, &_before); }
    FileLimit(const FileLimit&) = delete;
    FileLimit& operator=(const FileLimit&) = delete;

private:
    rlimit _before;
};

class ThumbnailFullDiskTest : public ThumbnailFixture {
protected:
    static constexpr int kHeaderBytes = 80 + 2 * 1024;
    static inline const QString kThumbnail = gaugeThumbnail("2024-05-G");

    ThumbnailFullDiskTest() { useQuickFolders(); }

    /// A record of each of two types every 15 minutes.
    static QByteArray dayOf(int day) {
        RecordedSource source = RecordedSource().describe(40, 10).describe(41, 20);
        source.at(kMonthStart + static_cast<quint32>(day - 1) * 86400);
        for (int i = 0; i < 96; ++i) {
            source.record(40, QByteArray(9, static_cast<char>(i)))
                .record(41, QByteArray(19, static_cast<char>(day)))
                .step(900);
        }
        return source.bytes;
    }

    void recordDays() {
        for (const int day : {1, 2, 5}) {
            recordGauge(QString::asprintf("2024-05-%02d", day), "G", dayOf(day));
        }
    }
    void appendDays() {
        for (const int day : {2, 1, 5}) {
            _manager.appendDayGauges(QString::asprintf("2024-05-%02d", day));
        }
    }

    QByteArray undisturbed() {
        appendDays();
        const QByteArray bytes = readTestFile(kThumbnail);
        QFile::remove(kThumbnail);
        _log.clear();
        return bytes;
    }

    void expectStatedTexts() const {
        const QByteArray target = "ThumbnailManager: ";
        for (const QByteArray& line : _log.lines()) {
            const bool isStated =
                line == target + "failed to create thumbnail file!" ||
                line == target + "failed to write thumbnail file!" ||
                line == target + "Failed to seek in thumbnail file!" ||
                line == target + "writeThumbRecord() failed to write record!" ||
                line ==
                    target + "appendDaySingleGauge failed to open gauge thumbnail file 2024-05-G" ||
                line.startsWith(target + "appendDaySingleGauge added ") ||
                line.endsWith(" more of this kind)");
            EXPECT_TRUE(isStated) << line.constData();
        }
    }

    static QStringList leftOver() {
        QStringList names = QFileInfo(kThumbnail).dir().entryList(QDir::Files | QDir::Hidden);
        names.removeAll("2024-05-G.gdt");
        return names;
    }
};

TEST_F(ThumbnailFullDiskTest, EveryStepOf512BytesHasTheStatedTextsAndTheDaysAgainTheSameBytes) {
    recordDays();
    const QByteArray expected = undisturbed();
    ASSERT_EQ(expected.size(), kHeaderBytes + 5 * 96 * 40);
    for (qsizetype room = 0; room < expected.size(); room += 512) {
        SCOPED_TRACE(room);
        _log.clear();
        DebugText::forgetRepeats();
        {
            const FileLimit limit(static_cast<rlim_t>(room));
            appendDays();
        }
        expectStatedTexts();
        EXPECT_EQ(QFile::exists(kThumbnail), room >= kHeaderBytes);
        EXPECT_EQ(leftOver(), QStringList());
        if (room >= kHeaderBytes) {
            const QByteArray partial = readTestFile(kThumbnail);
            EXPECT_TRUE(isSameFile(partial.left(kHeaderBytes), expected.left(kHeaderBytes)));
            EXPECT_LE(partial.size(), room);
            EXPECT_TRUE(
                _log.contains("ThumbnailManager: Failed to seek in thumbnail file!") ||
                _log.contains("ThumbnailManager: writeThumbRecord() failed to write record!"));
        } else {
            EXPECT_EQ(_log.count("ThumbnailManager: failed to write thumbnail file!"), 3);
        }
        appendDays();
        EXPECT_TRUE(isSameFile(readTestFile(kThumbnail), expected));
        ASSERT_TRUE(QFile::remove(kThumbnail));
    }
}

TEST_F(ThumbnailFullDiskTest, WhatStoodInTheFileBeforeStaysThere) {
    recordDays();
    _manager.appendDayGauges("2024-05-01");
    const QByteArray before = readTestFile(kThumbnail);
    {
        const FileLimit limit(static_cast<rlim_t>(before.size()));
        _manager.appendDayGauges("2024-05-02");
    }
    EXPECT_TRUE(isSameFile(readTestFile(kThumbnail), before));
    EXPECT_EQ(_log.lines().last(),
              "ThumbnailManager: appendDaySingleGauge added 192 records to gauge thumbnail file "
              "2024-05-G for day 2")
        << "dropped records count";
}

/// A file system of its own in a child that may mount one, filled up to so many free pages.
class ThumbnailFullFileSystemTest : public ThumbnailFullDiskTest {
protected:
    static constexpr int kPages = 16;
    static constexpr int kPageBytes = 4096;
    static constexpr int kCannotMount = 77;

    /// In a space of its own a process is nobody, who may write nothing, until it has a name.
    static bool enterOwnSpace() {
        const QByteArray user = "0 " + QByteArray::number(::getuid()) + " 1";
        const QByteArray group = "0 " + QByteArray::number(::getgid()) + " 1";
        return ::unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0 && tell("/proc/self/uid_map", user) &&
               tell("/proc/self/setgroups", "deny") && tell("/proc/self/gid_map", group);
    }

    static bool tell(const char* path, const QByteArray& text) {
        QFile file(path);
        return file.open(QIODevice::WriteOnly | QIODevice::Unbuffered | QIODevice::ExistingOnly) &&
               file.write(text) == text.size();
    }

    static bool mountSmall() {
        const QByteArray options = "size=" + QByteArray::number(kPages * kPageBytes);
        return enterOwnSpace() && QDir().mkpath(kQuickRoot) &&
               ::mount("none", kQuickRoot, "tmpfs", 0, options.constData()) == 0;
    }

    static void fillUpTo(int freePages) {
        QFile filler(QString::fromLatin1(kQuickRoot) + "/filler");
        if (filler.open(QIODevice::WriteOnly | QIODevice::Unbuffered)) {
            filler.write(QByteArray((kPages - freePages) * kPageBytes, 'f'));
        }
    }

    bool hasFailed() const {
        return std::any_of(_log.lines().begin(), _log.lines().end(), [](const QByteArray& line) {
            return line.contains("failed to write ") || line.contains("Failed to seek ");
        });
    }

    /// In the child: 0, or the number of what was not as it should be.
    int fillAndRecover(int freePages, const QByteArray& expected) {
        if (!mountSmall()) {
            return kCannotMount;
        }
        fillUpTo(freePages);
        appendDays();
        const QByteArray partial = readTestFile(kThumbnail);
        const bool isThere = partial != "(missing)";
        if (isThere && partial.left(kHeaderBytes) != expected.left(kHeaderBytes)) {
            return 1;
        }
        if (!leftOver().isEmpty()) {
            return 2;
        }
        if (hasFailed() == (partial == expected)) {
            return 3;
        }
        QFile::remove(QString::fromLatin1(kQuickRoot) + "/filler");
        appendDays();
        return readTestFile(kThumbnail) == expected ? 0 : 4;
    }
};

TEST_F(ThumbnailFullFileSystemTest, OfEveryFreePageRecoversToTheSameBytes) {
    recordDays();
    const QByteArray expected = undisturbed();
    for (int freePages = 0; freePages < 7; ++freePages) {
        const pid_t child = ::fork();
        if (child == 0) {
            ::_exit(fillAndRecover(freePages, expected));
        }
        int status = -1;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFEXITED(status));
        if (WEXITSTATUS(status) == kCannotMount) {
            GTEST_SKIP() << "no file system can be mounted here";
        }
        EXPECT_EQ(WEXITSTATUS(status), 0) << freePages << " pages free";
    }
}

}  // namespace

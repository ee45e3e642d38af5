#include "tests/support/Files.h"
#include "tests/support/RecordedSource.h"
#include "tests/thumbnails/ThumbnailFixture.h"

#include <functional>

#include <sys/syscall.h>
#include <unistd.h>

namespace {

std::function<void(const QString&)> g_noteSync;

}  // namespace

/// Instead of the library's, for this whole program.
extern "C" int fsync(int descriptor) {
    if (g_noteSync) {
        g_noteSync(QFile::symLinkTarget(QStringLiteral("/proc/self/fd/%1").arg(descriptor)));
    }
    return static_cast<int>(::syscall(SYS_fsync, descriptor));
}

namespace {

class ThumbnailSyncTest : public ThumbnailFixture {
protected:
    static inline const QString kFolder = QStringLiteral("/root/data/J/gauges/thumbnails");
    static inline const QString kThumbnail = kFolder + QStringLiteral("/2024-05-G.gdt");

    ThumbnailSyncTest() {
        _manager.setJob("J");
        g_noteSync = [this](const QString& name) {
            _synced += name;
            _inStorage = readTestFile(kThumbnail);
            _linesBefore = _log.lines().size();
        };
    }
    ~ThumbnailSyncTest() override { g_noteSync = nullptr; }

    void appendDay(int day) {
        const quint32 start = kMonthStart + static_cast<quint32>(day - 1) * 86400;
        const QString date = QString::asprintf("2024-05-%02d", day);
        writeTestFile("/mmc/J/gauges/" + date + "/G/calcData.gdf",
                      RecordedSource().at(start).record(5, QByteArray(9, 'v')).bytes);
        _synced.clear();
        _log.clear();
        _manager.appendDayGauges(date);
    }

    QStringList _synced;
    QByteArray _inStorage;
    qsizetype _linesBefore = -1;
};

TEST_F(ThumbnailSyncTest, ADayIsForcedToStorageWholeBeforeItIsLogged) {
    for (int day = 1; day <= 3; ++day) {
        appendDay(day);
        ASSERT_FALSE(_synced.isEmpty());
        EXPECT_EQ(_synced.last(), kThumbnail);
        EXPECT_EQ(_inStorage.size(), 80 + (day - 1) * 96 * 15 + 15);
        EXPECT_TRUE(isSameFile(_inStorage, readTestFile(kThumbnail)));
        EXPECT_EQ(_linesBefore, 0);
        EXPECT_EQ(_log.lines().size(), 1);
    }
}

TEST_F(ThumbnailSyncTest, ANewFileIsForcedToStorageBesideItsPlaceAndThenItsFolder) {
    appendDay(1);
    EXPECT_EQ(_synced, (QStringList{kThumbnail + ".new", kFolder, kThumbnail}));
    appendDay(2);
    EXPECT_EQ(_synced, QStringList{kThumbnail});
}

}  // namespace

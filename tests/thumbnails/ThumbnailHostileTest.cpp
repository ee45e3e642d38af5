#include "tests/support/DataFileBytes.h"
#include "tests/support/Files.h"
#include "tests/support/RecordedSource.h"
#include "tests/thumbnails/RandomRecordings.h"
#include "tests/thumbnails/ThumbnailFixture.h"
#include "tests/thumbnails/ThumbnailModel.h"

#include <QDir>

namespace {

constexpr char kInteresting[] = "\x00\x01\x02\x03\x05\x07\x08\x50\x64\x7f\x80\xff";
constexpr int kInterestingValues = sizeof kInteresting - 1;
static_assert(kInterestingValues == 12);

/// Damaged files as a source and as a target. What comes of them is what the model says, which
/// reads nothing outside; nothing else is touched.
class ThumbnailHostileTest : public ThumbnailFixture {
protected:
    static constexpr qint64 kLargestThumbnail = 8192 + 2976 * 7 * 124;
    static inline const QString kDate = QStringLiteral("2024-05-02");

    ThumbnailHostileTest() {
        useQuickFolders();
        EXPECT_TRUE(QDir().mkpath(QFileInfo(gaugeThumbnail("2024-05-G")).path()));
    }

    static RecordedSource header() { return RecordedSource().describe(40, 10).describe(100, 12); }

    static QByteArray sound() {
        RecordedSource source = header().at(kMonthStart + 86400);
        for (int i = 0; i < 8; ++i) {
            source.record(40, QByteArray(9, static_cast<char>('a' + i)))
                .record(100, QByteArray(11, static_cast<char>('A' + i)))
                .record(5, QByteArray(9, static_cast<char>('0' + i)))
                .step(1000);
        }
        return source.bytes;
    }

    /// A thumbnail with a little of the first day.
    static QByteArray soundTarget() {
        ThumbnailModel model("2024-05", 5);
        model.appendDay(header().at(kMonthStart).record(40, "123456789").bytes, 1);
        return *model.file;
    }

    void run(const QByteArray& source, const std::optional<QByteArray>& target) {
        DebugText::forgetRepeats();
        _log.clear();
        const QString thumbnail = gaugeThumbnail("2024-05-G");
        recordGauge(kDate, "G", source);
        if (target) {
            writeTestFile(thumbnail, *target);
        } else {
            QFile::remove(thumbnail);
        }
        _manager.appendDaySingleGauge(kDate, "G");
        ThumbnailModel model("2024-05", 5);
        model.file = target;
        model.appendDay(source, 2);
        const QByteArray file = readTestFile(thumbnail);
        ASSERT_TRUE(isSameFile(file, model.file.value_or(QByteArray("(missing)"))));
        ASSERT_LE(file.size(), kLargestThumbnail);
        ASSERT_TRUE(isSameFile(readTestFile(recording(kDate, "G")), source));
    }

    void TearDown() override {
        EXPECT_EQ(QFileInfo(gaugeThumbnail("2024-05-G")).dir().entryList(kEverything),
                  QStringList{"2024-05-G.gdt"});
        EXPECT_EQ(QDir(kQuickRoot).entryList(kEverything), QStringList{"job"});
    }

    static constexpr QDir::Filters kEverything =
        QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot;
};

TEST_F(ThumbnailHostileTest, EveryByteOfASourcesHeaderWithEveryInterestingValue) {
    const QByteArray source = sound();
    for (int at = 0; at < header().bytes.size(); ++at) {
        for (const char value : QByteArray(kInteresting, kInterestingValues)) {
            QByteArray damaged = source;
            damaged[at] = value;
            ASSERT_NO_FATAL_FAILURE(run(damaged, std::nullopt)) << at << ": " << int(value);
        }
    }
}

TEST_F(ThumbnailHostileTest, EveryByteOfATargetsHeaderWithEveryInterestingValue) {
    const QByteArray source = sound();
    const QByteArray target = soundTarget();
    for (int at = 0; at < header().bytes.size(); ++at) {
        for (const char value : QByteArray(kInteresting, kInterestingValues)) {
            QByteArray damaged = target;
            damaged[at] = value;
            ASSERT_NO_FATAL_FAILURE(run(source, damaged)) << at << ": " << int(value);
        }
    }
}

TEST_F(ThumbnailHostileTest, ASourceCutAtEveryLengthUpTo4Kilobytes) {
    QByteArray source = sound();
    while (source.size() < 4096) {
        source += sound().mid(header().bytes.size());
    }
    for (int length = 0; length <= 4096; ++length) {
        ASSERT_NO_FATAL_FAILURE(run(source.left(length), std::nullopt)) << length;
    }
}

TEST_F(ThumbnailHostileTest, ATargetCutAtEveryLengthUpTo4Kilobytes) {
    const QByteArray target = soundTarget() + QByteArray(4096, 'x');
    for (int length = 0; length <= 4096; ++length) {
        ASSERT_NO_FATAL_FAILURE(run(sound(), target.left(length))) << length;
    }
}

TEST_F(ThumbnailHostileTest, CountsAndSizesThatLieInSourceAndTarget) {
    const quint32 values[] = {0,    1,    2,          3,          7,          8,         79,
                              80,   81,   1103,       1104,       2127,       2128,      2129,
                              8192, 8193, 0x7FFFFFFF, 0x80000000, 0xFFFFFC00, 0xFFFFFFFF};
    for (const quint32 size : values) {
        for (const quint32 count : values) {
            QByteArray source = sound() + QByteArray(7000, '\x02');
            QByteArray target = soundTarget() + QByteArray(7000, '\x07');
            DataFileBytes::setField(source, 8, size);
            DataFileBytes::setField(source, 76, count);
            DataFileBytes::setField(target, 8, size);
            DataFileBytes::setField(target, 76, count);
            ASSERT_NO_FATAL_FAILURE(run(source, std::nullopt)) << size << ' ' << count;
            ASSERT_NO_FATAL_FAILURE(run(sound(), target)) << size << ' ' << count;
            ASSERT_NO_FATAL_FAILURE(run(source, target)) << size << ' ' << count;
        }
    }
}

TEST_F(ThumbnailHostileTest, RandomStreamsAndRandomTargets) {
    for (unsigned seed = 0; seed < 500; ++seed) {
        RandomRecordings random(seed);
        const QByteArray source = random.noise();
        ASSERT_NO_FATAL_FAILURE(run(source, std::nullopt)) << seed;
        ASSERT_NO_FATAL_FAILURE(run(sound(), random.noise())) << seed;
        ASSERT_NO_FATAL_FAILURE(run(source, random.noise())) << seed;
    }
}

TEST_F(ThumbnailHostileTest, AHundredThousandOfEachByteIsWalkedThrough) {
    for (int value = 0; value < 256; ++value) {
        const QByteArray source = header().at(kMonthStart + 86400).bytes;
        ASSERT_NO_FATAL_FAILURE(
            run(source + QByteArray(100'000, static_cast<char>(value)), std::nullopt))
            << value;
    }
}

}  // namespace

#include "tools/storagectl/RecordingSurvey.h"

#include "tests/support/LogCapture.h"
#include "tests/tools/RecordingBytes.h"

#include <gtest/gtest.h>

#include <sys/mman.h>
#include <unistd.h>

namespace {

using namespace RecordingBytes;
using storagectl::ExitCode;
using storagectl::Outcome;
using storagectl::Recording;
using storagectl::RecordingSurvey;

/// Recordings in memory; what the record stream logs is kept out of the way.
class RecordingTest : public testing::Test {
protected:
    Outcome open(const QByteArray& bytes, Recording& recording,
                 const QByteArray& path = "day.gdf") {
        const int file = memfd_create("recording", 0);
        EXPECT_EQ(write(file, bytes.constData(), static_cast<std::size_t>(bytes.size())),
                  bytes.size());
        return recording.adopt(file, path);
    }

    LogCapture log;
};

const QByteArray kDay = header("flow-1", kMayDay) + at(kMayDay + 10) + gauge(1) +
                        QByteArray::fromHex("020A") + gauge(2) + QByteArray::fromHex("020A") +
                        gauge(3);

TEST_F(RecordingTest, TheHeaderIsWhatTheFileSays) {
    Recording recording;
    ASSERT_TRUE(open(kDay, recording).isDone());
    EXPECT_EQ(recording.version(), 2U);
    EXPECT_EQ(recording.created(), kMayDay);
    EXPECT_EQ(recording.source(), "flow-1");
    EXPECT_EQ(recording.statedTypes(), 0U);
    EXPECT_FALSE(recording.isThumbnail());
    EXPECT_TRUE(recording.damage().isEmpty());
}

TEST_F(RecordingTest, AFileIsAThumbnailByItsEnding) {
    Recording recording;
    ASSERT_TRUE(open(kDay, recording, "2024-05-flow-1.GDT").isDone());
    EXPECT_TRUE(recording.isThumbnail());
}

TEST_F(RecordingTest, SamplesAreCountedWithTheirTimes) {
    Recording recording;
    ASSERT_TRUE(open(kDay, recording).isDone());
    const RecordingSurvey survey(recording);
    EXPECT_EQ(survey.all().records(), 3);
    EXPECT_EQ(survey.timeRecords(), 3);
    EXPECT_EQ(survey.emptyRecords(), 0);
    EXPECT_EQ(survey.all().first(), kMayDay + 10);
    EXPECT_EQ(survey.all().last(), kMayDay + 30);
    EXPECT_EQ(survey.all().usualStep(), 10U);
    EXPECT_TRUE(survey.damage().isEmpty());
    ASSERT_EQ(survey.types().size(), 1);
    EXPECT_EQ(survey.types()[5].times.records(), 3);
}

TEST_F(RecordingTest, SamplesBeforeAnyTimeHaveThatOfTheHeader) {
    Recording recording;
    ASSERT_TRUE(open(header("x", kMayDay) + gauge(1), recording).isDone());
    EXPECT_EQ(RecordingSurvey(recording).all().first(), kMayDay);
}

TEST_F(RecordingTest, AStepAboveThreeUsualOnesIsAGapAndOneBackAJump) {
    QByteArray bytes = header("x", kMayDay) + at(kMayDay);
    for (int i = 0; i < 5; ++i) {
        bytes += gauge(1) + QByteArray::fromHex("020A");
    }
    // 30 s after the last one, then 31 s, then 100 s back.
    bytes += QByteArray::fromHex("0214") + gauge(1) + QByteArray::fromHex("021F") + gauge(1) +
             QByteArray::fromHex("039CFF") + gauge(1);
    Recording recording;
    ASSERT_TRUE(open(bytes, recording).isDone());
    const RecordingSurvey survey(recording);
    ASSERT_EQ(survey.gaps().count, 1);
    EXPECT_EQ(survey.gaps().kept[0].from, kMayDay + 70);
    EXPECT_EQ(survey.gaps().kept[0].to, kMayDay + 101);
    ASSERT_EQ(survey.jumps().count, 1);
    EXPECT_EQ(survey.jumps().kept[0].from, kMayDay + 101);
    EXPECT_EQ(survey.jumps().kept[0].to, kMayDay + 1);
}

TEST_F(RecordingTest, OfCountlessJumpsTheFirstThousandAreKept) {
    QByteArray bytes = header("x", kMayDay);
    for (quint32 i = 0; i < 3000; ++i) {
        bytes += at(kMayDay - i) + gauge(1);
    }
    Recording recording;
    ASSERT_TRUE(open(bytes, recording).isDone());
    const RecordingSurvey survey(recording);
    EXPECT_EQ(survey.jumps().count, 2999);
    EXPECT_EQ(survey.jumps().kept.size(), RecordingSurvey::Steps::kMaximumKept);
}

TEST_F(RecordingTest, FourBytesAreRealOnlyIfAllTheFilesValuesAre) {
    const QByteArray described =
        header("x", kMayDay, {descriptor("odd", 42, {{"real", 4}, {"whole", 4}})});
    // 14.2 and 14.2, then 14.2 and 7
    const QByteArray records = QByteArray::fromHex("2A 33336341 33336341 2A 33336341 07000000");
    Recording recording;
    ASSERT_TRUE(open(described + records, recording).isDone());
    const RecordingSurvey survey(recording);
    EXPECT_EQ(survey.types()[42].layout.fields[0].kindName(), "real 32");
    EXPECT_EQ(survey.types()[42].layout.fields[1].kindName(), "signed 32");
}

TEST_F(RecordingTest, AThumbnailsUnfilledRoomIsCountedAndNoDamage) {
    const QByteArray bytes =
        header("x", kMayDay) + at(kMayDay) + gauge(1) + QByteArray(30, '\0') + at(kMayDay + 2700);
    Recording recording;
    ASSERT_TRUE(open(bytes + gauge(2), recording, "a.gdt").isDone());
    const RecordingSurvey survey(recording);
    EXPECT_EQ(survey.emptyRecords(), 30);
    EXPECT_EQ(survey.all().records(), 2);
    EXPECT_TRUE(survey.damage().isEmpty());
}

TEST_F(RecordingTest, AnEmptyFileSaysSo) {
    Recording recording;
    const Outcome outcome = open({}, recording);
    EXPECT_EQ(outcome.code, ExitCode::Integrity);
    EXPECT_EQ(outcome.message, "day.gdf: empty, not even a header");
}

TEST_F(RecordingTest, AFileShorterThanAHeaderSaysHowShort) {
    Recording recording;
    const Outcome outcome = open(kDay.first(79), recording);
    EXPECT_EQ(outcome.code, ExitCode::Integrity);
    EXPECT_EQ(outcome.message, "day.gdf: no header: it has 80 bytes, and the file 79");
}

TEST_F(RecordingTest, AHeaderAloneHasNoRecordsAndNoDamage) {
    Recording recording;
    ASSERT_TRUE(open(kDay.first(80), recording).isDone());
    const RecordingSurvey survey(recording);
    EXPECT_EQ(survey.all().records(), 0);
    EXPECT_EQ(survey.all().usualStep(), 0U);
    EXPECT_TRUE(survey.damage().isEmpty());
}

TEST_F(RecordingTest, WhereTheHeadersSizeLiesItsTypesTellWhereRecordsBegin) {
    const QByteArray whole =
        header("x", kMayDay, {descriptor("odd", 42, {{"a", 4}})}) + QByteArray(5, '\x2A');
    for (const quint32 lie : {0U, 79U, 8193U, 0xFFFFFFFFU}) {
        QByteArray bytes = whole;
        bytes.replace(8, 4, number(lie));
        Recording recording;
        ASSERT_TRUE(open(bytes, recording).isDone());
        EXPECT_EQ(recording.header().size(), 1104) << lie;
        EXPECT_EQ(recording.damage().size(), 1) << lie;
        EXPECT_EQ(RecordingSurvey(recording).types()[42].times.records(), 1) << lie;
    }
}

TEST_F(RecordingTest, AHeaderThatDescribesMoreThanItHolds) {
    QByteArray bytes = kDay;
    bytes.replace(76, 4, number(0xFFFFFFFF));
    Recording recording;
    ASSERT_TRUE(open(bytes, recording).isDone());
    EXPECT_EQ(recording.damage(),
              QStringList("the header says that it describes 4294967295 record types, and has "
                          "room for 0"));
    EXPECT_EQ(RecordingSurvey(recording).all().records(), 3);
}

TEST_F(RecordingTest, UnknownTypesAreDamageAndWhatFollowsIsRead) {
    Recording recording;
    ASSERT_TRUE(open(kDay + QByteArray::fromHex("32 33") + gauge(4), recording).isDone());
    const RecordingSurvey survey(recording);
    EXPECT_EQ(survey.types()[5].times.records(), 4);
    EXPECT_EQ(survey.damage(), QStringList("2 bytes of unknown types, the first at byte 119: what "
                                           "follows each may be misread"));
}

TEST_F(RecordingTest, ACutRecordIsDamageAndNoSample) {
    Recording recording;
    ASSERT_TRUE(open(kDay.chopped(4), recording).isDone());
    const RecordingSurvey survey(recording);
    EXPECT_EQ(survey.all().records(), 2);
    EXPECT_EQ(survey.damage(), QStringList("the last record is cut: it has 6 of its 10 bytes"));
    Recording typeOnly;
    ASSERT_TRUE(open(kDay.chopped(9), typeOnly).isDone());
    EXPECT_EQ(RecordingSurvey(typeOnly).damage(),
              QStringList("the last record is cut: it has its type only"));
}

TEST_F(RecordingTest, AFileCutAtAnyLengthIsReadAsFarAsItGoes) {
    qint64 records = 0;
    for (qsizetype length = 80; length <= kDay.size(); ++length) {
        Recording recording;
        ASSERT_TRUE(open(kDay.first(length), recording).isDone());
        const RecordingSurvey survey(recording);
        EXPECT_GE(survey.all().records(), records);
        records = survey.all().records();
    }
    EXPECT_EQ(records, 3);
}

}  // namespace

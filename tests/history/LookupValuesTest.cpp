#include "tests/history/LookupFixture.h"
#include "tests/support/DataFileBytes.h"

#include <limits>

namespace {

using LookupValuesTest = LookupFixture;

TEST_F(LookupValuesTest, OfSamplesEvery10SecondsEachMinuteHasItsFirst) {
    record(samples(kTen, 10, 200));
    const Minutes answer = minutes();
    ASSERT_EQ(answer.size(), 30);
    for (int i = 0; i < 30; ++i) {
        EXPECT_EQ(answer[i], static_cast<float>(6 * i + 1)) << i;
    }
}

TEST_F(LookupValuesTest, AMinutesFirstSampleMayComeLateInIt) {
    RecordedSource source = samples(kTen + 59, 60, 1);
    EXPECT_EQ((record(source.shortStep(1).record(5, values(8))), minutes()), (Minutes{1, 8}))
        << "minutes count from the start and not from the first sample";
}

TEST_F(LookupValuesTest, OfSamplesEvery3MinutesTwoOfThreeMinutesRead0) {
    record(samples(kTen, 180, 10));
    const Minutes answer = minutes();
    ASSERT_EQ(answer.size(), 28);
    for (int i = 0; i < 28; ++i) {
        EXPECT_EQ(answer[i], i % 3 == 0 ? static_cast<float>(i / 3 + 1) : 0.0F) << i;
    }
}

TEST_F(LookupValuesTest, Selector0IsTheFirstValueAndAnyOtherTheSecond) {
    record(samples(kTen, 60, 2));
    EXPECT_EQ(minutes("10:00:00", 0), (Minutes{1, 2}));
    for (const int selector : {1, 2, -1, std::numeric_limits<int>::min()}) {
        EXPECT_EQ(minutes("10:00:00", selector), (Minutes{-1, -2})) << selector;
    }
}

TEST_F(LookupValuesTest, ARecordBeforeTheStartIsSkippedEvenWhenLaterOnesExist) {
    RecordedSource source = samples(kTen - 1, 60, 1);
    source.record(5, values(8)).shortStep(1).record(5, values(9));
    record(source);
    EXPECT_EQ(minutes(), Minutes{9});
}

TEST_F(LookupValuesTest, ASampleAtTheStartCounts) {
    record(samples(kTen, 60, 1));
    EXPECT_EQ(minutes(), Minutes{1});
}

TEST_F(LookupValuesTest, TheFirstTimeIsTheHeaders) {
    RecordedSource source;
    DataFileBytes::setField(source.bytes, 4, kTen - 10);
    record(source.shortStep(10).record(5, values(3)));
    EXPECT_EQ(minutes(), Minutes{3});
}

TEST_F(LookupValuesTest, KeptAShortStepIsReadUnsignedAndALongOneSigned) {
    RecordedSource source;
    source.at(kTen + 200).step(-200).record(5, values(1)).shortStep(-1).record(5, values(2));
    record(source);
    EXPECT_EQ(minutes(), (Minutes{1, 0, 0, 0, 2})) << "255 seconds later";
}

TEST_F(LookupValuesTest, OtherRecordsAreIgnored) {
    RecordedSource source;
    source.at(kTen).record(4, QByteArray(9, '\x01')).record(0, {}).record(90, QByteArray(12, 'x'));
    record(source.record(5, values(1)).record(60, {}).shortStep(60).record(5, values(2)));
    const ChildReport report = lookup("G");
    EXPECT_EQ(minutesOf(report.sent[0].message), (Minutes{1, 2}));
    EXPECT_TRUE(report.lines.contains("UNKNOWN RECORD TYPE 60"));
}

TEST_F(LookupValuesTest, AGapLeaves0AndAJumpOfDaysFillsTheAnswerUp) {
    RecordedSource source = samples(kTen, 60, 1);
    record(source.step(600).record(5, values(2)));
    EXPECT_EQ(minutes(), (Minutes{1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2}));
    record(samples(kTen, 60, 1).at(kTen + 1'000'000).record(5, values(2)));
    Minutes expected(30, 0.0F);
    expected[0] = 1;
    EXPECT_EQ(minutes(), expected);
}

TEST_F(LookupValuesTest, KeptAJumpToExactlyTheEndOfTheLastMinuteIsStillItsValue) {
    record(samples(kTen, 60, 1).at(kTen + 1800).record(5, values(2)));
    EXPECT_EQ(minutes().last(), 2.0F);
    record(samples(kTen, 60, 1).at(kTen + 1801).record(5, values(2)));
    EXPECT_EQ(minutes().last(), 0.0F);
}

TEST_F(LookupValuesTest, KeptASampleOutOfOrderReplacesTheCurrentMinutesValue) {
    RecordedSource source = samples(kTen + 120, 60, 1);
    record(source.at(kTen + 10).record(5, values(9)));
    EXPECT_EQ(minutes(), (Minutes{0, 0, 9}));
}

TEST_F(LookupValuesTest, ValuesAreTakenRaw) {
    RecordedSource source;
    source.at(kTen).record(5, QByteArray::fromHex("0100a07f 00000080 00"));
    record(source);
    for (const auto& [selector, bits] : {std::pair{0, "0100a07f"}, {1, "00000080"}}) {
        const ChildReport report = lookup("G", "10:00:00", selector);
        int length = 0;
        const char* block = report.sent[0].message.parameterAsBLOB(3, length);
        EXPECT_EQ(QByteArray(block, length).toHex(), bits) << "a signalling NaN, and -0";
    }
}

TEST_F(LookupValuesTest, WhatAShortRecordDoesNotHaveReads0) {
    for (const int length : {1, 2, 4, 5, 8}) {
        RecordedSource source;
        source.describe(5, length).at(kTen);
        source.record(5, QByteArray(length - 1, '\x41')).record(4, QByteArray(9, '\x7f'));
        record(source);
        const Minutes first = minutes("10:00:00", 0);
        ASSERT_EQ(first.size(), 1);
        EXPECT_EQ(first[0] != 0.0F, length > 1) << length;
        EXPECT_EQ(minutes("10:00:00", 1)[0] != 0.0F, length > 5) << length;
    }
}

TEST_F(LookupValuesTest, ARecordThatTheFileCutsShortStillCounts) {
    RecordedSource source = samples(kTen, 60, 2);
    source.bytes.chop(5);
    record(source);
    EXPECT_EQ(minutes(), (Minutes{1, 2})) << "its first value is whole";
    EXPECT_EQ(minutes("10:00:00", 1), (Minutes{-1, 0}));
}

TEST_F(LookupValuesTest, AFileCutAnywhereIsReadAsFarAsItGoes) {
    const QByteArray whole = samples(kTen, 60, 3).bytes;
    for (qsizetype length = 80; length <= whole.size(); ++length) {
        writeTestFile(path("/root/data", kDate, "G"), whole.left(length));
        const Minutes answer = minutes();
        ASSERT_LE(answer.size(), 3);
        EXPECT_EQ(answer.size() == 3, length > whole.size() - 9) << length;
    }
}

}  // namespace

#include "datafile/RecordLengths.h"

#include "tests/support/DataFileBytes.h"

#include <gtest/gtest.h>

#include <climits>

using DataFileBytes::builtInPayload;
using DataFileBytes::Described;

namespace {

RecordLengths lengthsOf(const QByteArray& header) {
    return RecordLengths(header.constData(), static_cast<int>(header.size()));
}

RecordLengths lengthsOf(std::initializer_list<Described> types) {
    return lengthsOf(DataFileBytes::header(types));
}

TEST(RecordLengths, EveryBuiltInCodeHasThePayloadOfItsRow) {
    int codes = 0;
    for (const DataFileBytes::BuiltInRow& row : DataFileBytes::builtInRows()) {
        for (const int code : row.codes) {
            EXPECT_EQ(RecordLengths::builtIn(2, code), row.payloadBytes) << code;
            ++codes;
        }
    }
    EXPECT_EQ(codes, 57);
}

TEST(RecordLengths, EveryOtherCodeIsNotBuiltIn) {
    for (int code = -300; code <= 600; ++code) {
        EXPECT_EQ(RecordLengths::builtIn(2, code), builtInPayload(2, code)) << code;
    }
    EXPECT_EQ(RecordLengths::builtIn(2, 0), -1);
    EXPECT_EQ(RecordLengths::builtIn(2, 256), -1);
    EXPECT_EQ(RecordLengths::builtIn(2, INT_MIN), -1);
    EXPECT_EQ(RecordLengths::builtIn(2, INT_MAX), -1);
}

TEST(RecordLengths, AnAbsoluteTimeOfVersion0Has3BuiltInBytes) {
    EXPECT_EQ(RecordLengths::builtIn(0, 1), 3);
    for (const quint32 version : {1U, 2U, 3U, 0x80000000U, UINT_MAX}) {
        EXPECT_EQ(RecordLengths::builtIn(version, 1), 4) << version;
    }
}

TEST(RecordLengths, TheVersionChangesNoOtherCode) {
    for (int code = 0; code < 256; ++code) {
        EXPECT_EQ(RecordLengths::builtIn(0, code), builtInPayload(0, code)) << code;
        EXPECT_EQ(RecordLengths::builtIn(UINT_MAX, code), builtInPayload(1, code)) << code;
    }
}

TEST(RecordLengths, TheFormatsOwnCodesAreDescribedByNobody) {
    const RecordLengths lengths;
    EXPECT_EQ(lengths.described(0), 1);
    EXPECT_EQ(lengths.described(1), 5);
    EXPECT_EQ(lengths.described(2), 2);
    EXPECT_EQ(lengths.described(3), 3);
}

TEST(RecordLengths, NegativeCodesHaveLength1) {
    const RecordLengths lengths;
    EXPECT_EQ(lengths.described(-1), 1);
    EXPECT_EQ(lengths.described(INT_MIN), 1);
}

TEST(RecordLengths, UndescribedCodesAbove3HaveNone) {
    const RecordLengths lengths = lengthsOf({{10, 5}});
    for (const int code : {4, 9, 11, 255, 256, 10 + 256, INT_MAX}) {
        EXPECT_EQ(lengths.described(code), -1) << code;
    }
}

TEST(RecordLengths, AFileThatDescribesNothingHasTheBuiltInPayloads) {
    for (const RecordLengths& lengths :
         {RecordLengths(), lengthsOf(std::initializer_list<Described>{})}) {
        for (int code = 4; code < 256; ++code) {
            const int payload = builtInPayload(2, code);
            EXPECT_EQ(lengths.payload(static_cast<quint8>(code)), std::max(payload, 0)) << code;
            EXPECT_EQ(lengths.isKnown(static_cast<quint8>(code)), payload >= 0) << code;
        }
    }
}

TEST(RecordLengths, TheTimeRecordsOfVersion0AreReadAsThoseOfAnyOther) {
    QByteArray header = DataFileBytes::header();
    DataFileBytes::setField(header, 0, 0);
    const RecordLengths lengths = lengthsOf(header);
    EXPECT_EQ(lengths.payload(0), 0);
    EXPECT_EQ(lengths.payload(1), 4);
    EXPECT_EQ(lengths.payload(2), 1);
    EXPECT_EQ(lengths.payload(3), 2);
}

TEST(RecordLengths, ADescriptionGoesBeforeTheBuiltInTable) {
    const RecordLengths lengths = lengthsOf({{4, 3}, {255, 255}, {7, 1}});
    EXPECT_EQ(lengths.payload(4), 2);
    EXPECT_EQ(lengths.payload(255), 254);
    EXPECT_EQ(lengths.payload(7), 0);
    EXPECT_TRUE(lengths.isKnown(7));
}

TEST(RecordLengths, ACodeThatOnlyTheHeaderKnowsIsKnown) {
    const RecordLengths lengths = lengthsOf({{50, 9}, {51, 1}});
    EXPECT_EQ(lengths.payload(50), 8);
    EXPECT_TRUE(lengths.isKnown(50));
    EXPECT_EQ(lengths.payload(51), 0);
    EXPECT_TRUE(lengths.isKnown(51));
    EXPECT_FALSE(lengths.isKnown(52));
}

TEST(RecordLengths, KEPT_Code100IsBuiltInWhateverADescriptionSays) {
    for (const quint8 length : std::initializer_list<quint8>{0, 1, 5, 12, 255}) {
        const RecordLengths lengths = lengthsOf({{100, length}});
        EXPECT_EQ(lengths.described(100), length);
        EXPECT_EQ(lengths.payload(100), 11);
        EXPECT_TRUE(lengths.isKnown(100));
    }
}

TEST(RecordLengths, ADescribedLengthOf0CountsAsNone) {
    const RecordLengths lengths = lengthsOf({{6, 0}, {50, 0}});
    EXPECT_EQ(lengths.described(6), 0);
    EXPECT_EQ(lengths.payload(6), 12);
    EXPECT_EQ(lengths.payload(50), 0);
    EXPECT_FALSE(lengths.isKnown(50));
}

TEST(RecordLengths, DescriptionsOfCodesBelow4AreNotFollowed) {
    const RecordLengths lengths = lengthsOf({{0, 100}, {1, 100}, {2, 100}, {3, 100}});
    EXPECT_EQ(lengths.payload(0), 0);
    EXPECT_EQ(lengths.payload(1), 4);
    EXPECT_EQ(lengths.payload(2), 1);
    EXPECT_EQ(lengths.payload(3), 2);
    EXPECT_EQ(lengths.described(1), 5);
}

TEST(RecordLengths, TheFirstOfTwoDescriptionsOfOneCodeCounts) {
    const RecordLengths lengths = lengthsOf({{50, 4}, {50, 8}, {6, 0}, {6, 9}});
    EXPECT_EQ(lengths.described(50), 4);
    EXPECT_EQ(lengths.payload(50), 3);
    EXPECT_EQ(lengths.described(6), 0);
    EXPECT_EQ(lengths.payload(6), 12);
}

TEST(RecordLengths, ACountBeyondTheHeaderEndsWithTheHeader) {
    QByteArray header = DataFileBytes::header({{50, 4}, {51, 5}});
    for (const quint32 count : {3U, 256U, 0x7FFFFFFFU, 0x80000000U, UINT_MAX}) {
        DataFileBytes::setField(header, 76, count);
        const RecordLengths lengths = lengthsOf(header);
        EXPECT_EQ(lengths.described(50), 4) << count;
        EXPECT_EQ(lengths.described(51), 5) << count;
        EXPECT_EQ(lengths.described(52), -1) << count;
    }
}

TEST(RecordLengths, ACountBelowTheHeaderHidesTheRest) {
    QByteArray header = DataFileBytes::header({{50, 4}, {51, 5}});
    DataFileBytes::setField(header, 76, 1);
    EXPECT_EQ(lengthsOf(header).described(50), 4);
    EXPECT_EQ(lengthsOf(header).described(51), -1);
    DataFileBytes::setField(header, 76, 0);
    EXPECT_EQ(lengthsOf(header).described(50), -1);
}

TEST(RecordLengths, ADescriptionThatTheHeaderCutsIsNone) {
    QByteArray header = DataFileBytes::header({{50, 4}, {51, 5}});
    header.chop(1);
    EXPECT_EQ(lengthsOf(header).described(50), 4);
    EXPECT_EQ(lengthsOf(header).described(51), -1);
    header.truncate(80 + 1023);
    EXPECT_EQ(lengthsOf(header).described(50), -1);
}

}  // namespace

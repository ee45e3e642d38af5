#include "tools/storagectl/RecordLayout.h"

#include "tests/tools/RecordingBytes.h"

#include <gtest/gtest.h>

namespace {

using namespace RecordingBytes;
using storagectl::layoutOf;
using storagectl::looksReal;
using storagectl::RecordField;
using storagectl::RecordLayout;
using Kind = RecordField::Kind;

const QByteArray kBare = header("x", 0);

QStringList valuesOf(const RecordLayout& layout, const char* hex) {
    QByteArray record = QByteArray::fromHex(hex);
    record.resize(256, '\0');
    QStringList values;
    for (const RecordField& field : layout.fields) {
        values.append(field.name + '=' + field.textOf(record));
    }
    return values;
}

TEST(RecordLayoutTest, AnUndescribedGaugeHasValueTemperatureAndStatus) {
    const RecordLayout layout = layoutOf(kBare, 5, 10);
    EXPECT_EQ(layout.name, "gauge");
    EXPECT_FALSE(layout.wantsHex);
    // 14.2, -0.5, 255
    EXPECT_EQ(valuesOf(layout, "05 33336341 000000BF FF"),
              QStringList({"value=14.2", "temperature=-0.5", "status=255"}));
}

TEST(RecordLayoutTest, AnUndescribedGaugeCardHasFourBytesThenVoltageAndCurrent) {
    RecordLayout layout = layoutOf(kBare, 90, 13);
    EXPECT_EQ(layout.fields[0].kind, Kind::RealOrSigned);
    layout.fields[0].kind = Kind::Signed;
    EXPECT_EQ(valuesOf(layout, "5A 2A000000 00004841 0000003F"),
              QStringList({"bytes1-4=42", "LV=12.5", "LC=0.5"}));
}

TEST(RecordLayoutTest, TheSystemsThreeRecordsAreKnown) {
    EXPECT_EQ(valuesOf(layoutOf(kBare, 252, 16), "FC 00004841 0000803E 0000A041 FFFF 81"),
              QStringList({"SsysVoltage=12.5", "SsysCurrent=0.25", "Stemp=20", "Sapvcc=65535",
                           "SsysFlags=129"}));
    EXPECT_EQ(valuesOf(layoutOf(kBare, 254, 13), "FE 01000000 FFFFFFFF 00000080"),
              QStringList({"SdiskFree=1", "ScardFree=-1", "ScardSize=-2147483648"}));
    EXPECT_EQ(
        valuesOf(layoutOf(kBare, 255, 18), "FF 0000A041 00002042 10270000 05000000 02"),
        QStringList({"Sambient=20", "Sdie=40", "SfreeMemory=10000", "Sload=5", "Sconnections=2"}));
}

TEST(RecordLayoutTest, AHeadersNamesCountAndKnownPlacesKeepTheirMeaning) {
    const QByteArray described =
        header("x", 0, {descriptor("flow", 5, {{"litres", 4}, {"degrees", 4}, {"state", 1}})});
    const RecordLayout layout = layoutOf(described, 5, 10);
    EXPECT_TRUE(layout.isDescribed);
    EXPECT_EQ(layout.name, "flow");
    EXPECT_FALSE(layout.fields[0].isGuessed);
    EXPECT_EQ(valuesOf(layout, "05 33336341 000000BF FF"),
              QStringList({"litres=14.2", "degrees=-0.5", "state=255"}));
}

TEST(RecordLayoutTest, AnUnknownTypesValuesAreReadByTheirWidths) {
    const QByteArray described =
        header("x", 0, {descriptor("odd", 42, {{"a", 1}, {"b", 2}, {"c", 4}, {"d", 3}, {"e", 8}})});
    const RecordLayout layout = layoutOf(described, 42, 19);
    QList<Kind> kinds;
    for (const RecordField& field : layout.fields) {
        kinds.append(field.kind);
        EXPECT_TRUE(field.isGuessed);
    }
    EXPECT_EQ(kinds, QList<Kind>({Kind::Unsigned, Kind::Signed, Kind::RealOrSigned, Kind::Bytes,
                                  Kind::Bytes}));
    EXPECT_TRUE(layout.wantsHex);
    EXPECT_EQ(layout.fields[1].textOf(QByteArray::fromHex("2A FF FEFF").constData()), "-2");
    EXPECT_EQ(layout.fields[3].name + layout.fields[3].textOf(QByteArray(256, '\x7F').constData()),
              "d7f7f7f");
}

TEST(RecordLayoutTest, ATypeThatNobodyNamesHasBytesOnly) {
    const RecordLayout layout = layoutOf(kBare, 101, 38);
    EXPECT_EQ(layout.name, "type 101");
    EXPECT_TRUE(layout.fields.isEmpty());
    EXPECT_TRUE(layout.wantsHex);
}

TEST(RecordLayoutTest, ValuesBeyondTheRecordsLengthAreNotThere) {
    const QByteArray described =
        header("x", 0, {descriptor("inputs", 100, {{"a", 4}, {"b", 4}, {"c", 4}, {"none", 0}})});
    const RecordLayout layout = layoutOf(described, 100, 12);
    ASSERT_EQ(layout.fields.size(), 2);
    EXPECT_EQ(layout.fields[1].name, "b");
}

TEST(RecordLayoutTest, AHostileDescriptorIsReadWithinItsBounds) {
    const QByteArray described = header("x", 0, {QByteArray(1024, '\xFF')});
    const RecordLayout layout = layoutOf(described, 255, 256);
    ASSERT_EQ(layout.fields.size(), 1);
    EXPECT_EQ(layout.fields[0].name.size(), 16);
    EXPECT_EQ(layout.name.size(), 31);
}

TEST(RecordLayoutTest, TheFirstOfTwoDescriptorsOfATypeCounts) {
    const QByteArray described =
        header("x", 0, {descriptor("one", 42, {{"a", 1}}), descriptor("two", 42, {{"b", 1}})});
    EXPECT_EQ(layoutOf(described, 42, 2).name, "one");
}

TEST(RecordLayoutTest, RealsKeepEveryDigitThatTellsThemApart) {
    RecordField field{"v", 1, 4, Kind::Real};
    EXPECT_EQ(field.textOf(QByteArray::fromHex("00 CDCCCC3D").constData()), "0.1");
    EXPECT_EQ(field.textOf(QByteArray::fromHex("00 CECCCC3D").constData()), "0.10000001");
    EXPECT_EQ(field.textOf(QByteArray::fromHex("00 0000C07F").constData()), "nan");
    EXPECT_EQ(field.textOf(QByteArray::fromHex("00 000080FF").constData()), "-inf");
}

TEST(RecordLayoutTest, WholeNumbersDoNotLookLikeReals) {
    const auto looks = [](quint32 bits) { return looksReal(number(bits).constData()); };
    for (const quint32 whole : {1U, 86'400U, 7'761'920U, 800'000'000U, 1'714'521'600U, ~0U}) {
        EXPECT_FALSE(looks(whole)) << whole;
    }
    EXPECT_TRUE(looks(0));
    EXPECT_TRUE(looks(0x41633333));   // 14.2
    EXPECT_TRUE(looks(0xC1633333));   // -14.2
    EXPECT_TRUE(looks(0x7FC00000));   // not a number
    EXPECT_FALSE(looks(0x7F800000));  // infinite
}

}  // namespace

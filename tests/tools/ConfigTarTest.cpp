#include "tools/storagectl/ConfigTar.h"

#include "tests/support/TarWriter.h"
#include "tools/storagectl/ConfigContents.h"
#include "tools/storagectl/ConfigGzip.h"

#include <gtest/gtest.h>
#include <QCryptographicHash>

#include <vector>

namespace {

using storagectl::ConfigContents;
using storagectl::ConfigGzip;
using storagectl::ConfigTar;
using storagectl::TarMember;
using Kind = TarMember::Kind;

const QByteArray kTop = "root/config/configBackup/";

QByteArray md5(const QByteArray& bytes) {
    return QCryptographicHash::hash(bytes, QCryptographicHash::Md5);
}

struct Reading {
    std::vector<TarMember> members;
    bool isWhole = false;
    QByteArray fault;
};

Reading read(const QByteArray& archive, qsizetype pieceBytes = 1'000'000) {
    Reading reading;
    ConfigTar tar([&reading](const TarMember& member) {
        reading.members.push_back(member);
        return true;
    });
    for (qsizetype at = 0; at < archive.size(); at += pieceBytes) {
        const QByteArray piece = archive.mid(at, pieceBytes);
        if (!tar.add(piece.constData(), piece.size())) {
            break;
        }
    }
    reading.isWhole = tar.isWhole();
    reading.fault = tar.fault().toUtf8();
    return reading;
}

ConfigContents contentsOf(const TarWriter& writer) {
    ConfigContents contents;
    const Reading reading = read(writer.bytes());
    EXPECT_TRUE(reading.isWhole) << reading.fault.constData();
    for (const TarMember& member : reading.members) {
        EXPECT_TRUE(contents.add(member));
    }
    contents.finish();
    return contents;
}

TarWriter panel() {
    TarWriter writer;
    writer.folder(kTop).folder(kTop + "panel/").file(kTop + "panel/main.cfg", "main");
    return writer;
}

}  // namespace

TEST(ConfigTarTest, MembersAreReadWhateverThePiecesThatTheyComeIn) {
    TarWriter writer = panel();
    writer.link(TarWriter::kSymbolicLink, kTop + "panel/link", "main.cfg")
        .file(kTop + "job.xml", QByteArray(1000, 'x'), 0640)
        .add({.name = kTop + "panel/fifo", .type = TarWriter::kFifo});
    for (const qsizetype pieceBytes : {1, 7, 511, 512, 513, 100'000}) {
        const Reading reading = read(writer.bytes(), pieceBytes);
        ASSERT_EQ(reading.members.size(), 6U) << pieceBytes << ' ' << reading.fault.constData();
        EXPECT_TRUE(reading.isWhole);
        EXPECT_EQ(reading.members[0].name, kTop.chopped(1));
        EXPECT_EQ(reading.members[0].kind, Kind::Folder);
        EXPECT_EQ(reading.members[2].digest, md5("main"));
        EXPECT_EQ(reading.members[2].modified, 1'600'000'000);
        EXPECT_EQ(reading.members[3].kind, Kind::Link);
        EXPECT_EQ(reading.members[3].target, "main.cfg");
        EXPECT_EQ(reading.members[4].size, 1000);
        EXPECT_EQ(reading.members[4].mode, 0640);
        EXPECT_EQ(reading.members[4].digest, md5(QByteArray(1000, 'x')));
        EXPECT_EQ(reading.members[5].kind, Kind::Special);
    }
}

TEST(ConfigTarTest, LongNamesOfBothKindsAndASizeInAnExtendedHeaderCount) {
    const QByteArray name = kTop + QByteArray(200, 'n');
    TarWriter writer;
    writer.longName(name).file("cut", "gnu");
    writer.longTarget(name).link(TarWriter::kSymbolicLink, kTop + "link", "cut");
    writer.pax({{"path", name + 'p'}, {"mtime", "1700000000.5"}}).file("cut", "pax");
    writer.pax({{"size", "5"}})
        .add({.name = kTop + "sized", .contents = "sized", .claimedSize = 0});
    const Reading reading = read(writer.bytes(), 100);
    ASSERT_EQ(reading.members.size(), 4U) << reading.fault.constData();
    EXPECT_EQ(reading.members[0].name, name);
    EXPECT_EQ(reading.members[1].target, name);
    EXPECT_EQ(reading.members[2].name, name + 'p');
    EXPECT_EQ(reading.members[2].modified, 1'700'000'000);
    EXPECT_EQ(reading.members[3].digest, md5("sized"));
}

TEST(ConfigTarTest, AnExtendedHeaderIsOfTheNextMemberOnly) {
    TarWriter writer;
    writer.pax({{"path", "a"}}).file("x", "").file("y", "");
    const Reading reading = read(writer.bytes());
    ASSERT_EQ(reading.members.size(), 2U);
    EXPECT_EQ(reading.members[0].name, "a");
    EXPECT_EQ(reading.members[1].name, "y");
}

TEST(ConfigTarTest, CutAnywhereItIsNotWhole) {
    const QByteArray archive = panel().bytes();
    for (qsizetype length = 0; length < archive.size(); ++length) {
        EXPECT_FALSE(read(archive.left(length)).isWhole) << length;
    }
    EXPECT_TRUE(read(archive).isWhole);
}

TEST(ConfigTarTest, AByteChangedInAnyHeaderIsAFault) {
    const QByteArray archive = panel().bytes();
    for (qsizetype at = 0; at < archive.size(); ++at) {
        const bool isContents = at >= 3 * 512 && at < 4 * 512;
        const bool isBehindChecksum = at % 512 == 155;
        QByteArray damaged = archive;
        damaged[at] = char(damaged[at] ^ 0x15);
        const Reading reading = read(damaged);
        EXPECT_TRUE(isContents || isBehindChecksum || !reading.isWhole) << at;
        EXPECT_LE(reading.members.size(), 3U);
    }
}

TEST(ConfigTarTest, WhatNoBackupHasIsAFault) {
    const QByteArray sparse = TarWriter().sparse("s", "x", 0, 1 << 30).bytes();
    const QByteArray paxSparse =
        TarWriter().pax({{"GNU.sparse.major", "1"}}).file("s", "x").bytes();
    const QByteArray unknown = TarWriter().add({.name = "v", .type = 'V'}).bytes();
    const QByteArray global = TarWriter().add({.name = "g", .type = 'g'}).bytes();
    for (const QByteArray& archive : {sparse, paxSparse, unknown, global}) {
        EXPECT_EQ(read(archive).fault, "it has a kind of member that no backup has");
    }
    const QByteArray longFolder =
        TarWriter().add({.name = "d", .type = TarWriter::kFolder, .contents = "x"}).bytes();
    EXPECT_EQ(read(longFolder).fault, "a member without contents has a length");
}

TEST(ConfigTarTest, AHugeExtendedHeaderIsNotReadIntoMemory) {
    const QByteArray archive =
        TarWriter().add({.name = "x", .type = 'x', .claimedSize = 1 << 30}).bytes();
    EXPECT_EQ(read(archive).fault, "a name in it is longer than any name can be");
}

TEST(ConfigTarTest, ExtendedHeadersThatDoNotFitAreAFault) {
    for (const char* records : {"9 path=a", "x path=a\n", "999 path=a\n", "2 \n", "-9 path=a\n",
                                "8 pathxx\n", "9 size=-\n", "11 size=-5\n", "11 size=+5\n",
                                "12 size=5.5\n", "12.0 path=a\n", "+11 path=a\n"}) {
        TarWriter writer;
        writer.add({.name = "x", .type = 'x', .contents = records}).file("y", "");
        EXPECT_EQ(read(writer.bytes()).fault, "a member's extended header is damaged") << records;
    }
}

TEST(ConfigTarTest, ANumberThatReadersUnderstandDifferentlyIsAFault) {
    for (const char* size : {"+0000000001", "-0000000001", "0x000000001", "00000000009"}) {
        QByteArray archive = TarWriter().file("x", "1").bytes();
        archive.replace(124, 11, size);
        // The checksum of the header as it is now.
        archive.replace(148, 8, "        ");
        int sum = 0;
        for (int i = 0; i < 512; ++i) {
            sum += static_cast<unsigned char>(archive[i]);
        }
        archive.replace(148, 6, QByteArray::number(sum, 8).rightJustified(6, '0'));
        archive[154] = '\0';
        EXPECT_EQ(read(archive).fault, "a member's header is damaged") << size;
    }
}

TEST(ConfigTarTest, AMemberWithTwoNamesIsAFault) {
    const QByteArray mixed = TarWriter().longName("a").pax({{"path", "b"}}).file("c", "").bytes();
    const QByteArray twice = TarWriter().longTarget("a").longTarget("b").file("c", "").bytes();
    const QByteArray records =
        TarWriter().pax({{"path", "a"}, {"path", "b"}}).file("c", "").bytes();
    for (const QByteArray& archive : {mixed, twice, records}) {
        EXPECT_EQ(read(archive).fault, "a member has two names");
    }
}

TEST(ConfigTarTest, AFileWhoseNameEndsInASlashIsAFolder) {
    for (const char type : {'\0', '0', '7'}) {
        const Reading reading = read(TarWriter().add({.name = "d/", .type = type}).bytes());
        ASSERT_EQ(reading.members.size(), 1U);
        EXPECT_EQ(reading.members[0].kind, Kind::Folder) << int(type);
        EXPECT_EQ(reading.members[0].name, "d");
    }
    EXPECT_EQ(read(TarWriter().file("d/", "x").bytes()).fault,
              "a member without contents has a length");
}

TEST(ConfigTarTest, ATimeLongAgoIsATime) {
    const Reading reading = read(TarWriter().pax({{"mtime", "-5.25"}}).file("x", "").bytes());
    ASSERT_EQ(reading.members.size(), 1U) << reading.fault.constData();
    EXPECT_EQ(reading.members[0].modified, -5);
}

TEST(ConfigTarTest, WhatFollowsItsEndIsAFault) {
    EXPECT_EQ(read(panel().bytes() + panel().bytes()).fault, "something follows its end");
    EXPECT_TRUE(read(panel().bytes() + QByteArray(8192, '\0')).isWhole);
}

TEST(ConfigGzipTest, CutOrChangedAnywhereItIsNotWhole) {
    const QByteArray packed = panel().compressed();
    const auto isWhole = [](const QByteArray& bytes) {
        ConfigGzip gzip([](const char*, qsizetype) { return true; });
        gzip.add(bytes);
        return gzip.isWhole() && gzip.fault().isEmpty();
    };
    EXPECT_TRUE(isWhole(packed));
    for (qsizetype at = 0; at < packed.size(); ++at) {
        EXPECT_FALSE(isWhole(packed.left(at))) << at;
        QByteArray damaged = packed;
        damaged[at] = char(damaged[at] ^ 0x41);
        // Its time, its flags of no meaning and its system say nothing of the contents.
        EXPECT_TRUE(!isWhole(damaged) || (at >= 4 && at < 10)) << at;
    }
    EXPECT_FALSE(isWhole(packed + packed));
    EXPECT_FALSE(isWhole("PK"));
}

TEST(ConfigGzipTest, PiecesOfOneByteGiveTheSame) {
    const QByteArray bytes = QByteArray(300'000, 'z') + "end";
    QByteArray unpacked;
    ConfigGzip gzip([&unpacked](const char* data, qsizetype length) {
        unpacked.append(data, length);
        return true;
    });
    for (const char byte : TarWriter::gzip(bytes)) {
        ASSERT_TRUE(gzip.add(QByteArray(1, byte)));
    }
    EXPECT_TRUE(gzip.isWhole());
    EXPECT_EQ(unpacked, bytes);
}

TEST(ConfigContentsTest, OnlyTheFolderModbusFilesAndTheJobComeBack) {
    TarWriter writer = panel();
    writer.folder(kTop + "other/").file(kTop + "other/file", "");
    for (const char* name : {"job.xml", "modbus-1.xml", "modbusxml", "units.xml", "xmodbus.xml",
                             "modbus-d/job.xml", "other/job.xml"}) {
        writer.file(kTop + name, "x");
    }
    writer.link(TarWriter::kSymbolicLink, kTop + "modbus-2.xml", "job.xml");
    writer.add({.name = kTop + "panel/fifo", .type = TarWriter::kFifo});
    const ConfigContents contents = contentsOf(writer);
    QByteArrayList back;
    for (const TarMember& member : contents.members()) {
        if (ConfigContents::comesBack(member, "panel")) {
            back.append(member.name);
        }
    }
    EXPECT_EQ(back,
              (QByteArrayList{"job.xml", "modbus-1.xml", "modbusxml", "panel", "panel/main.cfg"}));
}

TEST(ConfigContentsTest, AHardLinkIsAFileOfItsOwn) {
    TarWriter writer = panel();
    writer.link(TarWriter::kHardLink, kTop + "panel/again", kTop + "panel/main.cfg");
    const ConfigContents contents = contentsOf(writer);
    EXPECT_TRUE(contents.hazards().isEmpty());
    EXPECT_EQ(contents.members()["panel/again"].digest, md5("main"));
    EXPECT_EQ(contents.fileCount(), 2);
    EXPECT_EQ(contents.fileBytes(), 8);
}

TEST(ConfigContentsTest, HostileMembersAreHazards) {
    using Member = TarWriter::Member;
    const char link = TarWriter::kSymbolicLink;
    const std::vector<std::vector<Member>> cases = {
        {{.name = "/etc/passwd"}},
        {{.name = "../x"}},
        {{.name = "root/config/configBackupx/y"}},
        {{.name = "root/config/job.xml"}},
        {{.name = "/" + kTop + "x"}},
        {{.name = kTop + "panel/../../x"}},
        {{.name = kTop + "./x"}},
        {{.name = kTop + "panel//x"}},
        {{.name = kTop + "panel/.."}},
        {{.name = kTop + "x"}, {.name = kTop + "x"}},
        {{.name = kTop + "x", .type = link, .target = "/etc"}, {.name = kTop + "x/passwd"}},
        {{.name = kTop + "x/passwd"}, {.name = kTop + "x", .type = link, .target = "/etc"}},
        {{.name = kTop + "x", .type = link, .target = "/etc"}, {.name = kTop + "x/y/passwd"}},
        {{.name = kTop + "x"}, {.name = kTop + "x/y/z"}},
        {{.name = kTop + "panel/l", .type = link, .target = "x"}, {.name = kTop + "panel/l/y/z"}},
        {{.name = kTop + "x", .type = TarWriter::kHardLink, .target = "/etc/passwd"}},
        {{.name = kTop + "x", .type = TarWriter::kHardLink, .target = kTop + "later"},
         {.name = kTop + "later"}},
        {{.name = kTop.chopped(1), .type = link, .target = "/etc"}}};
    for (const std::vector<Member>& members : cases) {
        TarWriter writer = panel();
        for (const Member& member : members) {
            writer.add(member);
        }
        EXPECT_EQ(contentsOf(writer).hazards().size(), 1) << members.front().name.constData();
    }
    EXPECT_TRUE(contentsOf(panel()).hazards().isEmpty());
}

TEST(ConfigContentsTest, AFolderNeedsNoMemberOfItsOwn) {
    TarWriter writer;
    writer.file(kTop + "panel/area/a.cfg", "a").file(kTop + "other/b", "b").file(kTop + "c", "c");
    const ConfigContents contents = contentsOf(writer);
    EXPECT_EQ(contents.folders(), (QByteArrayList{"other", "panel"}));
    EXPECT_TRUE(contents.hasFolder("panel"));
    EXPECT_FALSE(contents.hasFolder("c"));
}

TEST(ConfigContentsTest, NamesLongerThanAnyPathAreHazardsAndNotKept) {
    const QByteArray longPath = kTop + QByteArray("d/").repeated(2100) + "f";
    TarWriter writer;
    writer.longName(longPath).file("f", "x");
    writer.longTarget(longPath).link(TarWriter::kSymbolicLink, kTop + "link", "f");
    const ConfigContents contents = contentsOf(writer);
    EXPECT_EQ(contents.hazards().size(), 2);
    EXPECT_TRUE(contents.members().isEmpty());
    EXPECT_LT(contents.hazards().join(' ').size(), 1000);
}

TEST(ConfigContentsTest, DeeperThanTheUnitRestoresIsAHazard) {
    const auto nested = [](int folders) {
        QByteArray name = kTop;
        for (int i = 0; i < folders; ++i) {
            name += "d/";
        }
        return TarWriter().longName(name + "f").file("f", "x");
    };
    EXPECT_TRUE(contentsOf(nested(99)).hazards().isEmpty());
    EXPECT_EQ(contentsOf(nested(100)).hazards().size(), 1);
}

TEST(ConfigContentsTest, LinksThatMayLeadOutOfTheFolderAreFound) {
    const std::vector<std::pair<const char*, bool>> cases = {
        {"main.cfg", false},   {"sub/x", false}, {"../main.cfg", false},  {"..", false},
        {"../sub/y", false},   {"/etc", true},   {"../../job.xml", true}, {"../..", true},
        {"sub/../../x", true}, {"sub/..", true}, {"./../../x", true},     {"", false}};
    for (const auto& [target, leadsOut] : cases) {
        TarWriter writer = panel();
        writer.folder(kTop + "panel/sub/")
            .link(TarWriter::kSymbolicLink, kTop + "panel/sub/link", target);
        EXPECT_EQ(contentsOf(writer).linksLeadingOut("panel").size(), leadsOut ? 1 : 0) << target;
        EXPECT_TRUE(contentsOf(writer).linksLeadingOut("other").isEmpty());
    }
}

TEST(ConfigContentsTest, ThousandsOfHazardsAreToldInAFewSentences) {
    TarWriter writer;
    for (int i = 0; i < 3000; ++i) {
        writer.file("/etc/" + QByteArray::number(i), "");
    }
    EXPECT_EQ(contentsOf(writer).hazards().size(), 10);
}

TEST(ConfigContentsTest, MoreMembersThanAConfigurationHasEndTheReading) {
    ConfigContents contents;
    TarMember member;
    for (int i = 0; i < ConfigContents::kMostMembers; ++i) {
        member.name = kTop + QByteArray::number(i);
        ASSERT_TRUE(contents.add(member));
    }
    member.name = kTop + "one more";
    EXPECT_FALSE(contents.add(member));
}

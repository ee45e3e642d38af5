#include "filesystem/ConfigArchive.h"
#include "tests/filesystem/ConfigBackupFixture.h"

#include <filesystem>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char kArchive[] = "site.configBackup";
constexpr char kVictim[] = "/root/data/victim";

/// Archives that nobody's tar made. Whatever is in them, the folder is afterwards the archive's,
/// the old one, or gone to the rescue, and the rest of the unit is as it was.
class ConfigBackupHostileTest : public ConfigBackupFixture {
protected:
    void SetUp() override {
        ConfigBackupFixture::SetUp();
        writeConfig("panel/main.cfg", "old");
        writeConfig("system.xml", "system");
        writeConfig("job.xml", "job");
        writeTestFile(QString::fromLatin1(kVictim), "untouched");
        writeTestFile(QStringLiteral("/mmc/card"), "untouched");
        writeTestFile(QStringLiteral("/tmp/outside/file"), "untouched");
        _outside = outside();
    }

    void TearDown() override {
        std::filesystem::remove_all("/root/data/.configRescue");
        EXPECT_EQ(outside(), _outside);
        EXPECT_FALSE(exists(QStringLiteral("/root/config/configBackup")));
        EXPECT_EQ(config("system.xml"), "system");
        std::filesystem::remove_all("/tmp/outside");
        ConfigBackupFixture::TearDown();
    }

    static QByteArray member(const QByteArray& name) { return kMembers + name; }

    /// With a folder of its own, so that what is added is all that may be wrong with it.
    static TarWriter goodStart() {
        TarWriter tar;
        tar.folder(kMembers).folder(member("panel/")).file(member("panel/main.cfg"), "new");
        return tar;
    }

    void restore(const TarWriter& tar) {
        writeConfig(kArchive, tar.compressed());
        EXPECT_TRUE(load("panel", kArchive));
        EXPECT_EQ(takeRestarts(), 1);
    }

    /// The archive's folder, or none and the old one in the rescue.
    void expectNewOrRescued() {
        const QByteArray contents = config("panel/main.cfg");
        if (contents != "new") {
            EXPECT_FALSE(exists(QStringLiteral("/root/config/panel")));
            EXPECT_EQ(readTestFile(QStringLiteral("/root/data/.configRescue/panel/main.cfg")),
                      "old");
        }
    }

private:
    /// All roots but what a restore may change, and the folder for temporary files.
    static Snapshot outside() {
        Snapshot all;
        for (const char* root : {"/root/data", "/mmc", "/tmp/outside"}) {
            for (const auto& [name, entry] : snapshot(root)) {
                all[std::string(root) + '/' + name] = name == "." ? "" : entry;
            }
        }
        for (const auto& [name, entry] : snapshot("/root/config")) {
            if (name != "." && !name.starts_with("panel") && !name.starts_with("modbus") &&
                name != "job.xml" && name != kArchive) {
                all["/root/config/" + name] = entry;
            }
        }
        return all;
    }

    Snapshot _outside;
};

}  // namespace

TEST_F(ConfigBackupHostileTest, GoodArchiveOfTheTestsOwnIsRestored) {
    restore(goodStart());
    EXPECT_EQ(config("panel/main.cfg"), "new");
}

TEST_F(ConfigBackupHostileTest, AbsoluteNamesLeadNowhere) {
    restore(goodStart()
                .file("/root/data/victim", "written")
                .file("/root/config/system.xml", "written")
                .file("/root/config/configBackup/panel/absolute", "inside"));
    expectNewOrRescued();
}

TEST_F(ConfigBackupHostileTest, NamesWithTwoDotsLeadNowhere) {
    for (const char* name :
         {"../system.xml", "../../data/victim", "panel/../../../../data/victim",
          "../../../../../../root/data/victim", "../../../../system.xml", "panel/.."}) {
        writeConfig("panel/main.cfg", "old");
        restore(goodStart().file(member(name), "written"));
        expectNewOrRescued();
        std::filesystem::remove_all("/root/data/.configRescue");
    }
}

TEST_F(ConfigBackupHostileTest, NothingIsWrittenThroughALink) {
    for (const char* target : {"/root/data", "../../../../../data", "../../../../../../mmc",
                               "/tmp/outside", "../../../..", "../.."}) {
        writeConfig("panel/main.cfg", "old");
        restore(goodStart()
                    .link(TarWriter::kSymbolicLink, member("panel/way"), target)
                    .file(member("panel/way/victim"), "written")
                    .file(member("panel/way/card"), "written")
                    .file(member("panel/way/file"), "written")
                    .file(member("panel/way/system.xml"), "written"));
        expectNewOrRescued();
        std::filesystem::remove_all("/root/data/.configRescue");
    }
}

TEST_F(ConfigBackupHostileTest, LinksToFilesAreReplacedNotWrittenThrough) {
    restore(goodStart()
                .link(TarWriter::kSymbolicLink, member("panel/a"), kVictim)
                .file(member("panel/a"), "written")
                .link(TarWriter::kSymbolicLink, member("panel/b"), "a")
                .link(TarWriter::kSymbolicLink, member("panel/a"), kVictim)
                .file(member("panel/b"), "written"));
    expectNewOrRescued();
}

TEST_F(ConfigBackupHostileTest, TheFoldersOnTheWayMayNotBeLinks) {
    for (const char* name : {"root", "root/config", "root/config/configBackup"}) {
        for (const char* target : {"/root/data", "/root/config", "/", "../../../.."}) {
            writeConfig("panel/main.cfg", "old");
            TarWriter tar;
            tar.link(TarWriter::kSymbolicLink, name, target);
            restore(tar.file(member("panel/main.cfg"), "new").file(member("victim"), "written"));
            expectNewOrRescued();
            std::filesystem::remove_all("/root/data/.configRescue");
        }
    }
}

TEST_F(ConfigBackupHostileTest, TheFolderItselfMayBeALinkAndIsRestoredAsOne) {
    TarWriter tar;
    restore(tar.link(TarWriter::kSymbolicLink, member("panel"), "/root/data")
                .link(TarWriter::kSymbolicLink, member("job.xml"), kVictim)
                .link(TarWriter::kSymbolicLink, member("modbus.xml"), kVictim));
    EXPECT_TRUE(std::filesystem::is_symlink("/root/config/panel"));
    EXPECT_EQ(config("job.xml"), "job");
    EXPECT_FALSE(exists(QStringLiteral("/root/config/modbus.xml")));
}

TEST_F(ConfigBackupHostileTest, ALinkIsNotPutInAFilesPlaceByNamingItTheFolder) {
    TarWriter tar;
    writeConfig(kArchive,
                tar.link(TarWriter::kSymbolicLink, member("job.xml"), kVictim).compressed());
    EXPECT_TRUE(load("job.xml", kArchive));
    EXPECT_FALSE(std::filesystem::is_symlink("/root/config/job.xml"));
}

TEST_F(ConfigBackupHostileTest, OnlyRegularFilesComeBackAsFiles) {
    restore(goodStart()
                .add({.name = member("job.xml"), .type = TarWriter::kFifo})
                .folder(member("modbus.xml/"))
                .file(member("modbus.xml/x"), "x"));
    EXPECT_EQ(config("job.xml"), "job");
    EXPECT_FALSE(exists(QStringLiteral("/root/config/modbus.xml")));
    EXPECT_EQ(config("panel/main.cfg"), "new");
}

TEST_F(ConfigBackupHostileTest, HardLinksToWhatIsOutsideBringNothingBack) {
    for (const char* target :
         {kVictim, "root/data/victim", "../../../../data/victim", "root/config/system.xml"}) {
        writeConfig("panel/main.cfg", "old");
        restore(goodStart()
                    .link(TarWriter::kHardLink, member("panel/second"), target)
                    .file(member("panel/second"), "written"));
        expectNewOrRescued();
        std::filesystem::remove_all("/root/data/.configRescue");
    }
}

TEST_F(ConfigBackupHostileTest, HardLinksThroughLinksBringNothingBack) {
    restore(goodStart()
                .link(TarWriter::kSymbolicLink, member("panel/way"), "/root/data")
                .link(TarWriter::kHardLink, member("panel/second"), member("panel/way/victim"))
                .link(TarWriter::kSymbolicLink, member("panel/direct"), kVictim)
                .link(TarWriter::kHardLink, member("panel/third"), member("panel/direct"))
                .add({.name = member("panel/third"), .contents = "written", .mode = 04777}));
    expectNewOrRescued();
}

TEST_F(ConfigBackupHostileTest, HardLinksInsideBecomeFiles) {
    restore(goodStart()
                .link(TarWriter::kHardLink, member("panel/second"), member("panel/main.cfg"))
                .link(TarWriter::kHardLink, member("job.xml"), member("panel/main.cfg")));
    struct stat status {};
    for (const char* name : {"panel/main.cfg", "panel/second", "job.xml"}) {
        EXPECT_EQ(config(name), "new");
        ASSERT_EQ(::stat((std::string("/root/config/") + name).c_str(), &status), 0);
        EXPECT_EQ(status.st_nlink, 1U) << name;
    }
}

TEST_F(ConfigBackupHostileTest, FifosAreLeftOut) {
    restore(goodStart().add({.name = member("panel/fifo"), .type = TarWriter::kFifo}));
    EXPECT_EQ(config("panel/main.cfg"), "new");
    EXPECT_FALSE(exists(QStringLiteral("/root/config/panel/fifo")));
}

TEST_F(ConfigBackupHostileTest, DevicesAreLeftOut) {
    restore(goodStart().add({.name = member("panel/device"), .type = TarWriter::kCharacterDevice}));
    // Who may make no device fails to unpack it.
    expectNewOrRescued();
    EXPECT_FALSE(exists(QStringLiteral("/root/config/panel/device")));
}

TEST_F(ConfigBackupHostileTest, SetuidAndSetgidAreDroppedAndTheRestOfTheModeKept) {
    restore(goodStart()
                .file(member("panel/setuid"), "x", 06755)
                .folder(member("panel/shared/"), 03775)
                .file(member("job.xml"), "x", 04750));
    struct stat status {};
    const auto mode = [&status](const char* name) {
        EXPECT_EQ(::stat(name, &status), 0) << name;
        return status.st_mode & 07777;
    };
    EXPECT_EQ(mode("/root/config/panel/setuid"), 0755U);
    EXPECT_EQ(mode("/root/config/panel/shared"), 01775U);
    EXPECT_EQ(mode("/root/config/job.xml"), 0750U);
}

TEST_F(ConfigBackupHostileTest, NamesOfFourKilobytesEndInTheScratchFolder) {
    for (const qsizetype length : {255, 256, 4000, 4096, 5000, 70000}) {
        writeConfig("panel/main.cfg", "old");
        const QByteArray name = member("panel/") + QByteArray(length, 'n');
        restore(goodStart().longName(name).file(name.left(99), "long"));
        expectNewOrRescued();
        std::filesystem::remove_all("/root/data/.configRescue");
    }
}

TEST_F(ConfigBackupHostileTest, DeepFoldersAreRefusedAndRemoved) {
    QByteArray step = member("panel");
    TarWriter tar = goodStart();
    for (int round = 0; round < 2; ++round) {
        QByteArray deep;
        for (int i = 0; i < 700; ++i) {
            deep += "/d";
        }
        tar.longName(step + deep).file("deep", "x");
        tar.longTarget(deep.mid(1).chopped(2)).link(TarWriter::kSymbolicLink, step + "/s", "short");
        step += "/s";
    }
    restore(tar);
    EXPECT_FALSE(exists(QStringLiteral("/root/config/panel")));
    EXPECT_EQ(readTestFile(QStringLiteral("/root/data/.configRescue/panel/main.cfg")), "old");
}

TEST_F(ConfigBackupHostileTest, TenThousandMembersAreRestored) {
    TarWriter tar = goodStart();
    for (int i = 0; i < 10'000; ++i) {
        tar.file(member("panel/") + QByteArray::number(i), QByteArray());
    }
    restore(tar);
    EXPECT_EQ(config("panel/main.cfg"), "new");
    EXPECT_EQ(config("panel/9999"), "");
}

TEST_F(ConfigBackupHostileTest, SparseFilesCountAsLongAsTheyClaimToBe) {
    restore(goodStart().sparse(member("panel/bomb"), QByteArray(512, 'x'), 0, 8'000'000'000));
    // It fits where the storage has so much room; two that would not fit do not come back.
    writeConfig("panel/main.cfg", "old");
    const std::filesystem::space_info space = std::filesystem::space("/root/config");
    const auto half =
        static_cast<qint64>(std::min<std::uintmax_t>(space.available / 2, 8'500'000'000));
    TarWriter tar = goodStart();
    for (qint64 claimed = 0, i = 0; claimed <= static_cast<qint64>(space.available); ++i) {
        tar.sparse(member("panel/bomb") + QByteArray::number(i), QByteArray(512, 'x'), 0, half);
        claimed += half;
    }
    restore(tar);
    EXPECT_FALSE(exists(QStringLiteral("/root/config/panel/bomb0")));
}

TEST_F(ConfigBackupHostileTest, HugeFileIsStoppedAtTheLimitAndTheFolderStays) {
    const auto available = std::filesystem::space("/root/config").available;
    const QByteArray data(400, 'x');
    const QByteArray map =
        "1\n" + QByteArray::number(static_cast<qint64>(available) - data.size()) + "\n400\n";
    TarWriter tar = goodStart();
    tar.pax({{"GNU.sparse.major", "1"},
             {"GNU.sparse.minor", "0"},
             {"GNU.sparse.name", member("panel/bomb")},
             {"GNU.sparse.realsize", QByteArray::number(static_cast<qint64>(available))}})
        .file(member("panel/x"), map.leftJustified(512, '\0') + data);
    restore(tar);
    EXPECT_EQ(config("panel/main.cfg"), "old");
}

TEST_F(ConfigBackupHostileTest, PaxNamesAreTreatedAsNames) {
    const QList<std::pair<QByteArray, QByteArray>> hostile[] = {
        {{"path", "/root/data/victim"}},
        {{"path", member("../../data/victim")}},
        {{"path", member("panel/x\0y")}},
        {{"linkpath", kVictim}},
        {{"GNU.sparse.name", "/root/data/victim"}, {"GNU.sparse.major", "1"}},
        {{"size", "99999999999999999999"}},
        {{"size", "-1"}},
        {{"mtime", "1e400"}, {"uid", "-5"}, {"gid", "4294967296000"}},
        {{"path", ""}},
        {{"SCHILY.xattr.security.capability", "xxxx"}, {"hdrcharset", "BINARY"}},
    };
    for (const auto& records : hostile) {
        writeConfig("panel/main.cfg", "old");
        restore(goodStart().pax(records).file(member("panel/x"), "written"));
        expectNewOrRescued();
        writeConfig("panel/main.cfg", "old");
        std::filesystem::remove_all("/root/data/.configRescue");
        restore(goodStart().pax(records).link(TarWriter::kHardLink, member("panel/y"),
                                              member("panel/main.cfg")));
        expectNewOrRescued();
        std::filesystem::remove_all("/root/data/.configRescue");
    }
}

TEST_F(ConfigBackupHostileTest, UnknownMemberTypesBringNothingElse) {
    for (const char type : {'7', 'D', 'M', 'N', 'V', 'X', 'g', 'Z', '\0', '\x7f'}) {
        writeConfig("panel/main.cfg", "old");
        restore(goodStart().add({.name = member("panel/odd"), .type = type, .contents = "odd"}));
        expectNewOrRescued();
        std::filesystem::remove_all("/root/data/.configRescue");
    }
}

TEST_F(ConfigBackupHostileTest, MembersElsewhereAreNotUnpacked) {
    restore(goodStart().file("panel/main.cfg", "written").file("root/config/job.xml", "written"));
    EXPECT_EQ(config("panel/main.cfg"), "new");
    EXPECT_EQ(config("job.xml"), "job");
}

TEST_F(ConfigBackupHostileTest, WhatIsNoArchiveIsDamaged) {
    const QByteArray bytes[] = {"",
                                "garbage",
                                TarWriter::gzip("garbage"),
                                TarWriter::gzip(""),
                                TarWriter::gzip(QByteArray(100'000, '\0')),
                                goodStart().bytes(),
                                goodStart().compressed().chopped(1),
                                TarWriter::gzip(goodStart().bytes().left(700))};
    for (const QByteArray& archive : bytes) {
        writeConfig("panel/main.cfg", "old");
        writeConfig(kArchive, archive);
        EXPECT_TRUE(load("panel", kArchive));
        EXPECT_FALSE(exists(QStringLiteral("/root/config/panel")))
            << archive.left(20).toStdString();
        std::filesystem::remove_all("/root/data/.configRescue");
        takeRestarts();
    }
}

TEST_F(ConfigBackupHostileTest, ClaimedSizesAreNotBelieved) {
    for (const qint64 size : {3LL, 511LL, 1'000'000LL, 0x1FFFFFFFFLL}) {
        writeConfig("panel/main.cfg", "old");
        restore(
            goodStart().add({.name = member("panel/x"), .contents = "12", .claimedSize = size}));
        expectNewOrRescued();
        std::filesystem::remove_all("/root/data/.configRescue");
    }
}

TEST_F(ConfigBackupHostileTest, EveryByteOfAHeaderMayBeAnything) {
    const QByteArray whole = goodStart().file(member("panel/x"), "12").bytes();
    unsigned seed = 7;
    for (int i = 0; i < 40; ++i) {
        QByteArray damaged = whole;
        for (int change = 0; change < 3; ++change) {
            seed = seed * 1664525 + 1013904223;
            damaged[static_cast<qsizetype>(seed >> 8) % damaged.size()] = static_cast<char>(seed);
        }
        writeConfig("panel/main.cfg", "old");
        writeConfig(kArchive, TarWriter::gzip(damaged));
        EXPECT_TRUE(load("panel", kArchive));
        std::filesystem::remove_all("/root/data/.configRescue");
        std::filesystem::remove_all("/root/config/panel");
    }
}

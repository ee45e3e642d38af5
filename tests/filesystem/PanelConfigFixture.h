#pragma once

#include "tests/filesystem/ConfigBackupFixture.h"

#include <QDir>
#include <QProcess>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

inline constexpr char kArchive[] = "site.configBackup";

/// A unit's configuration with a folder "panel", and what the system's tar says of its archives.
class PanelConfigFixture : public ConfigBackupFixture {
protected:
    void SetUp() override {
        ConfigBackupFixture::SetUp();
        writeConfig("job.xml", "job");
        writeConfig("modbus.xml", "modbus");
        writeConfig("modbus-2xml", "second modbus");
        writeConfig("units.xml", "units");
        writeConfig("system.xml", "system");
        writeConfig("notes.txt", "notes");
        writeConfig(".hidden.xml", "hidden");
        writeConfig("panel/main.cfg", "main");
        writeConfig("panel/deep/er/page", "page");
        if (::geteuid() == 0) {
            ASSERT_EQ(::chown("/root/config/panel/main.cfg", 12, 34), 0);
        }
    }

    void TearDown() override {
        EXPECT_FALSE(exists(QStringLiteral("/root/config/configBackup")));
        EXPECT_FALSE(exists(QStringLiteral("/root/config/.configBackup.part")));
        EXPECT_FALSE(exists(QStringLiteral("/root/data/.configRescue.part")));
        ConfigBackupFixture::TearDown();
    }

    /// What the system's tar says is in an archive, sorted.
    static QList<QByteArray> members(const char* archive) {
        QProcess tar;
        tar.start(QStringLiteral("tar"), {QStringLiteral("tzf"), path(archive)});
        EXPECT_TRUE(tar.waitForFinished());
        EXPECT_EQ(tar.exitCode(), 0) << tar.readAllStandardError().toStdString();
        QList<QByteArray> names = tar.readAllStandardOutput().trimmed().split('\n');
        std::sort(names.begin(), names.end());
        return names;
    }

    static QString path(const char* name) {
        return QStringLiteral("/root/config/") + QString::fromUtf8(name);
    }

    static void damage(const char* archive) {
        const QByteArray whole = config(archive);
        writeConfig(archive, whole.left(whole.size() / 2));
    }
};

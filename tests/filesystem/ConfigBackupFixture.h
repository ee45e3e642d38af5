#pragma once

#include "tests/filesystem/FilesystemFixture.h"
#include "tests/support/FakeBus.h"
#include "tests/support/TarWriter.h"

#include <map>
#include <string>

/// A configuration folder with a bus, on which the restart is asked for.
class ConfigBackupFixture : public FilesystemFixture {
protected:
    static constexpr char kMembers[] = "root/config/configBackup/";

    /// What stands where, below a root: kind, mode, owners and time, and contents or target.
    using Snapshot = std::map<std::string, std::string>;
    static Snapshot snapshot(const std::string& root);

    static bool create(const char* folder, const char* archive) {
        return Filesystem::createConfigBackupFile(QString::fromUtf8(folder),
                                                  QString::fromUtf8(archive));
    }
    static bool load(const char* folder, const char* archive) {
        return Filesystem::loadConfigBackupFile(QString::fromUtf8(folder),
                                                QString::fromUtf8(archive));
    }

    static bool exists(const QString& path);
    static QByteArray config(const char* name) {
        return readTestFile(QStringLiteral("/root/config/") + QString::fromUtf8(name));
    }
    static void writeConfig(const char* name, const QByteArray& contents) {
        writeTestFile(QStringLiteral("/root/config/") + QString::fromUtf8(name), contents);
    }

    /// Restarts asked for since the last call.
    int takeRestarts();

    FakeBus bus;
};

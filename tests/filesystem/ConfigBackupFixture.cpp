#include "tests/filesystem/ConfigBackupFixture.h"

#include <filesystem>
#include <fstream>
#include <sstream>

#include <sys/stat.h>

namespace fs = std::filesystem;

ConfigBackupFixture::Snapshot ConfigBackupFixture::snapshot(const std::string& root) {
    Snapshot entries;
    if (!fs::exists(fs::symlink_status(root))) {
        return entries;
    }
    const auto note = [&](const fs::path& path) {
        struct stat status {};
        EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
        std::ostringstream text;
        text << std::oct << status.st_mode << std::dec << ' ' << status.st_uid << ' '
             << status.st_gid << ' ' << status.st_mtim.tv_sec << ' ';
        if (S_ISLNK(status.st_mode)) {
            text << fs::read_symlink(path);
        } else if (S_ISREG(status.st_mode)) {
            text << std::ifstream(path, std::ios::binary).rdbuf();
        }
        entries[path.lexically_relative(root)] = text.str();
    };
    note(root);
    if (fs::is_directory(fs::symlink_status(root))) {
        for (const fs::directory_entry& entry : fs::recursive_directory_iterator(root)) {
            note(entry.path());
        }
    }
    return entries;
}

bool ConfigBackupFixture::exists(const QString& path) {
    return fs::exists(fs::symlink_status(path.toStdString()));
}

int ConfigBackupFixture::takeRestarts() {
    const QList<FakeTransport::Sent> sent = std::exchange(bus.transport().sent, {});
    for (const FakeTransport::Sent& token : sent) {
        EXPECT_EQ(token.token, "System.restartApplication");
        EXPECT_TRUE(token.payload.isEmpty());
    }
    return static_cast<int>(sent.size());
}

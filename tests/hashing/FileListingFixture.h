#pragma once

#include "hashing/FileHashManager.h"
#include "tests/support/FakeClock.h"
#include "tests/support/Files.h"
#include "tests/support/LogCapture.h"
#include "tests/support/QtWarnings.h"

#include <QDir>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

/// Empty roots with the folder of a client, "user1", and the clocks in the test's hand.
class FileListingFixture : public testing::Test {
protected:
    static constexpr int kModified = 1'600'000'000;
    static inline const QString kCard = QStringLiteral("/mmc");
    static inline const QString kUser = QStringLiteral("user1");
    static inline const QString kFolder = QStringLiteral("/root/data/user1");
    static inline const QString kCardListing = kFolder + "/.files..mmc";
    static inline const QString kCardTemporary = kFolder + "/.files.temp..mmc";

    void SetUp() override {
        emptyRoots();
        ASSERT_TRUE(QDir().mkpath(kFolder));
    }
    void TearDown() override {
        EXPECT_TRUE(warnings.lines().isEmpty()) << warnings.lines().value(0).toStdString();
    }

    /// A file with the modification time kModified.
    static void makeFile(const QString& path, const QByteArray& contents = QByteArray(),
                         qint64 modified = kModified) {
        writeTestFile(path, contents);
        const timespec times[2] = {{modified, 0}, {modified, 0}};
        ASSERT_EQ(::utimensat(AT_FDCWD, path.toUtf8().constData(), times, 0), 0);
    }
    static void makeFolder(const QString& path) { ASSERT_TRUE(QDir().mkpath(path)); }
    static void makeLink(const QString& path, const char* target) {
        ASSERT_EQ(::symlink(target, path.toUtf8().constData()), 0);
    }
    static void makeFifo(const QString& path) {
        ASSERT_EQ(::mkfifo(path.toUtf8().constData(), 0600), 0);
    }

    /// The line of an empty file that `makeFile` made.
    static QByteArray line(const QByteArray& path) {
        return "0," + QByteArray::number(kModified) + ',' + path + '\n';
    }
    static QByteArray lines(std::initializer_list<const char*> paths) {
        QByteArray result;
        for (const char* path : paths) {
            result += line(path);
        }
        return result;
    }

    static QString generate(const QString& root, const QString& folder = kUser) {
        return FileHashManager::generateFileListing(folder, root, -1, -1);
    }
    /// What a new listing of the card says.
    static QByteArray cardListing() {
        EXPECT_EQ(generate(kCard), kCardListing);
        return readTestFile(kCardListing);
    }

    QtWarnings warnings;
    LogCapture log;
    FakeClock clock;
};

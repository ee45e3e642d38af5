#pragma once

#include "filesystem/Filesystem.h"
#include "tests/support/FakeClock.h"
#include "tests/support/Files.h"
#include "tests/support/FullDisk.h"
#include "tests/support/LogCapture.h"
#include "tests/support/QtWarnings.h"

#include <gtest/gtest.h>

/// Reaches what a test could otherwise reach only by 2^31 opens.
class FilesystemState {
public:
    static void setNextHandle(Filesystem& files, int number) { files._nextHandle = number; }
    static int openHandles(const Filesystem& files) {
        return static_cast<int>(files._handles.size());
    }
};

/// A file service over empty roots, with the clock in the test's hand.
class FilesystemFixture : public testing::Test {
protected:
    static constexpr int kReadOnly = 0x1;
    static constexpr int kWriteOnly = 0x2;
    static constexpr int kReadWrite = 0x3;
    static constexpr int kAppend = 0x4;
    static constexpr int kText = 0x10;

    void SetUp() override { emptyRoots(); }
    void TearDown() override {
        EXPECT_TRUE(warnings.lines().isEmpty()) << warnings.lines().value(0).toStdString();
    }

    int open(const QString& path, int flags = kReadWrite) {
        int length = 0;
        return files.openFile(path, QIODevice::OpenMode::fromInt(flags), length);
    }

    int openFolder(const QString& path, const QString& filter = QStringLiteral("*")) {
        int count = 0;
        return files.openDirectory(path, filter, count);
    }

    QtWarnings warnings;
    LogCapture log;
    FakeClock clock;
    Filesystem files{nullptr};
};

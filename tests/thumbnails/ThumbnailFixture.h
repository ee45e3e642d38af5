#pragma once

#include "datafile/DataFile.h"
#include "datafile/MemoryCache.h"
#include "tests/support/LogCapture.h"
#include "thumbnails/ThumbnailLayout.h"
#include "thumbnails/ThumbnailManager.h"

#include <gtest/gtest.h>

/// A manager on the sandbox's empty roots, and one month, May 2024.
class ThumbnailFixture : public testing::Test {
protected:
    static constexpr quint32 kMonthStart = 1'714'521'600;
    /// In memory, where the many files of the long tests are forced to storage for nothing.
    static constexpr char kQuickRoot[] = "/dev/shm/data";
    static constexpr char kQuickArchive[] = "/dev/shm/mmc";

    ThumbnailFixture();
    ~ThumbnailFixture() override;

    void useQuickFolders();
    /// A gauge's data file below the quick archive.
    static QString recording(const QString& date, const QString& gauge);
    static void recordGauge(const QString& date, const QString& gauge, const QByteArray& bytes);
    static QString gaugeThumbnail(const QString& monthAndGauge);

    /// A data file open for reading.
    void openSource(DataFile& file, const QByteArray& bytes);
    /// A thumbnail file of `bytes`, open and at its end.
    void openThumb(QFile& thumb, const QByteArray& bytes);

    MemoryCache _cache{false};
    LogCapture _log;
    ThumbnailManager _manager{nullptr};
};

/// Tells where two files begin to differ, and no more of them than that.
testing::AssertionResult isSameFile(const QByteArray& actual, const QByteArray& expected);

#include "tests/thumbnails/ThumbnailFixture.h"

#include "tests/support/Files.h"

#include <QDir>

#include <algorithm>

ThumbnailFixture::ThumbnailFixture() {
    g_memoryCache = &_cache;
    emptyRoots();
}

ThumbnailFixture::~ThumbnailFixture() {
    QDir(kQuickRoot).removeRecursively();
    QDir(kQuickArchive).removeRecursively();
    g_memoryCache = nullptr;
}

void ThumbnailFixture::useQuickFolders() {
    _manager.setRootAndArchiveFolder(kQuickRoot, kQuickArchive);
    _manager.setJob("job");
}

QString ThumbnailFixture::recording(const QString& date, const QString& gauge) {
    return QStringLiteral("%1/job/gauges/%2/%3/calcData.gdf").arg(kQuickArchive, date, gauge);
}

void ThumbnailFixture::recordGauge(const QString& date, const QString& gauge,
                                   const QByteArray& bytes) {
    writeTestFile(recording(date, gauge), bytes);
}

QString ThumbnailFixture::gaugeThumbnail(const QString& monthAndGauge) {
    return QStringLiteral("%1/job/gauges/thumbnails/%2.gdt").arg(kQuickRoot, monthAndGauge);
}

void ThumbnailFixture::openSource(DataFile& file, const QByteArray& bytes) {
    const QString path = QStringLiteral("/mmc/source.gdf");
    writeTestFile(path, bytes);
    ASSERT_TRUE(file.open(path, 0));
}

void ThumbnailFixture::openThumb(QFile& thumb, const QByteArray& bytes) {
    writeTestFile(thumb.fileName(), bytes);
    ASSERT_TRUE(thumb.open(QIODevice::ReadWrite | QIODevice::Unbuffered));
    ASSERT_TRUE(thumb.seek(bytes.size()));
}

testing::AssertionResult isSameFile(const QByteArray& actual, const QByteArray& expected) {
    if (actual == expected) {
        return testing::AssertionSuccess();
    }
    const auto differs =
        std::mismatch(actual.begin(), actual.end(), expected.begin(), expected.end());
    const auto at = differs.first - actual.begin();
    return testing::AssertionFailure()
           << actual.size() << " bytes instead of " << expected.size() << ", different from byte "
           << at << ": " << actual.mid(at, 24).toHex(' ').toStdString() << " instead of "
           << expected.mid(at, 24).toHex(' ').toStdString();
}

#include "tests/support/Files.h"

#include "core/shared/StoragePaths.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

void writeTestFile(const QString& path, const QByteArray& contents) {
    ASSERT_TRUE(QDir().mkpath(QFileInfo(path).path()));
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly)) << path.toStdString();
    ASSERT_EQ(file.write(contents), contents.size());
    ASSERT_TRUE(file.flush());
}

QByteArray readTestFile(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(missing)");
}

void makeSparseFile(const QString& path, qint64 size) {
    writeTestFile(path, QByteArray());
    ASSERT_TRUE(QFile::resize(path, size));
}

void emptyRoots() {
    for (const char* root :
         {StoragePaths::kDataRoot, StoragePaths::kConfigRoot, StoragePaths::kCardRoot}) {
        const QFileInfoList entries = QDir(QString::fromLatin1(root))
                                          .entryInfoList(QDir::AllEntries | QDir::Hidden |
                                                         QDir::System | QDir::NoDotAndDotDot);
        for (const QFileInfo& entry : entries) {
            if (entry.isDir() && !entry.isSymLink()) {
                ASSERT_TRUE(QDir(entry.filePath()).removeRecursively());
            } else {
                ASSERT_TRUE(QFile::remove(entry.filePath()));
            }
        }
    }
}

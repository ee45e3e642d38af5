#include "tools/storagectl/TreeComparison.h"

#include <gtest/gtest.h>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using storagectl::LocalTree;
using storagectl::TreeComparison;
using storagectl::UnitFile;
using Relation = TreeComparison::Relation;

constexpr qint64 kTime = 1'714'521'600;

class TreeComparisonTest : public testing::Test {
protected:
    void write(const QByteArray& name, const QByteArray& contents, qint64 modified = kTime) const {
        QDir(folder.path()).mkpath("./" + QString::fromUtf8(name).section('/', 0, -2));
        const QString path = folder.filePath(QString::fromUtf8(name));
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        ASSERT_EQ(file.write(contents), contents.size());
        file.close();
        const timespec times[2] = {{0, UTIME_OMIT}, {modified, 500'000'000}};
        ASSERT_EQ(utimensat(AT_FDCWD, path.toUtf8().constData(), times, 0), 0);
    }
    QByteArray path(const char* name) const { return folder.filePath(name).toUtf8(); }

    TreeComparison compare(const QList<UnitFile>& unit) const {
        LocalTree local;
        EXPECT_TRUE(local.read(folder.path().toUtf8()).isDone());
        return TreeComparison(unit, local);
    }
    Relation relationOf(const UnitFile& file) const {
        return compare({file}).rows().at(0).relation;
    }

    QTemporaryDir folder;
};

TEST_F(TreeComparisonTest, SizeAndTimeInSecondsDecide) {
    write("day/file", "12345");
    EXPECT_EQ(relationOf({"day/file", 5, kTime}), Relation::Same);
    EXPECT_EQ(relationOf({"day/file", 5, kTime + 1}), Relation::OtherTime);
    EXPECT_EQ(relationOf({"day/file", 5, -1}), Relation::OtherTime);
    write("day/old", "12345", -1);
    EXPECT_EQ(relationOf({"day/old", 5, -1}), Relation::OtherTime) << "no time is known";
    EXPECT_EQ(relationOf({"day/file", 6, kTime}), Relation::Shorter);
    EXPECT_EQ(relationOf({"day/file", 4, kTime}), Relation::Longer);
    EXPECT_EQ(relationOf({"day/other", 5, kTime}), Relation::Missing);
}

TEST_F(TreeComparisonTest, AFileWhereADirectoryIsNeededBars) {
    write("day", "a file");
    const TreeComparison comparison = compare({{"day/sub/file", 1, kTime}});
    EXPECT_EQ(comparison.rows().at(0).relation, Relation::Barred);
    EXPECT_EQ(comparison.rows().at(0).barrier, "day");
}

TEST_F(TreeComparisonTest, ADirectoryWhereAFileIsNeededBars) {
    write("day/file", "");
    EXPECT_EQ(relationOf({"day", 1, kTime}), Relation::Barred);
}

TEST_F(TreeComparisonTest, LinksAndSpecialFilesBarAndAreNotFollowed) {
    write("real/file", "12345");
    ASSERT_EQ(symlink("real", path("link").constData()), 0);
    ASSERT_EQ(symlink("real/file", path("file").constData()), 0);
    ASSERT_EQ(mkfifo(path("fifo").constData(), 0600), 0);
    EXPECT_EQ(relationOf({"link/file", 5, kTime}), Relation::Barred);
    EXPECT_EQ(relationOf({"file", 5, kTime}), Relation::Barred);
    EXPECT_EQ(relationOf({"fifo", 0, kTime}), Relation::Barred);
    EXPECT_EQ(compare({}).onlyHere(), (QByteArrayList{"fifo", "file", "link", "real/file"}));
}

TEST_F(TreeComparisonTest, OnlyHereAreFilesThatTheUnitDoesNotHave) {
    write("both", "");
    write("here", "");
    write("sub/here", "");
    EXPECT_EQ(compare({{"both", 0, kTime}}).onlyHere(), (QByteArrayList{"here", "sub/here"}));
}

TEST_F(TreeComparisonTest, HiddenNamesDoNotCount) {
    write(".hidden", "");
    write(".git/file", "");
    EXPECT_TRUE(compare({}).onlyHere().isEmpty());
}

TEST_F(TreeComparisonTest, ThePartialFileOfAFileOfTheUnitIsNotOnlyHere) {
    write("file.part", "");
    write("gone.part", "");
    EXPECT_EQ(compare({{"file", 0, kTime}}).onlyHere(), QByteArrayList{"gone.part"});
}

TEST_F(TreeComparisonTest, ADirectoryThatIsNotThereHasNothing) {
    LocalTree local;
    EXPECT_TRUE(local.read(path("missing")).isDone());
    EXPECT_TRUE(local.entries().isEmpty());
}

TEST_F(TreeComparisonTest, AFileIsNoLocalDirectory) {
    write("file", "");
    LocalTree local;
    EXPECT_EQ(local.read(path("file")).code, storagectl::ExitCode::LocalFile);
}

}  // namespace

#include "core/shared/RegularFile.h"

#include "tests/support/Files.h"
#include "tests/support/QtWarnings.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <tuple>

namespace {

const QString kExisting = QStringLiteral("/root/data/existing");
const QString kMissing = QStringLiteral("/root/data/missing");

/// Everything that an open and a first write and read show.
struct Outcome {
    bool isOpen = false;
    int mode = 0;
    qint64 size = -1;
    qint64 position = -1;
    qint64 written = -1;
    QByteArray read;
    QByteArray contents;
    bool isAppending = false;
    bool operator==(const Outcome&) const = default;
};

void PrintTo(const Outcome& outcome, std::ostream* stream) {
    *stream << "open " << outcome.isOpen << " mode " << outcome.mode << " size " << outcome.size
            << " position " << outcome.position << " written " << outcome.written << " read "
            << outcome.read.toStdString() << " contents " << outcome.contents.toStdString()
            << " appending " << outcome.isAppending;
}

template <typename Open>
Outcome outcomeOf(const QString& path, Open open) {
    emptyRoots();
    writeTestFile(kExisting, "one\r\ntwo");
    Outcome outcome;
    QFile file;
    if (open(file, path)) {
        outcome.isOpen = file.isOpen();
        outcome.mode = file.openMode().toInt() & ~QIODevice::Unbuffered;
        outcome.size = file.size();
        outcome.position = file.pos();
        outcome.isAppending = (::fcntl(file.handle(), F_GETFL) & O_APPEND) != 0;
        if (file.isWritable()) {
            outcome.written = file.write("N\n");
        }
        file.flush();
        if (file.isReadable()) {
            file.seek(0);
            outcome.read = file.read(100);
        }
        file.close();
    }
    outcome.contents = readTestFile(path);
    return outcome;
}

class RegularFileTest : public testing::Test {
protected:
    void SetUp() override { emptyRoots(); }

    QtWarnings warnings;
};

class OpenFlagsTest : public testing::TestWithParam<std::tuple<int, QString>> {};

}  // namespace

TEST_P(OpenFlagsTest, OpenAsQtOpensThem) {
    const QtWarnings warnings;
    const auto flags = QIODevice::OpenMode::fromInt(std::get<0>(GetParam()));
    const QString path = std::get<1>(GetParam());
    const Outcome ours = outcomeOf(path, [&](QFile& file, const QString& name) {
        return RegularFile::open(file, name, flags);
    });
    ASSERT_TRUE(warnings.lines().isEmpty()) << warnings.lines().first().toStdString();
    const Outcome qts = outcomeOf(path, [&](QFile& file, const QString& name) {
        file.setFileName(name);
        return file.open(flags);
    });
    EXPECT_EQ(ours, qts);
}

INSTANTIATE_TEST_SUITE_P(AllFlagsOfAnExistingAndAMissingFile, OpenFlagsTest,
                         testing::Combine(testing::Range(0, 256),
                                          testing::Values(kExisting, kMissing)));

INSTANTIATE_TEST_SUITE_P(FlagsBeyondQts, OpenFlagsTest,
                         testing::Combine(testing::Values(0x100, 0x101, -1, 0x7FFFFF02,
                                                          static_cast<int>(0x80000003)),
                                          testing::Values(kExisting, kMissing)));

TEST_F(RegularFileTest, NothingButARegularFileIsOpened) {
    ASSERT_EQ(::mkfifo("/root/data/fifo", 0600), 0);
    ASSERT_EQ(::mkdir("/root/data/folder", 0700), 0);
    ASSERT_EQ(::symlink("/dev/null", "/root/data/device"), 0);
    ASSERT_EQ(::symlink("/proc/self/status", "/root/data/status"), 0);
    ASSERT_EQ(::symlink("loop", "/root/data/loop"), 0);
    const int socket = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, "/root/data/socket");
    ASSERT_EQ(::bind(socket, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    for (const char* name : {"fifo", "folder", "device", "status", "loop", "socket"}) {
        for (const int flags : {0x1, 0x2, 0x3, 0x4, 0x83}) {
            QFile file;
            EXPECT_FALSE(RegularFile::open(file, "/root/data/" + QString::fromLatin1(name),
                                           QIODevice::OpenMode::fromInt(flags)))
                << name << flags;
            EXPECT_FALSE(file.isOpen());
            QFile named("/root/data/" + QString::fromLatin1(name));
            EXPECT_FALSE(RegularFile::openNamed(named, QIODevice::OpenMode::fromInt(flags)))
                << name << flags;
            EXPECT_FALSE(named.isOpen());
        }
    }
    ::close(socket);
    EXPECT_TRUE(warnings.lines().isEmpty());
}

TEST_F(RegularFileTest, AFifoIsNotOpenedEvenForAMoment) {
    ASSERT_EQ(::mkfifo("/root/data/fifo", 0600), 0);
    const int reader = ::open("/root/data/fifo", O_RDONLY | O_NONBLOCK);
    QFile file;
    EXPECT_FALSE(RegularFile::open(file, "/root/data/fifo", QIODevice::WriteOnly));
    pollfd waiting = {reader, POLLIN, 0};
    EXPECT_EQ(::poll(&waiting, 1, 0), 0) << "a writer came and went";
    ::close(reader);
}

TEST_F(RegularFileTest, ALinkToARegularFileIsOpened) {
    writeTestFile(kExisting, "abc");
    ASSERT_EQ(::symlink("existing", "/root/data/link"), 0);
    QFile file;
    ASSERT_TRUE(RegularFile::open(file, "/root/data/link", QIODevice::ReadOnly));
    EXPECT_EQ(file.readAll(), "abc");
}

TEST_F(RegularFileTest, NoDescriptorIsLeftBehindByARefusal) {
    ASSERT_EQ(::symlink("/proc/self/status", "/root/data/status"), 0);
    const int before = ::dup(0);
    ::close(before);
    QFile file;
    EXPECT_FALSE(RegularFile::open(file, "/root/data/status", QIODevice::ReadOnly));
    const int after = ::dup(0);
    ::close(after);
    EXPECT_EQ(before, after);
}

TEST_F(RegularFileTest, TheDescriptorIsClosedOnExecAndWithTheFile) {
    writeTestFile(kExisting, "abc");
    int descriptor = -1;
    {
        QFile file;
        ASSERT_TRUE(RegularFile::open(file, kExisting, QIODevice::ReadWrite));
        descriptor = file.handle();
        EXPECT_EQ(::fcntl(descriptor, F_GETFD), FD_CLOEXEC);
        EXPECT_NE(::fcntl(descriptor, F_GETFL) & O_NONBLOCK, 0);
    }
    EXPECT_EQ(::fcntl(descriptor, F_GETFD), -1);
}

TEST_F(RegularFileTest, AWriteIsInTheKernelWhenItReturns) {
    QFile file;
    ASSERT_TRUE(RegularFile::open(file, kMissing, QIODevice::WriteOnly));
    ASSERT_EQ(file.write("abc"), 3);
    EXPECT_EQ(readTestFile(kMissing), "abc");
}

TEST_F(RegularFileTest, ANamedFileKeepsItsNameAndOpensAgain) {
    QFile file(kMissing);
    EXPECT_FALSE(RegularFile::openNamed(file, QIODevice::ReadWrite | QIODevice::ExistingOnly));
    EXPECT_EQ(readTestFile(kMissing), "(missing)");
    for (const char* contents : {"a", "ab"}) {
        ASSERT_TRUE(RegularFile::openNamed(file, QIODevice::WriteOnly | QIODevice::Append));
        EXPECT_EQ(file.fileName(), kMissing);
        ASSERT_EQ(file.write(contents + file.size(), 1), 1);
        EXPECT_EQ(readTestFile(kMissing), contents) << "in the kernel";
        EXPECT_EQ(::fcntl(file.handle(), F_GETFD), FD_CLOEXEC);
        file.close();
    }
    EXPECT_TRUE(warnings.lines().isEmpty());
}

TEST_F(RegularFileTest, UnusableNamesFail) {
    QFile file;
    for (const QString& name :
         {QString(), QString(""), QString(5000, 'x'), "/root/data/" + QString(256, 'x'),
          QString("/root/data/no/file"), QString("/root/data/slash/")}) {
        EXPECT_FALSE(RegularFile::open(file, name, QIODevice::ReadWrite)) << name.toStdString();
    }
}

#include "core/UnitLock.h"

#include "bus/ForkedChild.h"
#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr char kDirectory[] = "/root/data";

/// Whether somebody holds the lock, as a stranger sees it.
bool isHeld() {
    const int descriptor = open(kDirectory, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const bool held = flock(descriptor, LOCK_EX | LOCK_NB) != 0;
    close(descriptor);
    return held;
}

class UnitLockTest : public testing::Test {
protected:
    ~UnitLockTest() override { UnitLock::release(); }

    LogCapture log;
};

TEST_F(UnitLockTest, TakingItHoldsItUntilItIsReleased) {
    EXPECT_FALSE(isHeld());
    EXPECT_TRUE(UnitLock::take(kDirectory));
    EXPECT_TRUE(isHeld());
    UnitLock::release();
    EXPECT_FALSE(isHeld());
    EXPECT_TRUE(log.lines().isEmpty());
}

TEST_F(UnitLockTest, ALockHeldByAnotherIsRefusedWithOneLine) {
    const int other = open(kDirectory, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_EQ(flock(other, LOCK_EX), 0);
    EXPECT_FALSE(UnitLock::take(kDirectory));
    EXPECT_EQ(log.lines(),
              QList<QByteArray>{"scada-storage-process: another process serves \"/root/data\""});
    close(other);
    EXPECT_TRUE(UnitLock::take(kDirectory));
}

TEST_F(UnitLockTest, AMissingDirectoryIsLoggedAndNoReasonNotToStart) {
    EXPECT_TRUE(UnitLock::take("/root/data/absent"));
    EXPECT_EQ(log.lines(),
              QList<QByteArray>{"scada-storage-process: cannot lock \"/root/data/absent\": No such "
                                "file or directory"});
}

TEST_F(UnitLockTest, AFileInTheDirectorysPlaceIsLoggedAndNoReasonNotToStart) {
    close(open("/root/data/file", O_CREAT | O_WRONLY, 0644));
    EXPECT_TRUE(UnitLock::take("/root/data/file"));
    EXPECT_EQ(log.lines().size(), 1);
    unlink("/root/data/file");
}

TEST_F(UnitLockTest, ReleasingItTwiceOrUntakenDoesNothing) {
    UnitLock::release();
    UnitLock::take(kDirectory);
    UnitLock::release();
    UnitLock::release();
    EXPECT_FALSE(isHeld());
}

/// A child that lives until its end of the pipe is closed.
class LastingChild {
public:
    explicit LastingChild(pid_t (*start)()) {
        EXPECT_EQ(pipe(_release), 0);
        EXPECT_EQ(pipe(_ready), 0);
        _pid = start();
        if (_pid == 0) {
            close(_release[1]);
            char byte = 'r';
            if (write(_ready[1], &byte, 1) == 1 && read(_release[0], &byte, 1) == 0) {
                _exit(0);
            }
            _exit(1);
        }
        char byte = 0;
        EXPECT_EQ(read(_ready[0], &byte, 1), 1);
    }
    ~LastingChild() {
        close(_release[1]);
        int status = -1;
        waitpid(_pid, &status, 0);
        EXPECT_EQ(status, 0);
        for (const int descriptor : {_release[0], _ready[0], _ready[1]}) {
            close(descriptor);
        }
    }

private:
    int _release[2];
    int _ready[2];
    pid_t _pid;
};

TEST_F(UnitLockTest, AForkedChildThatLivesOnDoesNotKeepTheLock) {
    UnitLock::take(kDirectory);
    LastingChild child(ForkedChild::start);
    EXPECT_TRUE(isHeld()) << "the fork must not cost the parent its lock";
    UnitLock::release();
    EXPECT_FALSE(isHeld());
}

TEST_F(UnitLockTest, NeitherDoesAChildOfAPlainFork) {
    UnitLock::take(kDirectory);
    LastingChild child(fork);
    UnitLock::release();
    EXPECT_FALSE(isHeld());
}

TEST_F(UnitLockTest, ASpawnedProgramDoesNotInheritTheDescriptor) {
    UnitLock::take(kDirectory);
    bool found = false;
    for (int descriptor = 3; descriptor < 256; ++descriptor) {
        struct stat opened;
        struct stat directory;
        stat(kDirectory, &directory);
        if (fstat(descriptor, &opened) != 0 || opened.st_ino != directory.st_ino ||
            opened.st_dev != directory.st_dev) {
            continue;
        }
        found = true;
        EXPECT_NE(fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0);
    }
    EXPECT_TRUE(found);
}

}  // namespace

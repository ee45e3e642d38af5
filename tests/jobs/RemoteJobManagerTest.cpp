#include "jobs/RemoteJobManager.h"

#include "tests/support/FakeBus.h"
#include "tests/support/FakeClock.h"
#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

#include <functional>
#include <new>
#include <stdexcept>

namespace {

/// Writes down its life and does in a slice what the test says.
class RecordingJob : public RemoteJob {
public:
    RecordingJob(RemoteJobManager* manager, int connection, QList<QByteArray>& record)
        : RemoteJob(manager, connection), _record(record) {}
    ~RecordingJob() override { note("deleted"); }

    void runSlice() override {
        note("slice");
        // A copy: the job may be deleted in it.
        if (const auto running = slice) {
            running(*this);
        }
    }
    void close() { _needsToClose = true; }

    std::function<void(RecordingJob&)> slice;

private:
    void note(const char* event) {
        _record.append(QByteArray::number(connectionID()) + ' ' + event);
    }

    QList<QByteArray>& _record;
};

class RemoteJobManagerTest : public testing::Test {
protected:
    RecordingJob* add(int connection) {
        auto* job = new RecordingJob(&manager, connection, record);
        manager.addJob(job);
        return job;
    }

    FakeClock clock;
    QList<QByteArray> record;
    RemoteJobManager manager;
};

TEST_F(RemoteJobManagerTest, AFreshManagerHasNoJobsAndNoActivity) {
    EXPECT_TRUE(manager.jobs().isEmpty());
    EXPECT_EQ(manager.lastActivity(), 0U);
    manager.runSlice();
    EXPECT_EQ(manager.lastActivity(), 0U);
}

TEST_F(RemoteJobManagerTest, EachJobGetsOneSliceAPassInTheOrderInWhichTheyWereAdded) {
    add(1);
    add(2);
    add(3);
    manager.runSlice();
    EXPECT_EQ(record, (QList<QByteArray>{"1 slice", "2 slice", "3 slice"}));
}

TEST_F(RemoteJobManagerTest,
       AJobThatClosesInItsFirstSliceIsDeletedInThatPassAndTheOthersGetTheirs) {
    add(1)->slice = [](RecordingJob& job) { job.close(); };
    RecordingJob* second = add(2);
    manager.runSlice();
    EXPECT_EQ(record, (QList<QByteArray>{"1 slice", "1 deleted", "2 slice"}));
    EXPECT_EQ(manager.jobs(), QList<RemoteJob*>{second});
}

TEST_F(RemoteJobManagerTest, AllJobsMayCloseInOnePass) {
    for (int connection = 1; connection <= 3; ++connection) {
        add(connection)->slice = [](RecordingJob& job) { job.close(); };
    }
    manager.runSlice();
    EXPECT_TRUE(manager.jobs().isEmpty());
    EXPECT_EQ(record.size(), 6);
}

TEST_F(RemoteJobManagerTest, TheLatestActivityIsTheNewestOfTheJobs) {
    RecordingJob* older = add(1);
    clock.tick += 100;
    RecordingJob* newer = add(2);
    manager.runSlice();
    EXPECT_EQ(manager.lastActivity(), newer->lastActivity());
    EXPECT_NE(manager.lastActivity(), older->lastActivity());
}

TEST_F(RemoteJobManagerTest, TheActivityOfAJobThatClosesCounts) {
    add(1)->slice = [this](RecordingJob& job) {
        clock.tick += 7;
        job.hadActivity();
        job.close();
    };
    manager.runSlice();
    EXPECT_EQ(manager.lastActivity(), clock.tick);
}

TEST_F(RemoteJobManagerTest, TheLatestActivityFollowsTheTicksAcrossTheirWrap) {
    clock.tick = 0x7fff'ffffU;
    RecordingJob* job = add(1);
    manager.runSlice();
    for (const quint32 tick : {0xffff'ff00U, 0x10U, 0x2000U}) {
        clock.tick = tick;
        job->hadActivity();
        manager.runSlice();
        EXPECT_EQ(manager.lastActivity(), tick);
    }
}

TEST_F(RemoteJobManagerTest, TheFirstJobAfterFortyDaysCountsAsActivity) {
    const quint32 fortyDaysMilliseconds = 40U * 24 * 3600 * 1000;
    clock.tick = fortyDaysMilliseconds;
    add(1);
    manager.runSlice();
    EXPECT_EQ(manager.lastActivity(), fortyDaysMilliseconds);
}

TEST_F(RemoteJobManagerTest, AnOlderActivityDoesNotTurnTheLatestBack) {
    RecordingJob* job = add(1);
    manager.runSlice();
    const quint32 latest = manager.lastActivity();
    clock.tick -= 1;
    job->hadActivity();
    manager.runSlice();
    EXPECT_EQ(manager.lastActivity(), latest);
}

TEST_F(RemoteJobManagerTest, ASliceThatRunsOutOfMemoryEndsItsJobAndNoOther) {
    LogCapture log;
    add(1)->slice = [](RecordingJob&) { throw std::bad_alloc(); };
    add(2);
    manager.runSlice();
    EXPECT_EQ(record, (QList<QByteArray>{"1 slice", "1 deleted", "2 slice"}));
    EXPECT_TRUE(log.contains("RemoteJob: job of connection 1 failed and ends"));
}

TEST_F(RemoteJobManagerTest, AnyExceptionEndsTheJob) {
    LogCapture log;
    add(1)->slice = [](RecordingJob&) { throw std::runtime_error("what"); };
    add(2)->slice = [](RecordingJob&) { throw 5; };
    manager.runSlice();
    EXPECT_TRUE(manager.jobs().isEmpty());
}

TEST_F(RemoteJobManagerTest, AJobAddedFromASliceGetsItsOwnInTheSamePass) {
    add(1)->slice = [this](RecordingJob& job) {
        add(2);
        job.close();
    };
    manager.runSlice();
    EXPECT_EQ(record, (QList<QByteArray>{"1 slice", "1 deleted", "2 slice"}));
}

TEST_F(RemoteJobManagerTest, ARemovedJobIsTheCallersAgain) {
    RecordingJob* first = add(1);
    add(2);
    manager.removeJob(first);
    manager.runSlice();
    EXPECT_EQ(record, QList<QByteArray>{"2 slice"});
    delete first;
}

TEST_F(RemoteJobManagerTest, RemovingAJobThatIsNotThereChangesNothing) {
    RecordingJob* job = add(1);
    RemoteJob stranger(&manager, 1);
    manager.removeJob(&stranger);
    manager.removeJob(nullptr);
    EXPECT_EQ(manager.jobs(), QList<RemoteJob*>{job});
}

TEST_F(RemoteJobManagerTest, AJobMayRemoveAndDeleteItselfInItsOwnSlice) {
    add(1);
    add(2)->slice = [this](RecordingJob& job) {
        job.close();
        manager.removeJob(&job);
        delete &job;
    };
    add(3);
    manager.runSlice();
    EXPECT_EQ(record, (QList<QByteArray>{"1 slice", "2 slice", "2 deleted", "3 slice"}));
    EXPECT_EQ(manager.jobs().size(), 2);
}

TEST_F(RemoteJobManagerTest, AJobThatRemovesItselfIsNotDeletedByTheManager) {
    RecordingJob* job = add(1);
    job->slice = [this](RecordingJob& self) {
        self.close();
        manager.removeJob(&self);
    };
    manager.runSlice();
    EXPECT_EQ(record, QList<QByteArray>{"1 slice"});
    delete job;
}

TEST_F(RemoteJobManagerTest, AJobMayRemoveAndDeleteItsNeighboursInItsSlice) {
    RecordingJob* before = add(1);
    RecordingJob* middle = add(2);
    RecordingJob* after = add(3);
    add(4);
    middle->slice = [&](RecordingJob& job) {
        for (RecordingJob* neighbour : {before, after}) {
            manager.removeJob(neighbour);
            delete neighbour;
        }
        job.slice = nullptr;
    };
    manager.runSlice();
    EXPECT_EQ(record,
              (QList<QByteArray>{"1 slice", "2 slice", "1 deleted", "3 deleted", "4 slice"}));
    manager.runSlice();
    EXPECT_EQ(record.mid(5), (QList<QByteArray>{"2 slice", "4 slice"}));
}

TEST_F(RemoteJobManagerTest, AJobThatIsDeletedAndThrowsHarmsNobody) {
    LogCapture log;
    add(1)->slice = [this](RecordingJob& job) {
        manager.removeJob(&job);
        delete &job;
        throw std::bad_alloc();
    };
    add(2);
    manager.runSlice();
    EXPECT_EQ(record, (QList<QByteArray>{"1 slice", "1 deleted", "2 slice"}));
}

TEST_F(RemoteJobManagerTest, ThereIsRoomFor8JobsOfAConnectionAnd64InAll) {
    for (int connection = 0; connection < 8; ++connection) {
        for (int job = 0; job < 8; ++job) {
            EXPECT_TRUE(manager.hasRoomFor(connection));
            add(connection);
        }
        EXPECT_FALSE(manager.hasRoomFor(connection));
    }
    EXPECT_FALSE(manager.hasRoomFor(99));
}

TEST(RemoteJobManager, ItsEndDeletesTheRemainingJobsInOrder) {
    QList<QByteArray> record;
    {
        RemoteJobManager manager;
        manager.addJob(new RecordingJob(&manager, 1, record));
        manager.addJob(new RecordingJob(&manager, 2, record));
    }
    EXPECT_EQ(record, (QList<QByteArray>{"1 deleted", "2 deleted"}));
}

TEST(RemoteJobManager, AMessageGoesToItsConnectionAndTheResultIsTrue) {
    FakeBus bus;
    RemoteJobManager manager;
    Message message;
    message.construct(0x14b0, "i", 5);
    EXPECT_TRUE(manager.sendMessage(42, message));
    const QList<FakeBus::Sent> sent = bus.takeSent();
    ASSERT_EQ(sent.size(), 1);
    EXPECT_EQ(sent[0].token, "ConnectionManager.clientMessage");
    EXPECT_EQ(sent[0].connection, 42);
    EXPECT_EQ(sent[0].message.parameterAsInt32(0), 5);
}

TEST(RemoteJobManager, SendingWithoutABusIsTrueToo) {
    RemoteJobManager manager;
    Message message;
    EXPECT_TRUE(manager.sendMessage(42, message));
}

}  // namespace

#include "filesystem/FileProtocol.h"
#include "jobs/LZFDownloadRemoteJob.h"
#include "jobs/RemoteJobManager.h"
#include "tests/filesystem/FilesystemFixture.h"
#include "tests/support/FakeBus.h"

namespace {

constexpr int kConnection = 77;

/// Of another type, which no write count concerns.
class OtherJob : public RemoteJob {
public:
    using RemoteJob::RemoteJob;
};

class DownloadRequestTest : public FilesystemFixture {
protected:
    DownloadRequestTest() {
        g_remoteManager = &manager;
        log.clear();
    }
    ~DownloadRequestTest() override { g_remoteManager = nullptr; }

    template <typename... Values>
    void request(int connection, int command, const char* format, Values... values) {
        Message message;
        ASSERT_TRUE(message.construct(command, format, values...));
        files.handleMessage(connection, &message);
    }

    void expectBareReply(int connection) {
        const QList<FakeBus::Sent> sent = bus.takeSent();
        ASSERT_EQ(sent.size(), 1);
        EXPECT_EQ(sent[0].token, "ConnectionManager.clientMessage");
        EXPECT_EQ(sent[0].connection, connection);
        EXPECT_EQ(sent[0].message.command(), 0x14B0);
        EXPECT_STREQ(sent[0].message.formatString(), "");
    }

    /// Whether a slice of the job does something: it does once it has heard of a drained queue.
    bool runs(int job) {
        log.clear();
        manager.jobs().at(job)->runSlice();
        return !log.lines().isEmpty();
    }

    FakeBus bus;
    RemoteJobManager manager;
};

TEST_F(DownloadRequestTest, ADownloadIsAJobOfItsConnectionAndNotAnsweredAtOnce) {
    request(kConnection, 0x14B0, "iS", 5, "/root/data/file");
    ASSERT_EQ(manager.jobs().size(), 1);
    EXPECT_EQ(manager.jobs()[0]->type(), "LZFDownloadRemoteJob");
    EXPECT_EQ(manager.jobs()[0]->connectionID(), kConnection);
    EXPECT_EQ(manager.jobs()[0]->jobID(), 5);
    EXPECT_EQ(log.lines(), (QList<QByteArray>{"Filesystem: MESSAGE_LZF_DOWNLOAD",
                                              "LZFDownloadRemoteJob: created"}));
    const QList<FakeBus::Sent> sent = bus.takeSent();
    ASSERT_EQ(sent.size(), 1);
    EXPECT_EQ(sent[0].token, "ConnectionManager.to");
}

TEST_F(DownloadRequestTest, AnotherFormatIsLoggedAndGetsABareReply) {
    const QList<QByteArray> expected = {"Filesystem: MESSAGE_LZF_DOWNLOAD",
                                        "Filesystem: MESSAGE_LZF_DOWNLOAD bad args"};
    const auto expectRefused = [&] {
        expectBareReply(kConnection);
        EXPECT_EQ(log.lines(), expected);
        log.clear();
    };
    request(kConnection, 0x14B0, "");
    expectRefused();
    request(kConnection, 0x14B0, "i", 1);
    expectRefused();
    request(kConnection, 0x14B0, "Si", "/a", 1);
    expectRefused();
    request(kConnection, 0x14B0, "iSi", 1, "/a", 1);
    expectRefused();
    EXPECT_TRUE(manager.jobs().isEmpty());
}

TEST_F(DownloadRequestTest, TheNinthJobOfAConnectionGetsABareReply) {
    for (int i = 0; i < 8; ++i) {
        request(kConnection, 0x14B0, "iS", i, "/a");
    }
    bus.takeSent();
    request(kConnection, 0x14B0, "iS", 8, "/a");
    expectBareReply(kConnection);
    EXPECT_EQ(manager.jobs().size(), 8);
    EXPECT_TRUE(log.contains("Filesystem: MESSAGE_LZF_DOWNLOAD refused, connection 77"));
    request(kConnection + 1, 0x14B0, "iS", 8, "/a");
    EXPECT_EQ(manager.jobs().size(), 9);
}

TEST_F(DownloadRequestTest, The65thJobGetsABareReply) {
    for (int i = 0; i < 64; ++i) {
        request(i, 0x14B0, "iS", 1, "/a");
    }
    bus.takeSent();
    request(kConnection, 0x14B0, "iS", 1, "/a");
    expectBareReply(kConnection);
    EXPECT_EQ(manager.jobs().size(), 64);
}

TEST_F(DownloadRequestTest, ARequestOf4MiBIsAJobAndOneByteMoreIsNot) {
    const QByteArray longest(4 * 1024 * 1024, '\n');
    request(kConnection, 0x14B0, "iS", 1, longest.constData());
    EXPECT_EQ(manager.jobs().size(), 1);
    bus.takeSent();
    request(kConnection, 0x14B0, "iS", 2, (longest + '\n').constData());
    expectBareReply(kConnection);
    EXPECT_EQ(manager.jobs().size(), 1);
}

TEST_F(DownloadRequestTest, AWriteCountReachesEveryDownloadOfItsConnectionAndNoOther) {
    request(1, 0x14B0, "iS", 1, "\n\n");
    request(2, 0x14B0, "iS", 1, "\n\n");
    request(1, 0x14B0, "iS", 2, "\n\n");
    request(99, 80, "ii", 1, 0);
    EXPECT_TRUE(runs(0));
    EXPECT_FALSE(runs(1));
    EXPECT_TRUE(runs(2));
    request(99, 80, "ii", 1, 90113);
    EXPECT_FALSE(runs(0));
    EXPECT_FALSE(runs(2));
}

TEST_F(DownloadRequestTest, AWriteCountPassesByJobsOfAnotherType) {
    manager.addJob(new OtherJob(&manager, 1));
    request(1, 0x14B0, "iS", 1, "\n\n");
    request(0, 80, "ii", 1, 0);
    EXPECT_TRUE(runs(1));
}

TEST_F(DownloadRequestTest, AWriteCountWithoutADownloadDoesNothingAndSendsNothing) {
    request(0, 80, "ii", 1, 0);
    request(0, 80, "");
    g_remoteManager = nullptr;
    request(0, 80, "ii", 1, 0);
    EXPECT_TRUE(bus.takeSent().isEmpty());
    EXPECT_TRUE(log.lines().isEmpty());
}

TEST_F(DownloadRequestTest, TheFormatOfAWriteCountIsNotCheckedAndWhatIsMissingIs0) {
    request(0, 0x14B0, "iS", 1, "\n\n");
    request(1, 80, "SS", "one", "two");
    EXPECT_TRUE(runs(0));
    request(0, 80, "iii", 0, 90113, 5);
    EXPECT_FALSE(runs(0));
    request(1, 80, "");
    EXPECT_TRUE(runs(0));
}

TEST_F(DownloadRequestTest, Code0x14B1IsDroppedWithoutALineOrAReply) {
    request(kConnection, 0x14B1, "iS", 1, "/a");
    request(kConnection, 0x14B1, "");
    EXPECT_TRUE(bus.takeSent().isEmpty());
    EXPECT_TRUE(log.lines().isEmpty());
    EXPECT_TRUE(manager.jobs().isEmpty());
}

}  // namespace

#include "tests/filesystem/FilesystemFixture.h"
#include "tests/support/FakeBus.h"

#include <QDir>

#include <sys/wait.h>

namespace {

class ListingRequestTest : public FilesystemFixture {
protected:
    static constexpr int kRequest = 0x14A0;

    ListingRequestTest() { log.clear(); }  // of the bus having connected

    void SetUp() override {
        FilesystemFixture::SetUp();
        writeTestFile("/root/data/user1/a", "12345");
    }

    /// Returns when the child has ended.
    QList<FakeBus::Sent> sentFor(Message& request) {
        files.handleMessage(77, &request);
        int status = -1;
        EXPECT_GT(::wait(&status), 0);
        EXPECT_EQ(status, 0);
        EXPECT_LT(::wait(&status), 0) << "one child a request";
        return bus.takeSent();
    }

    FakeBus bus;
};

}  // namespace

TEST_F(ListingRequestTest, MakesAListingOfTheRootForTheFolder) {
    Message request;
    ASSERT_TRUE(request.construct(kRequest, "SS", "user1", "/root/data/user1"));
    EXPECT_TRUE(sentFor(request).isEmpty()) << "the child answers";
    const QByteArray listing = readTestFile("/root/data/user1/.files..root.data.user1");
    EXPECT_TRUE(listing.startsWith("5,") && listing.endsWith(",/root/data/user1/a\n"));
    EXPECT_TRUE(log.lines().isEmpty());
}

TEST_F(ListingRequestTest, ParametersBeyondTheSecondAreNotLookedAt) {
    Message request;
    ASSERT_TRUE(request.construct(kRequest, "SSi", "user1", "/root/data/user1", 3));
    EXPECT_TRUE(sentFor(request).isEmpty());
    EXPECT_NE(readTestFile("/root/data/user1/.files..root.data.user1"), "(missing)");
}

TEST_F(ListingRequestTest, ParametersThatAreMissingReadAsEmptyNames) {
    Message none;
    ASSERT_TRUE(none.construct(kRequest, ""));
    Message numbers;
    ASSERT_TRUE(numbers.construct(kRequest, "ii", 1, 2));
    for (Message* const request : {&none, &numbers}) {
        const QList<FakeBus::Sent> sent = sentFor(*request);
        ASSERT_EQ(sent.size(), 1);
        EXPECT_EQ(sent[0].token, "Notification.add");
        EXPECT_STREQ(sent[0].message.parameterAsString(4), "Generating file listings for ");
    }
    EXPECT_EQ(QDir("/root/data").entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
              QStringList{"user1"});
}

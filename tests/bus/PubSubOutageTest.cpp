#include "bus/ForkedChild.h"
#include "tests/bus/PubSubFixture.h"

#include <sys/wait.h>
#include <unistd.h>

namespace {

using Subscriptions = QList<QByteArray>;

class PubSubOutageTest : public PubSubFixture {
protected:
    void loseBroker() { transport->setBrokerPresent(false); }
    void bringBackBroker() { transport->setBrokerPresent(true); }
    void joinWithoutBroker() {
        loseBroker();
        ASSERT_TRUE(join());
    }
};

TEST_F(PubSubOutageTest, JoiningWithoutABrokerSucceedsAndIsLoggedOnce) {
    joinWithoutBroker();
    EXPECT_FALSE(bus->isConnected());
    EXPECT_EQ(log.lines().size(), 1);
    bus->readWaitingMessages(25'000);
    EXPECT_EQ(log.lines().size(), 1);
    EXPECT_EQ(bus->lostConnections(), 0U) << "what never stood cannot be lost";
}

TEST_F(PubSubOutageTest, AWaitWithoutABrokerLastsItsWholeTime) {
    joinWithoutBroker();
    for (const int milliseconds : {1, 50, 10'000}) {
        const quint32 start = clock.tick;
        bus->readWaitingMessages(milliseconds);
        EXPECT_EQ(clock.tick - start, quint32(milliseconds));
    }
}

TEST_F(PubSubOutageTest, TheBrokerIsTriedAtOnceAndThenAtGrowingIntervalsBelowASecond) {
    ASSERT_TRUE(join());
    clock.tick += 60'000;
    QList<quint32> attempts;
    int before = transport->connects();
    transport->onWait = [&](int milliseconds) {
        if (transport->connects() != before) {
            before = transport->connects();
            attempts.append(clock.tick);
        }
        passTime(milliseconds);
    };
    loseBroker();
    const quint32 start = clock.tick;
    bus->readWaitingMessages(4'000);
    ASSERT_GE(attempts.size(), 7);
    QList<quint32> since;
    for (const quint32 attempt : std::as_const(attempts)) {
        since.append(attempt - start);
    }
    EXPECT_EQ(since.first(7), (QList<quint32>{0, 50, 150, 350, 750, 1'550, 2'350}));
}

TEST_F(PubSubOutageTest, WithinASecondOfTheBrokerItIsBackAndSubscribed) {
    ASSERT_TRUE(join());
    bus->addWantedToken("a");
    bus->addWantedToken("b.c");
    for (const int away : {0, 10, 1'000, 60'000}) {
        loseBroker();
        bus->readWaitingMessages(away);
        EXPECT_EQ(transport->subscriptions(), Subscriptions{});
        bringBackBroker();
        bus->readWaitingMessages(1'000);
        EXPECT_TRUE(bus->isConnected()) << away;
        EXPECT_EQ(transport->subscriptions(), (Subscriptions{"a", "b/c"})) << away;
    }
}

TEST_F(PubSubOutageTest, TokensWantedAndUnwantedWithoutABrokerAreRightAfterwards) {
    ASSERT_TRUE(join());
    bus->addWantedToken("a");
    loseBroker();
    bus->readWaitingMessages(10);
    bus->removeWantedToken("a");
    bus->addWantedToken("b");
    bus->addWantedToken("b");
    bus->removeWantedToken("b");
    bringBackBroker();
    bus->readWaitingMessages(1'000);
    EXPECT_EQ(transport->subscriptions(), Subscriptions{"b"});
}

TEST_F(PubSubOutageTest, EverythingIsWantedAgainAfterALoss) {
    joinWithoutBroker();
    bus->wantEverything();
    bringBackBroker();
    bus->readWaitingMessages(1'000);
    EXPECT_EQ(transport->subscriptions(), Subscriptions{"#"});
}

TEST_F(PubSubOutageTest, WhatIsSentMeanwhileIsDroppedCountedAndLoggedOnce) {
    ASSERT_TRUE(join());
    loseBroker();
    log.clear();
    for (int i = 0; i < 23; ++i) {
        EXPECT_FALSE(bus->sendToken("t", "x", 1));
    }
    EXPECT_EQ(log.lines().size(), 1) << "the loss";
    bringBackBroker();
    bus->readWaitingMessages(1'000);
    EXPECT_TRUE(transport->sent.isEmpty());
    EXPECT_EQ(log.lines().size(), 3);
    EXPECT_EQ(log.count("PubSubInterface: 23 messages were dropped while there was no connection"),
              1);
    loseBroker();
    bus->readWaitingMessages(10);
    bringBackBroker();
    bus->readWaitingMessages(1'000);
    EXPECT_EQ(log.lines().size(), 5) << "nothing was dropped in the second outage";
}

TEST_F(PubSubOutageTest, EachChangeOfStateIsOneLogLine) {
    ASSERT_TRUE(join());
    EXPECT_EQ(log.lines().size(), 1);
    for (int i = 0; i < 5; ++i) {
        log.clear();
        loseBroker();
        bus->readWaitingMessages(25'000);
        EXPECT_EQ(log.lines().size(), 1);
        bringBackBroker();
        bus->readWaitingMessages(25'000);
        EXPECT_EQ(log.lines().size(), 2);
    }
}

TEST_F(PubSubOutageTest, AChildThatLosesTheBrokerSaysSoAndThatItIsBack) {
    ASSERT_TRUE(join());
    log.clear();
    const pid_t child = ForkedChild::start();
    if (child == 0) {
        const bool quiet = bus->rejoin() && log.lines().isEmpty();
        loseBroker();
        bus->readWaitingMessages(25'000);
        const bool lost = log.lines().size() == 1;
        bringBackBroker();
        bus->readWaitingMessages(25'000);
        const bool back = log.lines().size() == 2 && log.lines().last().contains("connected to");
        _exit(quiet && lost && back ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
}

TEST_F(PubSubOutageTest, EachLostConnectionIsCounted) {
    ASSERT_TRUE(join());
    EXPECT_EQ(bus->lostConnections(), 0U);
    for (unsigned i = 1; i <= 3; ++i) {
        loseBroker();
        bus->readWaitingMessages(5'000);
        EXPECT_EQ(bus->lostConnections(), i);
        bringBackBroker();
        bus->readWaitingMessages(1'000);
        EXPECT_EQ(bus->lostConnections(), i);
    }
}

TEST_F(PubSubOutageTest, ASendNoticesTheLossBeforeTheNextWait) {
    ASSERT_TRUE(join());
    loseBroker();
    EXPECT_FALSE(bus->sendToken("t", "x", 1));
    EXPECT_EQ(bus->lostConnections(), 1U);
    EXPECT_FALSE(bus->isConnected());
}

TEST_F(PubSubOutageTest, ALossThatIsOverBeforeTheNextWaitIsCountedToo) {
    ASSERT_TRUE(join());
    bus->addWantedToken("a");
    clock.tick += 5'000;
    loseBroker();
    bringBackBroker();
    bus->readWaitingMessages(100);
    EXPECT_EQ(bus->lostConnections(), 1U);
    EXPECT_TRUE(bus->isConnected());
    EXPECT_EQ(transport->subscriptions(), Subscriptions{"a"});
}

TEST_F(PubSubOutageTest, ABrokerThatDropsEachNewConnectionIsNotTriedInAHotLoop) {
    ASSERT_TRUE(join());
    transport->onWait = [this](int milliseconds) {
        passTime(std::min(milliseconds, 5));
        loseBroker();
        bringBackBroker();
    };
    const quint32 start = clock.tick;
    const int before = transport->connects();
    while (clock.tick - start < 20'000) {
        bus->readWaitingMessages(1'000);
    }
    EXPECT_LE(transport->connects() - before, 30);
    EXPECT_GE(transport->connects() - before, 20);
}

TEST_F(PubSubOutageTest, WhoNeverWaitsComesBackAllTheSame) {
    ASSERT_TRUE(join());
    bus->addWantedToken("a");
    loseBroker();
    EXPECT_EQ(bus->takeInArrived(), 0);
    EXPECT_EQ(bus->lostConnections(), 1U);
    bringBackBroker();
    clock.tick += 1'000;
    bus->takeInArrived();
    EXPECT_TRUE(bus->isConnected());
    EXPECT_EQ(transport->subscriptions(), Subscriptions{"a"});
    EXPECT_TRUE(transport->waits.isEmpty());
}

TEST_F(PubSubOutageTest, AwaitingSubscriptionsWithoutABrokerFailsAtOnce) {
    joinWithoutBroker();
    EXPECT_FALSE(bus->awaitSubscriptions(5'000));
    EXPECT_TRUE(transport->waits.isEmpty());
}

TEST_F(PubSubOutageTest, ForkingWithoutABrokerDoesNotWait) {
    joinWithoutBroker();
    const quint32 start = clock.tick;
    bus->enterSafeToFork();
    bus->leaveSafeToFork();
    EXPECT_EQ(clock.tick, start);
}

/// A broker that confirms a subscription only when waited for, and delivers before it does.
class SlowToConfirm : public FakeTransport {
public:
    int pending = 0;

    void subscribe(const std::string& topic) override {
        FakeTransport::subscribe(topic);
        ++pending;
    }
    int subscriptionsPending() const override { return pending; }
};

class HeldBackTest : public PubSubFixture {
protected:
    HeldBackTest() {
        auto made = std::make_unique<SlowToConfirm>();
        slow = made.get();
        transport = made.get();
        bus = std::make_unique<PubSubInterface>(nullptr, std::move(made));
    }

    SlowToConfirm* slow = nullptr;
};

TEST_F(HeldBackTest, WhatIsDeliveredWhileSubscriptionsAreAwaitedComesFirstInTheNextWait) {
    ASSERT_TRUE(join());
    bus->addWantedToken("a");
    bus->addWantedToken("b");
    int waits = 0;
    transport->onWait = [&](int) {
        passTime(10);
        transport->deliver("a", QByteArray::number(waits));
        slow->pending = ++waits < 3 ? slow->pending : 0;
    };
    EXPECT_TRUE(bus->awaitSubscriptions(5'000));
    EXPECT_TRUE(deliveries.isEmpty());
    transport->deliver("b", "behind");
    transport->waits.clear();
    bus->removeWantedToken("none");
    bus->readWaitingMessages(25'000);
    EXPECT_EQ(payloads(), (QList<QByteArray>{"0", "1", "2", "behind"}));
    EXPECT_TRUE(transport->waits.isEmpty());
}

TEST_F(HeldBackTest, AHeldBackDeliveryOfATokenNoLongerWantedIsDropped) {
    ASSERT_TRUE(join());
    bus->addWantedToken("a");
    bus->addWantedToken("b");
    transport->onWait = [this](int) {
        passTime(10);
        transport->deliver("a", "1");
        slow->pending = 0;
    };
    EXPECT_TRUE(bus->awaitSubscriptions(5'000));
    bus->removeWantedToken("a");
    transport->onWait = [this](int milliseconds) { passTime(milliseconds); };
    bus->readWaitingMessages(100);
    EXPECT_TRUE(deliveries.isEmpty());
}

TEST_F(HeldBackTest, ASubscriptionThatIsNeverConfirmedEndsWithTheTime) {
    ASSERT_TRUE(join());
    bus->addWantedToken("a");
    transport->onWait = [this](int milliseconds) { passTime(milliseconds); };
    const quint32 start = clock.tick;
    EXPECT_FALSE(bus->awaitSubscriptions(5'000));
    EXPECT_EQ(clock.tick - start, 5'000U);
}

}  // namespace

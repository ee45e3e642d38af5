#include "tests/bus/PubSubFixture.h"

namespace {

using Payloads = QList<QByteArray>;
using Subscriptions = QList<QByteArray>;

constexpr int kMebibyte = 1024 * 1024;

class PubSubInterfaceTest : public PubSubFixture {
protected:
    void SetUp() override {
        ASSERT_TRUE(join());
        ASSERT_TRUE(bus->addWantedToken("a"));
        transport->waits.clear();
    }
};

TEST_F(PubSubInterfaceTest, AWaitReturnsAtOnceAfterADelivery) {
    transport->onWait = [this](int) {
        passTime(3);
        transport->deliver("a", "x");
    };
    bus->readWaitingMessages(25'000);
    EXPECT_EQ(payloads(), Payloads{"x"});
    EXPECT_EQ(transport->waits, QList<int>{25'000});
}

TEST_F(PubSubInterfaceTest, AWaitWithNothingToDeliverLastsItsWholeTime) {
    for (const int milliseconds : {0, 1, 50, 25'000}) {
        transport->waits.clear();
        const quint32 start = clock.tick;
        bus->readWaitingMessages(milliseconds);
        EXPECT_EQ(clock.tick - start, quint32(milliseconds));
        EXPECT_EQ(transport->waits, QList<int>{milliseconds});
    }
}

TEST_F(PubSubInterfaceTest, ANegativeWaitIsNoEndlessOne) {
    bus->readWaitingMessages(-1);
    EXPECT_EQ(transport->waits, QList<int>{0});
}

TEST_F(PubSubInterfaceTest, ALongWaitLooksAfterTheConnectionOnceAMinute) {
    bus->readWaitingMessages(150'000);
    EXPECT_EQ(transport->waits, (QList<int>{60'000, 60'000, 30'000}));
}

TEST_F(PubSubInterfaceTest, AWaitGoesOnAcrossTheWrapOfTheTicks) {
    clock.tick = 0xffff'fff0U;
    bus->readWaitingMessages(1'000);
    EXPECT_EQ(clock.tick, 0xffff'fff0U + 1'000U);
}

TEST_F(PubSubInterfaceTest, AWakeUpEndsTheNextWaitAndOnlyThatOne) {
    PubSubInterface::wake();
    PubSubInterface::wake();
    bus->readWaitingMessages(25'000);
    EXPECT_TRUE(transport->waits.isEmpty());
    bus->readWaitingMessages(25'000);
    EXPECT_EQ(transport->waits, QList<int>{25'000});
}

TEST_F(PubSubInterfaceTest, AWakenedWaitTakesInWhatHasArrived) {
    transport->deliver("a", "x");
    PubSubInterface::wake();
    bus->readWaitingMessages(25'000);
    EXPECT_EQ(payloads(), Payloads{"x"});
}

TEST_F(PubSubInterfaceTest, ASkippedWaitTakesInWhatHasArrivedAndIsOnlyTheNext) {
    bus->skipNextWait();
    bus->skipNextWait();
    bus->readWaitingMessages(25'000);
    transport->deliver("a", "x");
    bus->skipNextWait();
    bus->readWaitingMessages(25'000);
    EXPECT_EQ(payloads(), Payloads{"x"});
    bus->readWaitingMessages(25'000);
    EXPECT_EQ(transport->waits, (QList<int>{0, 0, 25'000}));
}

TEST_F(PubSubInterfaceTest, AWakeUpInsideTheWaitEndsIt) {
    transport->onWait = [this](int) {
        passTime(10);
        PubSubInterface::wake();
    };
    bus->readWaitingMessages(25'000);
    EXPECT_EQ(transport->waits, QList<int>{25'000});
}

TEST_F(PubSubInterfaceTest, EverythingThatHasArrivedIsHandedOverInOrder) {
    bus->addWantedToken("b");
    transport->deliver("a", "1");
    transport->deliver("b", "2");
    transport->deliver("a", "3");
    bus->readWaitingMessages(25'000);
    EXPECT_EQ(deliveries, (QList<Delivery>{{"a", "1"}, {"b", "2"}, {"a", "3"}}));
}

TEST_F(PubSubInterfaceTest, AnEmptyPayloadIsADelivery) {
    transport->deliver("a", "");
    bus->readWaitingMessages(25'000);
    EXPECT_EQ(deliveries, (QList<Delivery>{{"a", ""}}));
}

TEST_F(PubSubInterfaceTest, OneWaitTakesInAtMost1024Deliveries) {
    for (int i = 0; i < 2'500; ++i) {
        transport->deliver("a", QByteArray::number(i));
    }
    for (const qsizetype expected : {1'024, 2'048, 2'500}) {
        bus->readWaitingMessages(25'000);
        EXPECT_EQ(deliveries.size(), expected);
    }
    for (int i = 0; i < 2'500; ++i) {
        ASSERT_EQ(deliveries.at(i).payload, QByteArray::number(i));
    }
}

TEST_F(PubSubInterfaceTest, OneWaitTakesInAtMost4MiBAndTheDeliveryThatReachesThem) {
    for (int i = 0; i < 10; ++i) {
        transport->deliver("a", QByteArray(kMebibyte, 'x'));
    }
    for (const qsizetype expected : {4, 8, 10}) {
        bus->readWaitingMessages(25'000);
        EXPECT_EQ(deliveries.size(), expected);
    }
}

TEST_F(PubSubInterfaceTest, ADeliveryAbove4MiBIsHandedOverWhole) {
    transport->deliver("a", QByteArray(20 * kMebibyte, 'x'));
    bus->readWaitingMessages(25'000);
    ASSERT_EQ(deliveries.size(), 1);
    EXPECT_EQ(deliveries.first().payload.size(), 20 * kMebibyte);
}

TEST_F(PubSubInterfaceTest, TheCallbackIsCalledFromTheWaitOnly) {
    transport->deliver("a", "x");
    bus->sendToken("b", "y", 1);
    bus->addWantedToken("c");
    bus->removeWantedToken("c");
    bus->enterSafeToFork();
    bus->leaveSafeToFork();
    bus->awaitSubscriptions(1'000);
    EXPECT_TRUE(deliveries.isEmpty());
    bus->readWaitingMessages(0);
    EXPECT_EQ(payloads(), Payloads{"x"});
}

TEST_F(PubSubInterfaceTest, TakeInArrivedHandsOverWithoutWaitingAndCounts) {
    EXPECT_EQ(bus->takeInArrived(), 0);
    transport->deliver("a", "1");
    transport->deliver("a", "2");
    EXPECT_EQ(bus->takeInArrived(), 2);
    EXPECT_EQ(payloads(), (Payloads{"1", "2"}));
    EXPECT_TRUE(transport->waits.isEmpty());
}

TEST_F(PubSubInterfaceTest, TakeInArrivedWritesWhatIsQueued) {
    transport->brokerReads = false;
    ASSERT_TRUE(bus->sendToken("b", "x", 1));
    transport->brokerReads = true;
    bus->takeInArrived();
    EXPECT_EQ(transport->bytesWaiting(), 0U);
}

TEST_F(PubSubInterfaceTest, TheCallbackMaySendAndChangeItsWishes) {
    onDelivery = [this] {
        bus->sendToken("answer", "y", 1);
        bus->removeWantedToken("a");
        bus->addWantedToken("b");
    };
    transport->deliver("a", "1");
    transport->deliver("a", "2");
    bus->readWaitingMessages(25'000);
    EXPECT_EQ(payloads(), Payloads{"1"}) << "the second was not wanted any more when its turn came";
    EXPECT_EQ(transport->sent.size(), 1);
    EXPECT_EQ(transport->subscriptions(), Subscriptions{"b"});
}

TEST_F(PubSubInterfaceTest, ADeliveryOfATokenNoLongerWantedIsDropped) {
    bus->addWantedToken("b");
    transport->deliver("a", "x");
    bus->removeWantedToken("a");
    transport->deliver("b", "y");
    bus->readWaitingMessages(25'000);
    EXPECT_EQ(payloads(), Payloads{"y"});
}

TEST_F(PubSubInterfaceTest, WantedTokensAreCounted) {
    bus->addWantedToken("b");
    bus->addWantedToken("b");
    EXPECT_EQ(transport->subscriptions(), (Subscriptions{"a", "b"}));
    bus->removeWantedToken("b");
    EXPECT_EQ(transport->subscriptions(), (Subscriptions{"a", "b"}));
    EXPECT_GE(bus->findToken("b"), 0);
    bus->removeWantedToken("b");
    EXPECT_EQ(transport->subscriptions(), Subscriptions{"a"});
    EXPECT_EQ(bus->findToken("b"), -1);
    bus->removeWantedToken("b");
    EXPECT_EQ(transport->subscriptions(), Subscriptions{"a"});
}

TEST_F(PubSubInterfaceTest, ATokensNumberAndNameLeadToEachOther) {
    const int id = bus->findToken("a");
    EXPECT_EQ(bus->tokenName(id), "a");
    EXPECT_EQ(bus->tokenName(id + 1), "");
    EXPECT_EQ(bus->findToken("nobody"), -1);
}

TEST_F(PubSubInterfaceTest, ANameThatCannotBeATokenIsRefusedWithALogLine) {
    for (const QByteArray& name : {QByteArray(), QByteArray("a/b"), QByteArray("+"),
                                   QByteArray("a#"), QByteArray("a\0", 2)}) {
        log.clear();
        EXPECT_FALSE(bus->addWantedToken(name));
        EXPECT_EQ(log.lines().size(), 1);
        EXPECT_FALSE(bus->sendToken(name, "x", 1));
        EXPECT_EQ(log.lines().size(), 2);
    }
    EXPECT_EQ(transport->subscriptions(), Subscriptions{"a"});
    EXPECT_TRUE(transport->sent.isEmpty());
}

TEST_F(PubSubInterfaceTest, ASendIsTheTokensTopicAndTheBytes) {
    EXPECT_TRUE(bus->sendToken("ConnectionManager.to", "a\0b", 3));
    Message message;
    message.construct(221, "i", 1);
    EXPECT_TRUE(bus->sendTokenMessage("x", message));
    ASSERT_EQ(transport->sent.size(), 2);
    EXPECT_EQ(transport->sent.at(0).token, "ConnectionManager.to");
    EXPECT_EQ(transport->sent.at(0).payload, QByteArray("a\0b", 3));
    EXPECT_EQ(transport->sent.at(1).payload, QByteArray::fromHex("dd000000 6900 01000000"));
}

TEST_F(PubSubInterfaceTest, EachSendGoesToItsOwnTokenWhateverTheLastOneWas) {
    const QList<QByteArray> tokens = {"w.1", "w.2", "w.2", "w.1", "w.12", "w.1", "w"};
    for (const QByteArray& token : tokens) {
        EXPECT_TRUE(bus->sendToken(token, "x", 1));
        EXPECT_FALSE(bus->sendToken("w/2", "x", 1));
    }
    ASSERT_EQ(transport->sent.size(), tokens.size());
    for (qsizetype i = 0; i < tokens.size(); ++i) {
        EXPECT_EQ(transport->sent.at(i).token, tokens.at(i));
    }
}

TEST_F(PubSubInterfaceTest, TheLargestPayloadIs256MiBMinusTheOverhead) {
    // 256 MiB - 1 is MQTT's longest packet; 2 bytes are the topic's length and 1 the topic.
    constexpr int kLargest = 256 * kMebibyte - 1 - 2 - 1;
    const QByteArray bytes(kLargest + 1, 0);
    log.clear();
    EXPECT_FALSE(bus->sendToken("t", bytes.constData(), kLargest + 1));
    EXPECT_EQ(log.lines().size(), 1);
    EXPECT_FALSE(bus->sendToken("tt", bytes.constData(), kLargest));
    EXPECT_FALSE(bus->sendToken("t", bytes.constData(), -1));
    EXPECT_TRUE(transport->sent.isEmpty());
    EXPECT_TRUE(bus->sendToken("t", bytes.constData(), kLargest));
    EXPECT_TRUE(bus->isConnected());
}

TEST_F(PubSubInterfaceTest, ASendGoesOnUpToAMebibyteWaiting) {
    transport->brokerReads = false;
    transport->onWrite = [](int) { FAIL() << "it waited"; };
    for (int i = 0; i < 16; ++i) {
        EXPECT_TRUE(bus->sendToken("t", QByteArray(65'535, 'x').constData(), 65'535));
    }
    EXPECT_EQ(transport->bytesWaiting(), std::size_t(kMebibyte));
    EXPECT_TRUE(bus->sendToken("t", "x", 1));
    transport->onWrite = nullptr;
}

TEST_F(PubSubInterfaceTest, ASendWaitsWhileMoreThanAMebibyteWaitsUntilTheBrokerReads) {
    transport->brokerReads = false;
    const QByteArray bytes(kMebibyte, 'x');
    ASSERT_TRUE(bus->sendToken("t", bytes.constData(), kMebibyte));
    int writes = 0;
    transport->onWrite = [&](int) {
        ++writes;
        transport->brokerReads = true;
    };
    transport->deliver("a", "not read by a send");
    EXPECT_TRUE(bus->sendToken("t", "x", 1));
    EXPECT_EQ(writes, 1);
    EXPECT_EQ(transport->sent.size(), 2);
    EXPECT_TRUE(deliveries.isEmpty());
}

TEST_F(PubSubInterfaceTest, ABrokerThatTakesNothingIsGivenUpAndTriedAgain) {
    transport->brokerReads = false;
    const QByteArray bytes(2 * kMebibyte, 'x');
    ASSERT_TRUE(bus->sendToken("t", bytes.constData(), 2 * kMebibyte));
    int waited = 0;
    transport->onWrite = [&](int milliseconds) { waited += milliseconds; };
    log.clear();
    EXPECT_FALSE(bus->sendToken("t", "x", 1));
    EXPECT_EQ(waited, 30'000);
    EXPECT_EQ(bus->lostConnections(), 1U);
    EXPECT_EQ(log.lines().size(), 1);
    transport->onWrite = nullptr;
    transport->brokerReads = true;
    clock.tick += 1'000;
    bus->readWaitingMessages(0);
    EXPECT_TRUE(bus->isConnected());
    EXPECT_TRUE(bus->sendToken("t", "x", 1));
}

TEST_F(PubSubInterfaceTest, EverythingBelowThePrefixCanBeWanted) {
    bus->wantEverything();
    transport->deliver("x.y", "1");
    transport->deliver("z", "2");
    bus->readWaitingMessages(25'000);
    EXPECT_EQ(deliveries, (QList<Delivery>{{"x.y", "1"}, {"z", "2"}}));
}

TEST_F(PubSubInterfaceTest, EverythingOneStepBelowANameCanBeWanted) {
    bus->wantBranch("x.y");
    transport->deliver("x.y.1", "1");
    transport->deliver("x.y", "2");
    transport->deliver("x.y.1.2", "3");
    transport->deliver("x.z.1", "4");
    transport->deliver("x.y.2", "5");
    bus->readWaitingMessages(25'000);
    EXPECT_EQ(deliveries, (QList<Delivery>{{"x.y.1", "1"}, {"x.y.2", "5"}}));
}

TEST_F(PubSubInterfaceTest, LeavingHandsOverWhatIsQueued) {
    transport->brokerReads = false;
    bus->sendToken("t", "last", 4);
    int writes = 0;
    transport->onWrite = [&](int) {
        ++writes;
        transport->brokerReads = true;
    };
    bus.reset();
    EXPECT_EQ(writes, 1);
}

TEST_F(PubSubInterfaceTest, TheInstanceIsTheLivingOne) {
    EXPECT_EQ(PubSubInterface::instance(), bus.get());
    bus.reset();
    EXPECT_EQ(PubSubInterface::instance(), nullptr);
}

TEST(PubSubInterfaceEnvironmentTest, AValueThatCannotBeUsedIsOneLogLineAndNoJoin) {
    const LogCapture log;
    setenv("SCADA_BUS_URL", "mqtt://broker:0", 1);
    PubSubInterface bus(nullptr);
    EXPECT_FALSE(bus.initialize("test", nullptr, nullptr, 0, 0, 0, IOPriority::Unchanged));
    unsetenv("SCADA_BUS_URL");
    ASSERT_EQ(log.lines().size(), 1);
    EXPECT_TRUE(log.lines().first().contains("SCADA_BUS_URL")) << log.lines().first().constData();
}

}  // namespace

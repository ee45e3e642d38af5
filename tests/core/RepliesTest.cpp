#include "core/shared/Replies.h"

#include "tests/support/FakeBus.h"
#include "tests/support/FakeClock.h"
#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

/// A message whose flat form has exactly `length` bytes: command (4), "B" and its NUL (2), block
/// length (4), block.
Message messageOfLength(int length) {
    QByteArray block(length - 10, '\0');
    for (qsizetype i = 0; i < block.size(); ++i) {
        block[i] = static_cast<char>(i * 7);
    }
    Message message;
    message.construct(0x1402, "B", static_cast<int>(block.size()), block.constData());
    return message;
}

class ReplyLength : public testing::TestWithParam<int> {};

TEST_P(ReplyLength, FrameIsTheConnectionInFourBytesThenTheMessage) {
    FakeBus bus;
    Message message = messageOfLength(GetParam());
    ASSERT_EQ(message.length(), GetParam());
    sendMessageToConnection(0x01020304, &message);
    ASSERT_EQ(bus.transport().sent.size(), 1);
    const FakeTransport::Sent& sent = bus.transport().sent.first();
    EXPECT_EQ(sent.token, "ConnectionManager.clientMessage");
    // The id, little-endian.
    EXPECT_EQ(sent.payload.left(4), QByteArray::fromHex("04030201"));
    EXPECT_EQ(sent.payload.mid(4), QByteArray(message.buffer(), message.length()));
}

INSTANTIATE_TEST_SUITE_P(AroundTheStackBuffer, ReplyLength,
                         testing::Values(10, 763, 764, 765, 768, 769, 100'000));

TEST(Replies, ABareReplyHasTheCommandAndNoParameters) {
    FakeBus bus;
    sendMessageToConnection(7, 0x1401);
    ASSERT_EQ(bus.transport().sent.size(), 1);
    // Connection 7, command 0x1401, format "".
    EXPECT_EQ(bus.transport().sent.first().payload, QByteArray::fromHex("07000000 01140000 00"));
}

TEST(Replies, ANegativeConnectionIsFramedAsItStands) {
    FakeBus bus;
    sendMessageToConnection(-2, 0x1401);
    ASSERT_EQ(bus.transport().sent.size(), 1);
    EXPECT_EQ(bus.transport().sent.first().payload.left(4), QByteArray::fromHex("feffffff"));
}

TEST(Replies, OwnRepliesGoOutOnTheProcesssOwnToken) {
    FakeBus bus;
    std::strcpy(g_szOurPubSubToken, "Message.ExtProc.from.4711");
    Message message;
    message.construct(0, "i", 4711);
    sendMessage(message);
    ASSERT_EQ(bus.transport().sent.size(), 1);
    EXPECT_EQ(bus.transport().sent.first().token, "Message.ExtProc.from.4711");
    EXPECT_EQ(bus.transport().sent.first().payload, QByteArray(message.buffer(), message.length()));
    g_szOurPubSubToken[0] = '\0';
}

TEST(Replies, TheCallerKeepsTheMessage) {
    FakeBus bus;
    Message message = messageOfLength(1000);
    const QByteArray before(message.buffer(), message.length());
    sendMessageToConnection(7, &message);
    EXPECT_EQ(QByteArray(message.buffer(), message.length()), before);
}

TEST(Replies, AReplyTooLargeForTheBusIsLoggedAndBecomesABareReply) {
    FakeBus bus;
    const LogCapture log;
    Message message;
    {
        const QByteArray block(256 * 1024 * 1024, '\0');
        message.construct(0x1402, "B", static_cast<int>(block.size()), block.constData());
    }
    sendMessageToConnection(7, &message);
    EXPECT_EQ(log.lines().size(), 1);
    ASSERT_EQ(bus.transport().sent.size(), 1);
    // Connection 7, command 0x1402, format "".
    EXPECT_EQ(bus.transport().sent.first().payload, QByteArray::fromHex("07000000 02140000 00"));
}

TEST(Replies, AReplyThatABrokersLossDropsIsNotFollowedByABareOne) {
    FakeClock clock;
    FakeBus bus;
    clock.advance(60);
    bus.transport().brokerReads = false;
    Message message = messageOfLength(2 * 1024 * 1024);
    sendMessageToConnection(7, &message);
    bus.transport().onWrite = [&](int) { bus.transport().setBrokerPresent(false); };
    sendMessageToConnection(7, &message);
    EXPECT_EQ(bus.transport().sent.size(), 1);
    bus.transport().setBrokerPresent(true);
    const LogCapture log;
    bus.bus().readWaitingMessages(0);
    EXPECT_TRUE(
        log.contains("PubSubInterface: 1 messages were dropped while there was no connection"));
}

TEST(Replies, WithoutABusNothingHappens) {
    ASSERT_EQ(g_pubSubInterface, nullptr);
    Message message;
    sendMessage(message);
    sendMessageToConnection(1, &message);
    sendMessageToConnection(1, 2);
    EXPECT_EQ(message.command(), 0);
}

TEST(Replies, AMissingBrokerIsNoFailureToTheCaller) {
    FakeBus bus;
    bus.transport().setBrokerPresent(false);
    sendMessageToConnection(1, 2);
    EXPECT_TRUE(bus.transport().sent.isEmpty());
}

}  // namespace

#include "tests/core/DaemonFixture.h"

#include <sys/resource.h>

namespace {

class DeliveryTest : public DaemonFixture {};

TEST_F(DeliveryTest, AStorageDeliveryWhoseFirstFourBytesAre7BecomesAMessageWithTag7) {
    // Connection 7; command 0x1401, format "i", 42.
    receive("Message.storage", QByteArray::fromHex("07000000 01140000 6900 2a000000"));
    ASSERT_EQ(g_waitingMessages.size(), 1);
    const Message* message = g_waitingMessages.first();
    EXPECT_EQ(message->tag(), 7);
    EXPECT_EQ(message->command(), 0x1401);
    EXPECT_STREQ(message->formatString(), "i");
    EXPECT_EQ(message->parameterAsInt32(0), 42);
}

TEST_F(DeliveryTest, ADeliveryOnAnyOtherWantedTokenKeepsTheDefaultTag) {
    for (const char* token : {"Message.ExtProc.to.1", "StorageManager.to"}) {
        receive(token, wire(232, "iS", 5, "a=1"));
        ASSERT_EQ(g_waitingMessages.size(), 1);
        EXPECT_EQ(g_waitingMessages.first()->tag(), 0);
        EXPECT_EQ(g_waitingMessages.first()->command(), 232);
        EXPECT_STREQ(g_waitingMessages.first()->parameterAsString(1), "a=1");
        dropWaitingMessages();
    }
}

TEST_F(DeliveryTest, MessagesAreQueuedInArrivalOrder) {
    for (const int command : {5, 6, 7}) {
        receive("StorageManager.to", wire(command, ""));
    }
    ASSERT_EQ(g_waitingMessages.size(), 3);
    EXPECT_EQ(g_waitingMessages[0]->command(), 5);
    EXPECT_EQ(g_waitingMessages[2]->command(), 7);
}

TEST_F(DeliveryTest, ANegativeConnectionIdBecomesANegativeTag) {
    receive("Message.storage", framed(-3, wire(5, "")));
    ASSERT_EQ(g_waitingMessages.size(), 1);
    EXPECT_EQ(g_waitingMessages.first()->tag(), -3);
}

TEST_F(DeliveryTest, AStorageDeliveryShorterThanAConnectionIdBecomesAMalformedMessage) {
    for (int length = 0; length < 4; ++length) {
        receive("Message.storage", QByteArray(length, '\0'));
        ASSERT_EQ(g_waitingMessages.size(), 1) << length;
        EXPECT_EQ(g_waitingMessages.first()->command(), Message::kMalformedCommand) << length;
        EXPECT_EQ(g_waitingMessages.first()->parameterCount(), 0);
        dropWaitingMessages();
    }
}

TEST_F(DeliveryTest, AStorageDeliveryCutAtAnyLengthIsQueuedAndAnsweredByNobody) {
    const QByteArray whole = framed(7, wire(0x1402, "iii", 1, 2, 3));
    for (qsizetype length = 0; length < whole.size(); ++length) {
        receive("Message.storage", whole.left(length));
        ASSERT_EQ(g_waitingMessages.size(), 1) << length;
        EXPECT_EQ(g_waitingMessages.first()->command(), Message::kMalformedCommand) << length;
        processWaitingMessages();
    }
    EXPECT_TRUE(bus.transport().sent.isEmpty());
}

TEST_F(DeliveryTest, ABrokenDeliveryIsNoKeepalive) {
    receive("Message.ExtProc.to.1", {});
    receive("Message.ExtProc.to.1", QByteArray(4, '\0'));
    receive("Message.ExtProc.to.1", QByteArray(6, '\0'));
    processWaitingMessages();
    EXPECT_TRUE(bus.transport().sent.isEmpty());
    EXPECT_FALSE(log.contains("scada-storage-process: handled keepalive"));
}

TEST_F(DeliveryTest, ADayFinishedDeliveryMakesNoMessage) {
    receive("ThumbnailManager.dayFinished", QByteArray("2024-05-01", 11));
    receive("ThumbnailManager.dayFinished", wire(0, ""));
    EXPECT_TRUE(g_waitingMessages.isEmpty());
}

TEST_F(DeliveryTest, ADayFinishedDeliveryIsHandledInsideTheWait) {
    g_thumbnailDaysOutstanding = 1;
    receive("ThumbnailManager.dayFinished", QByteArray("2024-05-01", 11));
    EXPECT_EQ(g_thumbnailDaysOutstanding, 0);
    EXPECT_EQ(log.lines(),
              QList<QByteArray>{"scada-storage-process: ThumbnailManager dayFinished 2024-05-01 "
                                "(outstanding 0)"});
}

TEST_F(DeliveryTest, AForkedChildLeavesADayFinishedDeliveryToItsParent) {
    g_thumbnailDaysOutstanding = 1;
    const int token = bus.bus().findToken(QByteArrayView("ThumbnailManager.dayFinished"));
    const int result = inChild([token] {
        PubSubMessage delivery{token, "2024-05-01", 11};
        PubSubInterfaceCallback(nullptr, &delivery);
        return g_thumbnailDaysOutstanding;
    });
    EXPECT_EQ(result, 1);
}

// The address sanitizer maps more than any limit and never throws.
#if !defined(__SANITIZE_ADDRESS__)
/// Leaves a child of this process `bytes` more of memory than it has now.
void limitMemory(rlim_t bytes) {
    long pages = 0;
    FILE* statm = fopen("/proc/self/statm", "r");
    if (!statm || fscanf(statm, "%ld", &pages) != 1) {
        _exit(99);
    }
    fclose(statm);
    const rlim_t limit = static_cast<rlim_t>(pages) * 4096 + bytes;
    const rlimit memory{limit, limit};
    setrlimit(RLIMIT_AS, &memory);
}

TEST_F(DeliveryTest, AStorageRequestThatDoesNotFitIntoMemoryIsQueuedWithoutItsParameters) {
    const QByteArray block(64 << 20, 'x');
    const QByteArray frame = framed(7, wire(0x1403, "iiB", 1, 0, int(block.size()), block.data()));
    const int result = inChild([&] {
        limitMemory(16 << 20);
        PubSubMessage delivery{g_StorageMessageTokenID, frame.constData(), int(frame.size())};
        PubSubInterfaceCallback(nullptr, &delivery);
        if (g_waitingMessages.size() != 1) {
            return 1;
        }
        const Message* message = g_waitingMessages.first();
        return message->command() == 0x1403 && message->tag() == 7 && message->parameterCount() == 0
                   ? 0
                   : 2;
    });
    EXPECT_EQ(result, 0);
}

TEST_F(DeliveryTest, ABrokenDeliveryThatDoesNotFitIntoMemoryIsNoKeepaliveAndNoQuitEither) {
    for (const int command : {0, 1}) {
        QByteArray frame = framed(7, wire(command, ""));
        frame.append(64 << 20, 'x');
        const int result = inChild([&] {
            limitMemory(16 << 20);
            PubSubMessage delivery{g_StorageMessageTokenID, frame.constData(), int(frame.size())};
            PubSubInterfaceCallback(nullptr, &delivery);
            return g_waitingMessages.size() == 1 &&
                           g_waitingMessages.first()->command() == Message::kMalformedCommand
                       ? 0
                       : 1;
        });
        EXPECT_EQ(result, 0) << command;
    }
}

TEST_F(DeliveryTest, AnyOtherDeliveryThatDoesNotFitIntoMemoryIsDroppedAndLogged) {
    const QByteArray block(64 << 20, 'x');
    const QByteArray bytes = wire(220, "B", int(block.size()), block.data());
    const int result = inChild([&] {
        limitMemory(16 << 20);
        PubSubMessage delivery{bus.bus().findToken(QByteArrayView("StorageManager.to")),
                               bytes.constData(), int(bytes.size())};
        PubSubInterfaceCallback(nullptr, &delivery);
        const QByteArray line = "scada-storage-process: no memory for a delivery of " +
                                QByteArray::number(bytes.size()) + " bytes";
        return g_waitingMessages.isEmpty() && log.contains(line) ? 0 : 1;
    });
    EXPECT_EQ(result, 0);
}
#endif

}  // namespace

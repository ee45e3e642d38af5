#include "bus/Message.h"
#include "tools/storagectl/MessageText.h"

#include <gtest/gtest.h>
#include <QJsonDocument>

namespace {

using storagectl::MessageText;

QByteArray bytesOf(const Message& message) {
    return QByteArray(message.buffer(), message.length());
}

std::string lineOf(const QByteArray& token, const QByteArray& payload) {
    return MessageText(token, payload).line().toStdString();
}

TEST(MessageTextTest, AClientsRequestHasItsConnectionAndName) {
    Message message;
    message.construct(0x1402, "iii", 3, 0, 4096);
    EXPECT_EQ(lineOf("Message.storage", QByteArray::fromHex("07000000") + bytesOf(message)),
              "Message.storage #7 MESSAGE_FILE_READ (0x1402) iii 3 0 4096");
}

TEST(MessageTextTest, BlocksAreAbbreviatedInHex) {
    Message message;
    message.construct(0x1402, "iiB", 3, 0, 40, QByteArray(40, '\xab').constData());
    EXPECT_EQ(lineOf("x", bytesOf(message)),
              "x MESSAGE_FILE_READ (0x1402) iiB 3 0 <40 bytes: " +
                  std::string(QByteArray(64, 'a').replace("aa", "ab")) + "...>");
}

TEST(MessageTextTest, TextIsQuotedAndEscaped) {
    Message message;
    message.construct(0x1410, "S", "a\"b\033[2J\nc");
    EXPECT_EQ(lineOf("x", bytesOf(message)),
              "x MESSAGE_FILE_DELETE (0x1410) S \"a\\\"b\\x1b[2J\\x0ac\"");
}

TEST(MessageTextTest, BytesAreNumbers) {
    Message message;
    message.construct(0x14C0, "c", 200);
    EXPECT_EQ(lineOf("x", bytesOf(message)), "x create configuration backup (0x14c0) c 200");
}

TEST(MessageTextTest, CommandZeroIsAKeepAliveOnTheDaemonsTokensOnly) {
    Message message;
    message.construct(0, "i", 12);
    EXPECT_EQ(lineOf("Message.ExtProc.from.12", bytesOf(message)),
              "Message.ExtProc.from.12 keep-alive (0) i 12");
    EXPECT_EQ(lineOf("Notification.add", bytesOf(message)), "Notification.add 0 i 12");
}

TEST(MessageTextTest, AnUnknownCommandIsItsNumber) {
    Message message;
    message.construct(0x1406, "");
    EXPECT_EQ(lineOf("x", bytesOf(message)), "x 0x1406");
}

TEST(MessageTextTest, AFrameCutAtEveryLengthIsMalformed) {
    Message message;
    message.construct(0x1402, "iiB", 3, 0, 2, "ab");
    const QByteArray frame = QByteArray::fromHex("07000000") + bytesOf(message);
    for (int length = 0; length < frame.size(); ++length) {
        const std::string line = lineOf("Message.storage", frame.left(length));
        EXPECT_NE(line.find("malformed"), std::string::npos) << line;
    }
    EXPECT_EQ(lineOf("Message.storage", "ab"), "Message.storage malformed <2 bytes: 6162>");
}

TEST(MessageTextTest, TokensWithoutAMessageAreShownAsText) {
    EXPECT_EQ(lineOf("ThumbnailManager.dayFinished", QByteArray("2024-05-01\0", 11)),
              "ThumbnailManager.dayFinished \"2024-05-01\"");
    EXPECT_EQ(lineOf("System.restartApplication", ""), "System.restartApplication \"\"");
}

TEST(MessageTextTest, JsonHasEveryPart) {
    Message message;
    message.construct(0x1400, "Sii", "/x", 3, -1);
    const MessageText text("Message.storage", QByteArray::fromHex("07000000") + bytesOf(message));
    EXPECT_EQ(QJsonDocument(text.object()).toJson(QJsonDocument::Compact),
              "{\"connection\":7,\"format\":\"Sii\",\"message\":5120,\"name\":"
              "\"MESSAGE_FILE_OPEN\",\"parameters\":[\"/x\",3,-1],\"token\":\"Message.storage\"}");
}

}  // namespace

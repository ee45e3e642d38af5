#include "bus/FakeTransport.h"
#include "bus/Message.h"
#include "bus/PubSubInterface.h"
#include "filesystem/FileProtocol.h"
#include "tools/storagectl/Commands.h"
#include "tools/storagectl/Interrupt.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <QJsonDocument>

#include <sys/mman.h>
#include <unistd.h>
#include <memory>

namespace {

using storagectl::ExitCode;

QByteArray bytesOf(const Message& message) {
    return QByteArray(message.buffer(), message.length());
}

/// storagectl sniff on a bus that carries a request and an answer in each wait.
class SniffTest : public testing::Test {
protected:
    SniffTest() {
        options.command = storagectl::Command::Sniff;
        storagectl::Interrupt::clear();
    }
    ~SniffTest() override {
        storagectl::Interrupt::clear();
        close(dataFile);
        close(talkFile);
    }

    ExitCode sniffInto(int descriptor) {
        auto transport = std::make_unique<FakeTransport>();
        FakeTransport& wire = *transport;
        wire.onWait = [this, &wire](int) { carry(wire); };
        storagectl::Output output(descriptor, talkFile, options.style);
        PubSubInterface bus(nullptr, std::move(transport));
        return storagectl::runCommand(bus, options, output);
    }

    void carry(FakeTransport& wire) {
        Message message;
        message.construct(MESSAGE_FILE_CLOSE, "i", 3);
        wire.deliver("Message.storage", QByteArray::fromHex("07000000") + bytesOf(message));
        message.construct(0, "i", 5);
        wire.deliver("Message.ExtProc.from.5", bytesOf(message));
        if (++waits == interruptedWait) {
            storagectl::Interrupt::request();
        }
    }

    static QByteArray contentsOf(int descriptor) {
        QByteArray bytes(lseek(descriptor, 0, SEEK_END), Qt::Uninitialized);
        EXPECT_EQ(pread(descriptor, bytes.data(), static_cast<std::size_t>(bytes.size()), 0),
                  bytes.size());
        return bytes;
    }

    storagectl::Options options;
    int dataFile = memfd_create("data", 0);
    int talkFile = memfd_create("talk", 0);
    int waits = 0;
    int interruptedWait = 0;
};

TEST_F(SniffTest, EveryMessageIsALineUntilThereAreEnough) {
    options.count = 3;
    EXPECT_EQ(sniffInto(dataFile), ExitCode::Done);
    const QList<QByteArray> lines = contentsOf(dataFile).split('\n');
    ASSERT_EQ(lines.size(), 4);
    constexpr int kTimeCharacters = 13;
    EXPECT_EQ(lines[0].mid(kTimeCharacters), "Message.storage #7 MESSAGE_FILE_CLOSE (0x1401) i 3");
    EXPECT_EQ(lines[1].mid(kTimeCharacters), "Message.ExtProc.from.5 keep-alive (0) i 5");
    EXPECT_EQ(lines[2].mid(kTimeCharacters), lines[0].mid(kTimeCharacters));
    EXPECT_EQ(lines[3], "");
    EXPECT_EQ(contentsOf(talkFile), "");
}

TEST_F(SniffTest, JsonIsOneObjectALine) {
    options.count = 1;
    options.style.json = true;
    EXPECT_EQ(sniffInto(dataFile), ExitCode::Done);
    const QJsonObject object = QJsonDocument::fromJson(contentsOf(dataFile)).object();
    EXPECT_EQ(object["command"], "sniff");
    EXPECT_EQ(object["token"], "Message.storage");
    EXPECT_EQ(object["connection"], 7);
    EXPECT_EQ(object["name"], "MESSAGE_FILE_CLOSE");
    EXPECT_TRUE(object.contains("time"));
}

TEST_F(SniffTest, AnInterruptEndsItWithoutAWord) {
    interruptedWait = 4;
    EXPECT_EQ(sniffInto(dataFile), ExitCode::Interrupted);
    EXPECT_GE(contentsOf(dataFile).count('\n'), 6);
    EXPECT_EQ(contentsOf(talkFile), "");
}

TEST_F(SniffTest, AFullDiskIsALocalFailure) {
    const int full = open("/dev/full", O_WRONLY);
    ASSERT_GE(full, 0);
    EXPECT_EQ(sniffInto(full), ExitCode::LocalFile);
    EXPECT_TRUE(contentsOf(talkFile).startsWith("storagectl: standard output: "));
    close(full);
}

}  // namespace

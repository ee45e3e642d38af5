#include "tests/tools/StoragectlFixture.h"
#include "tools/storagectl/ReplayBlock.h"

#include <QDateTime>
#include <QJsonDocument>
#include <QJsonObject>

#include <unistd.h>

namespace {

using storagectl::ReplayBlock;

constexpr int kDaemon = 321;
constexpr int kWorker = 322;
constexpr int kNoon = 1'714'564'800;  // 2024-05-01T12:00:00 UTC
constexpr char kReplies[] = "Message.ExtProc.from.321";

QByteArray bytesOf(const Message& message) {
    return QByteArray(message.buffer(), message.length());
}

/// "G3P" as a float of 1.5, and 20 bytes of zeros.
const QByteArray kValue = QByteArray("\1G3P\0\0\0\xC0\x3F", 9) + QByteArray(20, '\0');

/// Standard input with these bytes, and then its end.
class Input {
public:
    explicit Input(const QByteArray& bytes) : _saved(dup(STDIN_FILENO)) {
        int ends[2];
        EXPECT_EQ(pipe(ends), 0);
        EXPECT_EQ(write(ends[1], bytes.constData(), static_cast<std::size_t>(bytes.size())),
                  bytes.size());
        dup2(ends[0], STDIN_FILENO);
        close(ends[0]);
        _writeEnd = ends[1];
    }
    ~Input() {
        end();
        dup2(_saved, STDIN_FILENO);
        close(_saved);
    }
    Input(const Input&) = delete;
    Input& operator=(const Input&) = delete;

    void end() {
        if (_writeEnd >= 0) {
            close(_writeEnd);
        }
        _writeEnd = -1;
    }

private:
    int _saved;
    int _writeEnd = -1;
};

/// replay against a daemon whose worker sends `blocks`.
class ReplayCommandTest : public StoragectlFixture {
protected:
    ReplayCommandTest() {
        daemon.onOther = [this](const FakeTransport::Sent& sent) { take(sent); };
    }

    void take(const FakeTransport::Sent& sent) {
        Message message;
        message.construct(sent.payload.constData(), static_cast<int>(sent.payload.size()));
        ASSERT_EQ(sent.token, "StorageManager.to");
        commands.append(message.command());
        switch (message.command()) {
            case 0:
                return answerKeepAlive();
            case 231:
                ASSERT_STREQ(message.formatString(), "SS");
                start = message.parameterAsString(1);
                return announce();
            case 232:
                ASSERT_STREQ(message.formatString(), "iS");
                EXPECT_EQ(message.parameterAsInt32(0), 1);
                channels = message.parameterAsString(1);
                return sendBlock();
            default:
                ASSERT_EQ(message.command(), 234);
                ASSERT_STREQ(message.formatString(), "ii");
                EXPECT_EQ(message.parameterAsInt32(0), 1);
                EXPECT_EQ(message.parameterAsInt32(1), sentBlocks);
                acknowledged.append(clock.tick);
                return sendBlock();
        }
    }

    void answerKeepAlive() {
        for (const int process : std::as_const(processes)) {
            send(0, process);
        }
    }
    void announce() { send(232, 1); }
    void send(int command, int number) {
        Message message;
        message.construct(command, "i", number);
        daemon.transport().deliver(kReplies, bytesOf(message));
    }
    void sendBlock() {
        if (sentBlocks < blocks.size()) {
            const QByteArray& block = blocks[sentBlocks++];
            sendBlock(sentBlocks, block);
        }
    }
    void sendBlock(int sequence, const QByteArray& block) {
        Message message;
        message.construct(233, "iiiB", 1, sequence, startTime, block.size(), block.constData());
        daemon.transport().deliver(kReplies, bytesOf(message));
    }

    QList<int> processes{kDaemon};
    QByteArrayList blocks{kValue, kValue, kValue};
    int startTime = kNoon;
    int sentBlocks = 0;
    QList<int> commands;
    QList<quint32> acknowledged;
    QByteArray start;
    QByteArray channels;
};

TEST_F(ReplayCommandTest, EveryBlockIsShownAndAcknowledgedUntilNoneComes) {
    EXPECT_EQ(
        run({"replay", "--from", "2024-05-01", "--channel", "flow-1=3", "--channel", "card-1=0"}),
        0);
    EXPECT_EQ(start, "20240501120000");
    EXPECT_EQ(channels, "card-1=0|flow-1=3");
    EXPECT_EQ(data,
              "block 1: G3P = 1.5 (flow-1), the last value of 29 bytes\n"
              "block 2: G3P = 1.5 (flow-1), the last value of 29 bytes\n"
              "block 3: G3P = 1.5 (flow-1), the last value of 29 bytes\n");
    EXPECT_EQ(acknowledged.size(), 3);
    EXPECT_EQ(commands, QList<int>({0, 231, 232, 234, 234, 234, 0}));
    EXPECT_TRUE(talk.contains("by the unit's clock that is from 2024-05-01T00:00:00+00:00\n"));
    EXPECT_TRUE(talk.contains("the replay is over: 3 blocks")) << talk.toStdString();
}

TEST_F(ReplayCommandTest, TheUnitsZoneIsToldFromTheStartThatItNames) {
    startTime = kNoon - 2 * 3600;
    EXPECT_EQ(run({"replay", "--from", "2024-05-01"}), 0);
    EXPECT_TRUE(talk.contains("from 2024-05-01T00:00:00+02:00\n")) << talk.toStdString();
    EXPECT_EQ(channels, "");
}

TEST_F(ReplayCommandTest, AStartThatIsNoneOfThisDayIsTold) {
    startTime = -1;
    EXPECT_EQ(run({"replay", "--from", "2024-05-01"}), 0);
    EXPECT_TRUE(talk.contains("names another start: second 4294967295")) << talk.toStdString();
}

TEST_F(ReplayCommandTest, JsonHasAnObjectABlockAndOneOfAll) {
    blocks = {kValue, QByteArray(), QByteArray("\7x")};
    EXPECT_EQ(run({"--json", "replay", "--from", "2024-05-01", "--channel", "flow-1=3"}), 0);
    const QList<QByteArray> lines = data.trimmed().split('\n');
    ASSERT_EQ(lines.size(), 4);
    const QJsonObject first = QJsonDocument::fromJson(lines[0]).object();
    EXPECT_EQ(first["name"], "G3P");
    EXPECT_EQ(first["kind"], "float");
    EXPECT_EQ(first["value"], 1.5);
    EXPECT_EQ(first["source"], "flow-1");
    EXPECT_EQ(first["damaged"], false);
    EXPECT_EQ(QJsonDocument::fromJson(lines[1])["bytes"], 0);
    EXPECT_EQ(QJsonDocument::fromJson(lines[2])["damaged"], true);
    EXPECT_EQ(QJsonDocument::fromJson(lines[3])["blocks"], 3);
    EXPECT_EQ(QJsonDocument::fromJson(lines[3])["over"], true);
}

TEST_F(ReplayCommandTest, ThePaceHoldsAcknowledgementsBack) {
    EXPECT_EQ(run({"replay", "--from", "2024-05-01", "--pace", "0.5"}), 0);
    ASSERT_EQ(acknowledged.size(), 3);
    EXPECT_GE(acknowledged[1] - acknowledged[0], 2000U);
    EXPECT_LT(acknowledged[1] - acknowledged[0], 2200U);
}

TEST_F(ReplayCommandTest, EachLineLetsOneBlockGoAndTheirEndLeaves) {
    Input input("\n\n");
    input.end();
    EXPECT_EQ(run({"replay", "--from", "2024-05-01", "--step"}), 0);
    EXPECT_EQ(acknowledged.size(), 2);
    EXPECT_EQ(data.count('\n'), 3);
    EXPECT_TRUE(talk.contains("left after 3 blocks")) << talk.toStdString();
}

TEST_F(ReplayCommandTest, AReplayThatIsHeldForAMinuteIsLost) {
    const Input input("\n");
    const quint32 before = clock.tick;
    EXPECT_EQ(run({"replay", "--from", "2024-05-01", "--step"}), 1);
    EXPECT_EQ(acknowledged.size(), 1);
    EXPECT_GE(clock.tick - before, 60'000U);
    EXPECT_LT(clock.tick - before, 63'000U);
    EXPECT_TRUE(talk.contains("held for longer than 60 s"));
}

TEST_F(ReplayCommandTest, AnotherReplayOfTheUnitIsNotDisturbed) {
    processes = {kDaemon, kWorker};
    EXPECT_EQ(run({"replay", "--from", "2024-05-01"}), 7);
    EXPECT_EQ(commands, QList<int>{0});
    EXPECT_TRUE(talk.contains("process 322 of the unit replays already; one replay a unit"));
}

TEST_F(ReplayCommandTest, ABlockOfAnotherReplayIsNoticedBeforeBeginning) {
    daemon.onOther = [this](const FakeTransport::Sent& sent) {
        take(sent);
        sendBlock(7, kValue);
    };
    EXPECT_EQ(run({"replay", "--from", "2024-05-01"}), 7);
    EXPECT_EQ(commands, QList<int>{0});
}

TEST_F(ReplayCommandTest, AReplayThatBeginsBesideItEndsIt) {
    daemon.onOther = [this](const FakeTransport::Sent& sent) {
        take(sent);
        if (acknowledged.size() == 1) {
            announce();
        }
    };
    EXPECT_EQ(run({"replay", "--from", "2024-05-01"}), 7);
    EXPECT_TRUE(talk.contains("another replay has begun on the unit")) << talk.toStdString();
    EXPECT_EQ(acknowledged.size(), 1);
}

TEST_F(ReplayCommandTest, ABlockOutOfTurnIsAnotherReplays) {
    daemon.onOther = [this](const FakeTransport::Sent& sent) {
        take(sent);
        if (acknowledged.size() == 1) {
            sendBlock(1, kValue);
        }
    };
    EXPECT_EQ(run({"replay", "--from", "2024-05-01"}), 7);
    EXPECT_EQ(acknowledged.size(), 1);
}

TEST_F(ReplayCommandTest, ASecondWorkerThatAnswersLaterIsAnotherReplay) {
    daemon.onOther = [this](const FakeTransport::Sent& sent) {
        take(sent);
        if (!acknowledged.isEmpty()) {
            send(0, kWorker);
            send(0, kWorker + 1);
        }
    };
    EXPECT_EQ(run({"replay", "--from", "2024-05-01"}), 7);
}

TEST_F(ReplayCommandTest, ALostAcknowledgementIsSentAgain) {
    bool isLost = false;
    daemon.onOther = [this, &isLost](const FakeTransport::Sent& sent) {
        Message message;
        message.construct(sent.payload.constData(), static_cast<int>(sent.payload.size()));
        if (message.command() == 234 && message.parameterAsInt32(1) == 2 && !isLost) {
            isLost = true;
            processes.append(kWorker);
            return;
        }
        take(sent);
        if (acknowledged.size() == 3) {
            processes.removeAll(kWorker);
        }
    };
    EXPECT_EQ(run({"replay", "--from", "2024-05-01"}), 0);
    EXPECT_TRUE(isLost);
    EXPECT_EQ(acknowledged.size(), 3);
}

TEST_F(ReplayCommandTest, AWorkerThatStaysAndSendsNothingIsAFailure) {
    daemon.onOther = [this](const FakeTransport::Sent& sent) {
        take(sent);
        if (acknowledged.size() == 3) {
            processes = {kDaemon, kWorker};
        }
    };
    EXPECT_EQ(run({"replay", "--from", "2024-05-01"}), 1);
    EXPECT_EQ(acknowledged.size(), 6);
    EXPECT_TRUE(talk.contains("is there, and sends no block")) << talk.toStdString();
}

TEST_F(ReplayCommandTest, OtherProcessesOfTheUnitDoNotMatter) {
    daemon.onOther = [this](const FakeTransport::Sent& sent) {
        take(sent);
        Message message;
        message.construct(0, "i", 55);
        daemon.transport().deliver("Message.ExtProc.from.55", bytesOf(message));
        daemon.transport().deliver(kReplies, "");
        daemon.transport().deliver(kReplies, QByteArray(30, '\xff'));
        message.construct(233, "ii", 1, 1);
        daemon.transport().deliver(kReplies, bytesOf(message));
    };
    EXPECT_EQ(run({"replay", "--from", "2024-05-01"}), 0);
    EXPECT_EQ(acknowledged.size(), 3);
}

TEST_F(ReplayCommandTest, NoBlockAtAllIsSaid) {
    blocks.clear();
    EXPECT_EQ(run({"replay", "--from", "2024-05-01"}), 4);
    EXPECT_TRUE(talk.contains("no block came: right below /root/data and /mmc"));
}

TEST_F(ReplayCommandTest, ADaemonThatIsNotThereOrGoesAwayIsSaid) {
    processes.clear();
    EXPECT_EQ(run({"--timeout", "2", "replay", "--from", "2024-05-01"}), 11);
    EXPECT_EQ(commands, QList<int>{0});
    processes = {kDaemon};
    daemon.onOther = [this](const FakeTransport::Sent& sent) {
        if (acknowledged.isEmpty()) {
            take(sent);
        }
    };
    EXPECT_EQ(run({"--timeout", "2", "replay", "--from", "2024-05-01"}), 11);
    EXPECT_EQ(acknowledged.size(), 1);
}

TEST_F(ReplayCommandTest, ALostConnectionEndsIt) {
    daemon.onOther = [this](const FakeTransport::Sent& sent) {
        take(sent);
        if (acknowledged.size() == 1) {
            daemon.transport().setBrokerPresent(false);
        }
    };
    EXPECT_EQ(run({"replay", "--from", "2024-05-01"}), 10);
}

TEST_F(ReplayCommandTest, AnInterruptLeavesIt) {
    daemon.onOther = [this](const FakeTransport::Sent& sent) {
        take(sent);
        if (acknowledged.size() == 1) {
            storagectl::Interrupt::request();
        }
    };
    EXPECT_EQ(run({"replay", "--from", "2024-05-01"}), 130);
    EXPECT_TRUE(talk.contains("the unit's process for it ends by itself")) << talk.toStdString();
}

TEST_F(ReplayCommandTest, NothingIsSentForWhatTheDaemonCouldNotTake) {
    const std::vector<std::vector<std::string>> wrong{
        {},
        {"--from", "2024-02-30"},
        {"--from", "2024-05-01T10:00:00"},
        {"--from", ""},
        {"--from", "1969-12-31"},
        {"--from", "2106-01-01"},
        {"--from", "2024-05-01", "--channel", "flow-1"},
        {"--from", "2024-05-01", "--channel", "flow-1="},
        {"--from", "2024-05-01", "--channel", "flow-1=x"},
        {"--from", "2024-05-01", "--channel", "flow-1=-1"},
        {"--from", "2024-05-01", "--channel", "flow-1=2147483648"},
        {"--from", "2024-05-01", "--channel", "=1"},
        {"--from", "2024-05-01", "--channel", "a|b=1"},
        {"--from", "2024-05-01", "--channel", "../a=1"},
        {"--from", "2024-05-01", "--channel", "a=1", "--channel", "a=2"},
        {"--from", "2024-05-01", "--channel", "a=1", "--channel", "b=1"},
        {"--from", "2024-05-01", "--pace", "0"},
        {"--from", "2024-05-01", "--pace", "1", "--step"},
    };
    for (std::vector<std::string> arguments : wrong) {
        arguments.insert(arguments.begin(), "replay");
        EXPECT_EQ(run(arguments), 2) << testing::PrintToString(arguments);
    }
    EXPECT_TRUE(commands.isEmpty());
}

TEST(ReplayBlockTest, EachKindOfValue) {
    const ReplayBlock number = ReplayBlock::decode(QByteArray("\0Sa\0\xFE\xFF\xFF\xFF\0\0", 10));
    EXPECT_EQ(number.content, ReplayBlock::Content::Value);
    EXPECT_EQ(number.kind, "int");
    EXPECT_EQ(number.name, "Sa");
    EXPECT_EQ(number.value, -2);
    EXPECT_EQ(number.bytes, 10);
    const ReplayBlock real = ReplayBlock::decode(QByteArray("\1Sa\0\0\0\xC0\x7F", 8));
    EXPECT_EQ(real.value, "nan");
    const ReplayBlock words = ReplayBlock::decode(QByteArray("\2Sa\0on\0\0", 8));
    EXPECT_EQ(words.text, "\"on\"");
    EXPECT_EQ(words.value, "on");
}

TEST(ReplayBlockTest, AnythingElseIsDamaged) {
    const QByteArray whole("\0Sa\0\1\0\0\0", 8);
    for (qsizetype length = 1; length < whole.size(); ++length) {
        EXPECT_EQ(ReplayBlock::decode(whole.left(length)).content, ReplayBlock::Content::Damaged)
            << length;
    }
    EXPECT_EQ(ReplayBlock::decode(QByteArray("\3Sa\0\1\0\0\0", 8)).content,
              ReplayBlock::Content::Damaged);
    EXPECT_EQ(ReplayBlock::decode(QByteArray("\2Sa\0on", 6)).content,
              ReplayBlock::Content::Damaged);
    EXPECT_EQ(ReplayBlock::decode(QByteArray(40, '\0')).content, ReplayBlock::Content::Damaged);
    EXPECT_EQ(ReplayBlock::decode({}).content, ReplayBlock::Content::Empty);
}

TEST(ReplayBlockTest, TheChannelIsInTheName) {
    const auto channelOf = [](const char* name) {
        ReplayBlock block;
        block.name = name;
        return block.channel();
    };
    EXPECT_EQ(channelOf("G12P"), 12);
    EXPECT_EQ(channelOf("G0T"), 0);
    EXPECT_EQ(channelOf("G7status"), 7);
    for (const char* const other : {"GP", "G1", "LV", "SsysFlags", "G1xP", "GT", ""}) {
        EXPECT_EQ(channelOf(other), -1) << other;
    }
}

}  // namespace

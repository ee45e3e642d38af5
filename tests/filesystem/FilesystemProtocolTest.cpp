#include "filesystem/FileProtocol.h"
#include "tests/filesystem/FilesystemFixture.h"
#include "tests/support/FakeBus.h"

#include <QCryptographicHash>
#include <QDir>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <limits>

namespace {

constexpr int kConnection = 77;
constexpr char kPath[] = "/root/data/file";

class FilesystemProtocolTest : public FilesystemFixture {
protected:
    FilesystemProtocolTest() { log.clear(); }  // of the bus having connected

    /// Sends a request and returns its answer, if there was exactly one and it was sound.
    FakeBus::Sent answerTo(Message& request) {
        files.handleMessage(kConnection, &request);
        const QList<FakeBus::Sent> sent = bus.takeSent();
        EXPECT_EQ(sent.size(), 1);
        if (sent.isEmpty()) {
            return {};
        }
        EXPECT_EQ(sent.first().token, "ConnectionManager.clientMessage");
        EXPECT_EQ(sent.first().connection, kConnection);
        EXPECT_EQ(sent.first().message.command(), request.command());
        return sent.first();
    }

    template <typename... Values>
    Message request(int command, const char* format, Values... values) {
        Message message;
        EXPECT_TRUE(message.construct(command, format, values...));
        log.clear();
        return answerTo(message).message;
    }

    static bool isBare(const Message& reply) {
        return reply.parameterCount() == 0 && QByteArray(reply.formatString()).isEmpty();
    }

    int openByMessage(int flags = kReadWrite) {
        return request(MESSAGE_FILE_OPEN, "Si", kPath, flags).parameterAsInt32(1);
    }

    static QByteArray block(const Message& reply, int index) {
        int length = 0;
        const char* const data = reply.parameterAsBLOB(index, length);
        return QByteArray(data, length);
    }

    QList<QByteArray> logged(std::initializer_list<const char*> texts) {
        QList<QByteArray> lines;
        for (const char* text : texts) {
            lines.append(QByteArray("Filesystem: ") + text);
        }
        return lines;
    }

    FakeBus bus;
};

struct FormatCase {
    int code;
    const char* name;
    const char* format;
    bool logsBadArguments;
};

void PrintTo(const FormatCase& known, std::ostream* stream) {
    *stream << known.name;
}

class RequestFormatTest : public FilesystemProtocolTest,
                          public testing::WithParamInterface<FormatCase> {
protected:
    /// A message of any format: its letters with zeros and empty texts and blocks.
    static Message messageOf(int code, const QByteArray& format) {
        QByteArray wire(4, '\0');
        for (int i = 0; i < 4; ++i) {
            wire[i] = static_cast<char>((static_cast<unsigned>(code) >> (8 * i)) & 0xFF);
        }
        wire += format + '\0';
        for (const char letter : format) {
            wire += QByteArray(letter == 'i' || letter == 'B' ? 4 : 1, '\0');
        }
        Message message;
        EXPECT_TRUE(message.construct(wire.constData(), static_cast<int>(wire.size())));
        return message;
    }
};

}  // namespace

TEST_P(RequestFormatTest, AnotherFormatGetsABareReplyAndNothingIsDone) {
    const FormatCase& known = GetParam();
    for (const char* format : {"", "i", "ii", "iii", "iiii", "S", "SS", "SSS", "Si", "Sii", "iS",
                               "iiB", "iB", "iiBi", "iiS", "c", "ic", "B"}) {
        if (QByteArray(format) == known.format) {
            continue;
        }
        Message message = messageOf(known.code, format);
        log.clear();
        EXPECT_TRUE(isBare(answerTo(message).message)) << format;
        QList<QByteArray> expected = {QByteArray("Filesystem: ") + known.name};
        if (known.logsBadArguments) {
            expected.append(QByteArray("Filesystem: ") + known.name + " bad args");
        }
        EXPECT_EQ(log.lines(), expected) << format;
    }
    EXPECT_EQ(files.nextHandle(), 0) << "nothing was opened";
}

TEST_P(RequestFormatTest, TheRightFormatIsCarriedOutAndFailsHereInItsOwnWay) {
    const FormatCase& known = GetParam();
    Message message = messageOf(known.code, known.format);
    const Message reply = answerTo(message).message;
    EXPECT_EQ(log.lines().first(), QByteArray("Filesystem: ") + known.name);
    EXPECT_FALSE(log.contains(QByteArray("Filesystem: ") + known.name + " bad args"));
    if (known.code == MESSAGE_FILE_OPEN) {
        EXPECT_STREQ(reply.formatString(), "Sii");
    } else {
        EXPECT_TRUE(isBare(reply));
    }
}

INSTANTIATE_TEST_SUITE_P(
    EveryCode, RequestFormatTest,
    testing::Values(FormatCase{0x1400, "MESSAGE_FILE_OPEN", "Si", false},
                    FormatCase{0x1401, "MESSAGE_FILE_CLOSE", "i", false},
                    FormatCase{0x1402, "MESSAGE_FILE_READ", "iii", false},
                    FormatCase{0x1403, "MESSAGE_FILE_WRITE", "iiB", false},
                    FormatCase{0x1404, "MESSAGE_FILE_GENERATE_HASH", "iii", false},
                    FormatCase{0x1405, "MESSAGE_FILE_TRUNCATE", "ii", false},
                    FormatCase{0x1410, "MESSAGE_FILE_DELETE", "S", false},
                    FormatCase{0x1411, "MESSAGE_FILE_MOVE", "SS", false},
                    FormatCase{0x1450, "MESSAGE_OPEN_DIRECTORY", "SS", false},
                    FormatCase{0x1451, "MESSAGE_CLOSE_DIRECTORY", "i", false},
                    FormatCase{0x1452, "MESSAGE_GET_FILE_IN_DIR", "ii", true}));

TEST_F(FilesystemProtocolTest, OpenWithOneParameterTooManyGetsABareReplyAndOpensNothing) {
    const Message reply = request(MESSAGE_FILE_OPEN, "Sii", kPath, kReadWrite, 0);
    EXPECT_TRUE(isBare(reply));
    EXPECT_EQ(readTestFile(kPath), "(missing)");
    EXPECT_EQ(FilesystemState::openHandles(files), 0);
}

TEST_F(FilesystemProtocolTest, FailedOpenAnswersInFullAndFailedDirectoryOpenBare) {
    const Message reply = request(MESSAGE_FILE_OPEN, "Si", "/root/data/missing", kReadOnly);
    EXPECT_STREQ(reply.formatString(), "Sii");
    EXPECT_STREQ(reply.parameterAsString(0), "/root/data/missing");
    EXPECT_EQ(reply.parameterAsInt32(1), -1);
    EXPECT_EQ(reply.parameterAsInt32(2), -1);
    EXPECT_EQ(
        log.lines(),
        logged({"MESSAGE_FILE_OPEN",
                "FAILED TO OPEN FILE \"/root/data/missing\" with flags 0x00000001",
                "MESSAGE_FILE_OPEN ***ERROR*** file /root/data/missing handle -1 length -1"}));
    EXPECT_TRUE(isBare(request(MESSAGE_OPEN_DIRECTORY, "SS", "/etc", "*")));
    EXPECT_EQ(log.lines(), logged({"MESSAGE_OPEN_DIRECTORY"}));
}

TEST_F(FilesystemProtocolTest, ShortReadGetsABareReplyWithoutTheBytes) {
    writeTestFile(kPath, QByteArray(40, 'x'));
    const int handle = openByMessage();
    EXPECT_TRUE(isBare(request(MESSAGE_FILE_READ, "iii", handle, 0, 100)));
    EXPECT_EQ(log.lines(), logged({"MESSAGE_FILE_READ"}));
}

TEST_F(FilesystemProtocolTest, WriteReplyEchoesTheLengthOfTheBlock) {
    const int handle = openByMessage();
    const Message reply = request(MESSAGE_FILE_WRITE, "iiB", handle, 2, 5, "he\0lo");
    EXPECT_STREQ(reply.formatString(), "ii");
    EXPECT_EQ(reply.parameterAsInt32(0), handle);
    EXPECT_EQ(reply.parameterAsInt32(1), 5);
    EXPECT_EQ(log.lines(),
              logged({"MESSAGE_FILE_WRITE", "MESSAGE_FILE_WRITE handle 0 offset 2 length 5"}));
    EXPECT_EQ(readTestFile(kPath), QByteArray("\0\0he\0lo", 7));
}

TEST_F(FilesystemProtocolTest, UnknownCodesAndTheDroppedOneGetNeitherReplyNorLogLine) {
    for (const int code : {0x14B1, 0x1406, 80, 0, 1, -1, 0x13FF, 0x1412, 0x1453, 0x7FFFFFFF,
                           std::numeric_limits<int>::min()}) {
        for (const char* format : {"", "ii", "iS", "SS"}) {
            QByteArray wire(4, '\0');
            for (int i = 0; i < 4; ++i) {
                wire[i] = static_cast<char>((static_cast<unsigned>(code) >> (8 * i)) & 0xFF);
            }
            wire += QByteArray(format) + '\0';
            for (const char letter : QByteArray(format)) {
                wire += QByteArray(letter == 'i' ? 4 : 1, '\0');
            }
            Message message;
            message.construct(wire.constData(), static_cast<int>(wire.size()));
            files.handleMessage(kConnection, &message);
            EXPECT_TRUE(bus.takeSent().isEmpty()) << code;
            EXPECT_TRUE(log.lines().isEmpty()) << code;
        }
    }
}

TEST_F(FilesystemProtocolTest, MalformedMessageGetsNeitherReplyNorLogLine) {
    Message message;
    EXPECT_FALSE(message.construct("\x00\x14\x00\x00Si", 6));
    files.handleMessage(kConnection, &message);
    EXPECT_TRUE(bus.takeSent().isEmpty());
    EXPECT_TRUE(log.lines().isEmpty());
}

TEST_F(FilesystemProtocolTest, OpenAnswersPathHandleAndLength) {
    writeTestFile(kPath, "0123456789");
    const Message reply = request(MESSAGE_FILE_OPEN, "Si", kPath, kReadOnly);
    EXPECT_STREQ(reply.formatString(), "Sii");
    EXPECT_STREQ(reply.parameterAsString(0), kPath);
    EXPECT_EQ(reply.parameterAsInt32(1), 0);
    EXPECT_EQ(reply.parameterAsInt32(2), 10);
    EXPECT_EQ(log.lines(), logged({"MESSAGE_FILE_OPEN", "OPENED FILE \"/root/data/file\"",
                                   "MESSAGE_FILE_OPEN file /root/data/file handle 0 length 10"}));
}

TEST_F(FilesystemProtocolTest, OpenOutsideTheRootsFailsInFull) {
    const Message reply = request(MESSAGE_FILE_OPEN, "Si", "/etc/passwd", kReadOnly);
    EXPECT_EQ(reply.parameterAsInt32(1), -1);
    EXPECT_EQ(log.lines(),
              logged({"MESSAGE_FILE_OPEN", "INVALID FILENAME \"/etc/passwd\"",
                      "MESSAGE_FILE_OPEN ***ERROR*** file /etc/passwd handle -1 length -1"}));
}

TEST_F(FilesystemProtocolTest, PathsAreEchoedByteForByte) {
    // Not cleaned, and not valid UTF-8.
    constexpr char path[] = "/root/data//./odd\xE9\xFF";
    const Message reply = request(MESSAGE_FILE_OPEN, "Si", path, kReadOnly);
    EXPECT_STREQ(reply.parameterAsString(0), path);
    const Message folder = request(MESSAGE_OPEN_DIRECTORY, "SS", "/mmc//.\xE9", "*");
    EXPECT_STREQ(folder.parameterAsString(0), "/mmc//.\xE9");
}

TEST_F(FilesystemProtocolTest, NamesAreUtf8) {
    const Message reply = request(MESSAGE_FILE_OPEN, "Si", "/root/data/folder\xC3\xA9", kReadWrite);
    EXPECT_GE(reply.parameterAsInt32(1), 0);
    EXPECT_EQ(::access("/root/data/folder\xC3\xA9", F_OK), 0);
}

TEST_F(FilesystemProtocolTest, CloseAnswersTheHandleOnceAndThenBare) {
    const int handle = openByMessage();
    const Message reply = request(MESSAGE_FILE_CLOSE, "i", handle);
    EXPECT_STREQ(reply.formatString(), "i");
    EXPECT_EQ(reply.parameterAsInt32(0), handle);
    EXPECT_EQ(log.lines(), logged({"MESSAGE_FILE_CLOSE", "MESSAGE_FILE_CLOSE handle 0"}));
    EXPECT_TRUE(isBare(request(MESSAGE_FILE_CLOSE, "i", handle)));
    EXPECT_EQ(log.lines(), logged({"MESSAGE_FILE_CLOSE"}));
}

TEST_F(FilesystemProtocolTest, ReadAnswersTheBytes) {
    writeTestFile(kPath, QByteArray("01\0x45", 6));
    const int handle = openByMessage();
    const Message reply = request(MESSAGE_FILE_READ, "iii", handle, 1, 4);
    EXPECT_STREQ(reply.formatString(), "iiB");
    EXPECT_EQ(reply.parameterAsInt32(0), handle);
    EXPECT_EQ(reply.parameterAsInt32(1), 1);
    EXPECT_EQ(block(reply, 2), readTestFile(kPath).mid(1, 4));
    EXPECT_EQ(log.lines(),
              logged({"MESSAGE_FILE_READ", "MESSAGE_FILE_READ handle 0 offset 1 length 4"}));
    EXPECT_EQ(block(request(MESSAGE_FILE_READ, "iii", handle, 3, 0), 2), "");
}

TEST_F(FilesystemProtocolTest, ReadBeyondWhatAReplyMayCarryGetsABareReply) {
    makeSparseFile(kPath, 20 << 20);
    const int handle = openByMessage();
    EXPECT_EQ(block(request(MESSAGE_FILE_READ, "iii", handle, 0, 16 << 20), 2).size(), 16 << 20);
    EXPECT_TRUE(isBare(request(MESSAGE_FILE_READ, "iii", handle, 0, (16 << 20) + 1)));
    EXPECT_TRUE(
        isBare(request(MESSAGE_FILE_READ, "iii", handle, 0, std::numeric_limits<int>::max())));
}

TEST_F(FilesystemProtocolTest, FailedWriteGetsABareReply) {
    writeTestFile(kPath, "x");
    const int handle = openByMessage(kReadOnly);
    EXPECT_TRUE(isBare(request(MESSAGE_FILE_WRITE, "iiB", handle, 0, 1, "y")));
    EXPECT_EQ(log.lines(), logged({"MESSAGE_FILE_WRITE"}));
    EXPECT_TRUE(isBare(request(MESSAGE_FILE_WRITE, "iiB", 9, 0, 0, nullptr)));
}

TEST_F(FilesystemProtocolTest, WriteToAFullDiskGetsABareReply) {
    const int handle = openByMessage();
    const QByteArray data(6000, 'x');
    const FullDiskAt limit(4096);
    EXPECT_TRUE(isBare(request(MESSAGE_FILE_WRITE, "iiB", handle, 0, 6000, data.constData())));
}

TEST_F(FilesystemProtocolTest, HashAnswersTheRawDigest) {
    writeTestFile(kPath, "0123456789");
    const int handle = openByMessage();
    const Message reply = request(MESSAGE_FILE_GENERATE_HASH, "iii", handle, 2, 5);
    EXPECT_STREQ(reply.formatString(), "iiB");
    EXPECT_EQ(reply.parameterAsInt32(0), handle);
    EXPECT_EQ(reply.parameterAsInt32(1), 2);
    EXPECT_EQ(block(reply, 2), QCryptographicHash::hash("23456", QCryptographicHash::Md5));
    EXPECT_EQ(log.lines(), logged({"MESSAGE_FILE_GENERATE_HASH",
                                   "MESSAGE_FILE_GENERATE_HASH handle 0 offset 2 length 5"}));
    EXPECT_TRUE(isBare(request(MESSAGE_FILE_GENERATE_HASH, "iii", handle, 2, 50)));
    EXPECT_EQ(log.lines(), logged({"MESSAGE_FILE_GENERATE_HASH"}));
}

TEST_F(FilesystemProtocolTest, TruncateAnswersTheHandle) {
    writeTestFile(kPath, "0123456789");
    const int handle = openByMessage();
    const Message reply = request(MESSAGE_FILE_TRUNCATE, "ii", handle, 3);
    EXPECT_STREQ(reply.formatString(), "i");
    EXPECT_EQ(reply.parameterAsInt32(0), handle);
    EXPECT_EQ(log.lines(), logged({"MESSAGE_FILE_TRUNCATE", "MESSAGE_FILE_TRUNCATE handle 0"}));
    EXPECT_EQ(readTestFile(kPath), "012");
    EXPECT_TRUE(isBare(request(MESSAGE_FILE_TRUNCATE, "ii", handle, -1)));
    EXPECT_EQ(log.lines(), logged({"MESSAGE_FILE_TRUNCATE"}));
}

TEST_F(FilesystemProtocolTest, KeptDeleteLineCallsThePathAHandle) {
    writeTestFile(kPath, "x");
    const Message reply = request(MESSAGE_FILE_DELETE, "S", kPath);
    EXPECT_STREQ(reply.formatString(), "S");
    EXPECT_STREQ(reply.parameterAsString(0), kPath);
    EXPECT_EQ(log.lines(),
              logged({"MESSAGE_FILE_DELETE", "MESSAGE_FILE_DELETE handle /root/data/file"}));
    EXPECT_TRUE(isBare(request(MESSAGE_FILE_DELETE, "S", kPath)));
    EXPECT_EQ(log.lines(), logged({"MESSAGE_FILE_DELETE"}));
}

TEST_F(FilesystemProtocolTest, MoveAnswersBothPaths) {
    writeTestFile(kPath, "x");
    const Message reply = request(MESSAGE_FILE_MOVE, "SS", kPath, "/root/data//to");
    EXPECT_STREQ(reply.formatString(), "SS");
    EXPECT_STREQ(reply.parameterAsString(0), kPath);
    EXPECT_STREQ(reply.parameterAsString(1), "/root/data//to");
    EXPECT_EQ(log.lines(),
              logged({"MESSAGE_FILE_MOVE",
                      "MESSAGE_FILE_MOVE file /root/data/file move to /root/data//to"}));
    EXPECT_TRUE(isBare(request(MESSAGE_FILE_MOVE, "SS", kPath, "/root/data/other")));
    EXPECT_EQ(log.lines(), logged({"MESSAGE_FILE_MOVE"}));
}

TEST_F(FilesystemProtocolTest, OpenDirectoryAnswersPathHandleAndCountWithoutDotNames) {
    writeTestFile("/mmc/card/.hidden", "");
    writeTestFile("/mmc/card/a.gdf", "");
    writeTestFile("/mmc/card/b.txt", "");
    const Message reply = request(MESSAGE_OPEN_DIRECTORY, "SS", "/mmc/card", "*.GDF");
    EXPECT_STREQ(reply.formatString(), "Sii");
    EXPECT_STREQ(reply.parameterAsString(0), "/mmc/card");
    EXPECT_EQ(reply.parameterAsInt32(1), 0);
    EXPECT_EQ(reply.parameterAsInt32(2), 1);
    EXPECT_EQ(log.lines(), logged({"MESSAGE_OPEN_DIRECTORY",
                                   "MESSAGE_OPEN_DIRECTORY file /mmc/card handle 0 fileCount 1"}));
}

TEST_F(FilesystemProtocolTest, CloseDirectoryAnswersTheHandleOnceAndThenBare) {
    const int handle = openFolder("/mmc");
    const Message reply = request(MESSAGE_CLOSE_DIRECTORY, "i", handle);
    EXPECT_STREQ(reply.formatString(), "i");
    EXPECT_EQ(reply.parameterAsInt32(0), handle);
    EXPECT_EQ(log.lines(), logged({"MESSAGE_CLOSE_DIRECTORY", "MESSAGE_CLOSE_DIRECTORY handle 0"}));
    EXPECT_TRUE(isBare(request(MESSAGE_CLOSE_DIRECTORY, "i", handle)));
    EXPECT_EQ(log.lines(), logged({"MESSAGE_CLOSE_DIRECTORY"}));
}

TEST_F(FilesystemProtocolTest, EntryAnswersNameLengthAndTimes) {
    writeTestFile("/mmc/file", "12345");
    const int handle = openFolder("/mmc");
    const Message reply = request(MESSAGE_GET_FILE_IN_DIR, "ii", handle, 0);
    EXPECT_STREQ(reply.formatString(), "iiSiii");
    EXPECT_EQ(reply.parameterAsInt32(0), handle);
    EXPECT_EQ(reply.parameterAsInt32(1), 0);
    EXPECT_STREQ(reply.parameterAsString(2), "file");
    EXPECT_EQ(reply.parameterAsInt32(3), 5);
    struct stat status;
    ASSERT_EQ(::stat("/mmc/file", &status), 0);
    EXPECT_EQ(reply.parameterAsInt32(5), status.st_mtim.tv_sec);
    const QByteArray detail =
        "MESSAGE_GET_FILE_IN_DIR handle 0 index 0 name file length 5 createTime " +
        QByteArray::number(reply.parameterAsInt32(4)) + " modifyTime " +
        QByteArray::number(reply.parameterAsInt32(5));
    EXPECT_EQ(log.lines(), logged({"MESSAGE_GET_FILE_IN_DIR", "file file", detail.constData()}));
}

TEST_F(FilesystemProtocolTest, FailedEntryLookUpIsLoggedBeforeItsBareReply) {
    const int handle = openFolder("/mmc");
    EXPECT_TRUE(isBare(request(MESSAGE_GET_FILE_IN_DIR, "ii", handle, 0)));
    EXPECT_EQ(log.lines(), logged({"MESSAGE_GET_FILE_IN_DIR", "dir index out of range!",
                                   "MESSAGE_GET_FILE_IN_DIR fileInDirectory failed"}));
    EXPECT_TRUE(isBare(request(MESSAGE_GET_FILE_IN_DIR, "ii", handle + 1, 0)));
    EXPECT_EQ(log.lines(),
              logged({"MESSAGE_GET_FILE_IN_DIR", "_handles does not contain the handle!",
                      "MESSAGE_GET_FILE_IN_DIR fileInDirectory failed"}));
}

TEST_F(FilesystemProtocolTest, EndlessNamesAreAnsweredAsFailures) {
    const QByteArray path = "/root/data/" + QByteArray(1 << 20, 'x');
    const Message reply = request(MESSAGE_FILE_OPEN, "Si", path.constData(), kReadWrite);
    EXPECT_EQ(reply.parameterAsInt32(1), -1);
    EXPECT_EQ(QByteArray(reply.parameterAsString(0)), path);
    const QByteArray climbing = "/root/data/" + QByteArray("a/../").repeated(200'000);
    EXPECT_TRUE(isBare(request(MESSAGE_FILE_DELETE, "S", climbing.constData())));
    const QByteArray stars(1 << 20, '*');
    const Message folder = request(MESSAGE_OPEN_DIRECTORY, "SS", "/mmc", stars.constData());
    EXPECT_EQ(folder.parameterAsInt32(2), 0);
}

TEST_F(FilesystemProtocolTest, ExtremeIntegersAreAnsweredAsFailures) {
    writeTestFile(kPath, "0123456789");
    const int handle = openByMessage();
    constexpr int kLowest = std::numeric_limits<int>::min();
    constexpr int kHighest = std::numeric_limits<int>::max();
    for (const int offset : {kLowest, -1, kHighest}) {
        for (const int length : {kLowest, -1, 1, kHighest}) {
            EXPECT_TRUE(isBare(request(MESSAGE_FILE_READ, "iii", handle, offset, length)));
            if (offset < 0 || length > 0) {
                EXPECT_TRUE(
                    isBare(request(MESSAGE_FILE_GENERATE_HASH, "iii", handle, offset, length)));
            }
        }
    }
    for (const int offset : {kLowest, -1}) {
        EXPECT_TRUE(isBare(request(MESSAGE_FILE_WRITE, "iiB", handle, offset, 1, "x")));
    }
    for (const int other : {kLowest, -1, handle + 1, kHighest}) {
        EXPECT_TRUE(isBare(request(MESSAGE_FILE_TRUNCATE, "ii", other, 0)));
        EXPECT_TRUE(isBare(request(MESSAGE_FILE_CLOSE, "i", other)));
    }
    EXPECT_EQ(readTestFile(kPath), "0123456789");
}

#include "tests/system/SystemTest.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>

namespace {

class RequestRoadTest : public SystemTest {};

struct Step {
    const char* request;
    const char* reply;
};

// All from connection 7. "2f726f6f742f646174612f" is "/root/data/".
constexpr Step kRoad[] = {
    // open "/root/data/a.txt" ReadOnly: handle 0, length 12
    {"07000000 00140000 536900 2f726f6f742f646174612f 612e74787400 01000000",
     "07000000 00140000 53696900 2f726f6f742f646174612f 612e74787400 00000000 0c000000"},
    // read handle 0 offset 6 length 5: "world"
    {"07000000 02140000 69696900 00000000 06000000 05000000",
     "07000000 02140000 69694200 00000000 06000000 05000000 776f726c64"},
    // read 100 bytes where 6 are left: bare
    {"07000000 02140000 69696900 00000000 06000000 64000000", "07000000 02140000 00"},
    // hash handle 0 offset 0 length 12: the 16 bytes of the MD5 of "hello world\n"
    {"07000000 04140000 69696900 00000000 00000000 0c000000",
     "07000000 04140000 69694200 00000000 00000000 10000000 6f5902ac237024bdd0c176cb93063dc4"},
    // hash beyond the end: bare
    {"07000000 04140000 69696900 00000000 00000000 0d000000", "07000000 04140000 00"},
    // write to a handle opened ReadOnly: bare
    {"07000000 03140000 69694200 00000000 00000000 01000000 78", "07000000 03140000 00"},
    // close handle 0, and once more: bare
    {"07000000 01140000 6900 00000000", "07000000 01140000 6900 00000000"},
    {"07000000 01140000 6900 00000000", "07000000 01140000 00"},
    // open "/root/data/b.txt" ReadWrite makes it: handle 1, length 0
    {"07000000 00140000 536900 2f726f6f742f646174612f 622e74787400 03000000",
     "07000000 00140000 53696900 2f726f6f742f646174612f 622e74787400 01000000 00000000"},
    // write "xyz" to handle 1 at offset 2: handle, length of the block
    {"07000000 03140000 69694200 01000000 02000000 03000000 78797a",
     "07000000 03140000 696900 01000000 03000000"},
    // truncate handle 1 to 4
    {"07000000 05140000 696900 01000000 04000000", "07000000 05140000 6900 01000000"},
    {"07000000 01140000 6900 01000000", "07000000 01140000 6900 01000000"},
    // move "/root/data/b.txt" to "/root/data/c.txt"
    {"07000000 11140000 535300 2f726f6f742f646174612f 622e74787400"
     "2f726f6f742f646174612f 632e74787400",
     "07000000 11140000 535300 2f726f6f742f646174612f 622e74787400"
     "2f726f6f742f646174612f 632e74787400"},
    // open "/root/data/b.txt" ReadOnly, which is gone: handle -1, length -1, a full reply
    {"07000000 00140000 536900 2f726f6f742f646174612f 622e74787400 01000000",
     "07000000 00140000 53696900 2f726f6f742f646174612f 622e74787400 ffffffff ffffffff"},
    // open directory "/root/data/d/" with "*": handle 3 (the failed open took 2), 2 entries
    {"07000000 50140000 535300 2f726f6f742f646174612f 642f00 2a00",
     "07000000 50140000 53696900 2f726f6f742f646174612f 642f00 03000000 02000000"},
    // entry 2 of it: bare
    {"07000000 52140000 696900 03000000 02000000", "07000000 52140000 00"},
    // open directory "/root/data/": cleaned it is "/root/data", outside the roots, and bare
    {"07000000 50140000 535300 2f726f6f742f646174612f 00 2a00", "07000000 50140000 00"},
    // close directory 3, and once more: bare
    {"07000000 51140000 6900 03000000", "07000000 51140000 6900 03000000"},
    {"07000000 51140000 6900 03000000", "07000000 51140000 00"},
    // truncate a handle that is not there: bare
    {"07000000 05140000 696900 63000000 00000000", "07000000 05140000 00"},
    // move of what is not there: bare
    {"07000000 11140000 535300 2f726f6f742f646174612f 7800 2f726f6f742f646174612f 7900",
     "07000000 11140000 00"},
    // delete "/root/data/c.txt", and once more: bare
    {"07000000 10140000 5300 2f726f6f742f646174612f 632e74787400",
     "07000000 10140000 5300 2f726f6f742f646174612f 632e74787400"},
    {"07000000 10140000 5300 2f726f6f742f646174612f 632e74787400", "07000000 10140000 00"},
    // open with one parameter too many ("Sii"): bare
    {"07000000 00140000 53696900 2f726f6f742f646174612f 612e74787400 01000000 00000000",
     "07000000 00140000 00"},
};

TEST_F(RequestRoadTest, EveryKindOfReplyIsExactToTheByte) {
    writeFile("/root/data/a.txt", "hello world\n");
    writeFile("/root/data/d/1", "");
    writeFile("/root/data/d/2", "");
    ASSERT_NO_FATAL_FAILURE(startBoth());
    for (const Step& step : kRoad) {
        _client.publish(topics::kStorage, fromHex(step.request));
        ASSERT_TRUE(_client.pumpUntil([&] { return repliesWaiting() > 0; }, 5000)) << step.request;
        const std::vector<Reply> replies = takeReplies();
        EXPECT_EQ(replies.size(), 1U) << step.request;
        EXPECT_EQ(toHex(littleEndian(replies[0].connection) + replies[0].payload),
                  toHex(fromHex(step.reply)))
            << step.request;
    }
    settle();
    EXPECT_EQ(deliveriesWaiting(), 0U);
    EXPECT_EQ(readFile("/root/data/a.txt"), "hello world\n");
    EXPECT_FALSE(exists("/root/data/c.txt"));
}

TEST_F(RequestRoadTest, AWriteIsInTheFileWhenItIsAnswered) {
    ASSERT_NO_FATAL_FAILURE(startBoth());
    const int handle = open("/root/data/w", kReadWrite);
    EXPECT_EQ(ask(requests::write(handle, 0, "first")).format, "ii");
    EXPECT_EQ(readFile("/root/data/w"), "first");
    EXPECT_EQ(ask(requests::write(handle, 3, std::string(1, '\0') + "two")).format, "ii");
    EXPECT_EQ(readFile("/root/data/w"), std::string("fir\0two", 7));
}

TEST_F(RequestRoadTest, ADirectoryEntryIsToldWithItsTimes) {
    const std::time_t before = std::time(nullptr);
    writeFile("/root/data/d/b.txt", "12345");
    mkdir("/root/data/d/sub", 0755);
    writeFile("/root/data/d/.hidden", "x");
    const timespec times[2] = {{1'600'000'000, 0}, {1'600'000'001, 0}};
    utimensat(AT_FDCWD, "/root/data/d/b.txt", times, 0);
    ASSERT_NO_FATAL_FAILURE(startBoth());

    const WireMessage opened = ask(requests::openDirectory("/root/data/d", "*"));
    ASSERT_EQ(opened.format, "Sii");
    EXPECT_EQ(opened.number(2), 2);
    const WireMessage file = ask(WireMessage(0x1452).integer(opened.number(1)).integer(0));
    ASSERT_EQ(file.format, "iiSiii");
    EXPECT_EQ(file.bytes(2), "b.txt");
    EXPECT_EQ(file.number(3), 5);
    EXPECT_GE(file.number(4), before - 1);
    EXPECT_EQ(file.number(5), 1'600'000'001);
    const WireMessage folder = ask(WireMessage(0x1452).integer(opened.number(1)).integer(1));
    ASSERT_EQ(folder.format, "iiSiii");
    EXPECT_EQ(folder.bytes(2), "sub");
    EXPECT_EQ(folder.number(3), -1);
}

TEST_F(RequestRoadTest, ARequestOfTheUnitsOwnProcessesIsAnsweredToConnectionZero) {
    writeFile("/root/data/a.txt", "hello");
    ASSERT_NO_FATAL_FAILURE(startBoth());
    for (const std::string& topic :
         {std::string(topics::kStorageManager), _daemon.commandTopic()}) {
        _client.publish(topic, requests::open("/root/data/a.txt", kReadOnly).encoded());
        EXPECT_EQ(replyTo(0).format, "Sii") << topic;
    }
}

TEST_F(RequestRoadTest, UnknownCodesAreNeitherAnsweredNorLogged) {
    ASSERT_NO_FATAL_FAILURE(startBoth());
    const std::size_t linesBefore = eventLines().size();
    for (const int code : {0x1406, 0x14B1, 0x13FF, 0x1453, -1, 2, 80, 234, 0x7FFFFFFF}) {
        send(WireMessage(code));
        send(WireMessage(code).integer(1).integer(2));
    }
    settle();
    EXPECT_EQ(deliveriesWaiting(), 0U);
    EXPECT_EQ(eventLines().size(), linesBefore);
    EXPECT_EQ(_daemon.log().find("Filesystem:"), std::string::npos);
}

TEST_F(RequestRoadTest, TheRoadOfARequestIsLoggedInOrder) {
    writeFile("/root/data/a.txt", "hello");
    ASSERT_NO_FATAL_FAILURE(startBoth());
    const int handle = open("/root/data/a.txt", kReadOnly);
    ask(requests::read(handle, 1, 3));
    open("/etc/passwd", kReadOnly);
    std::vector<std::string> written = _daemon.logLines();
    std::erase_if(written,
                  [](const std::string& line) { return !line.starts_with("Filesystem:"); });
    const std::vector<std::string> expected = {
        "Filesystem: MESSAGE_FILE_OPEN",
        "Filesystem: OPENED FILE \"/root/data/a.txt\"",
        "Filesystem: MESSAGE_FILE_OPEN file /root/data/a.txt handle 0 length 5",
        "Filesystem: MESSAGE_FILE_READ",
        "Filesystem: MESSAGE_FILE_READ handle 0 offset 1 length 3",
        "Filesystem: MESSAGE_FILE_OPEN",
        "Filesystem: INVALID FILENAME \"/etc/passwd\"",
        "Filesystem: MESSAGE_FILE_OPEN ***ERROR*** file /etc/passwd handle -1 length -1",
    };
    EXPECT_EQ(written, expected);
}

TEST_F(RequestRoadTest, AFifoOrADirectoryOrADeviceCannotBeOpened) {
    mkfifo("/root/data/fifo", 0600);
    mkdir("/root/data/folder", 0755);
    ASSERT_EQ(symlink("/dev/null", "/root/data/device"), 0);
    ASSERT_NO_FATAL_FAILURE(startBoth());
    for (const char* path : {"/root/data/fifo", "/root/data/folder", "/root/data/device"}) {
        for (const int flags : {kReadOnly, 2, kReadWrite, kWriteAppend}) {
            EXPECT_EQ(open(path, flags), -1) << path << " " << flags;
        }
    }
}

TEST_F(RequestRoadTest, ARead16MiBLongIsAnsweredAndOneByteMoreIsNot) {
    constexpr int kLimit = 16 * 1024 * 1024;
    std::string content(kLimit + 1, '\0');
    for (std::size_t i = 0; i < content.size(); ++i) {
        content[i] = static_cast<char>(i * 2654435761U >> 24);
    }
    writeFile("/root/data/big", content);
    ASSERT_NO_FATAL_FAILURE(startBoth());
    const int handle = open("/root/data/big", kReadOnly);
    const WireMessage reply = ask(requests::read(handle, 1, kLimit));
    ASSERT_EQ(reply.format, "iiB");
    EXPECT_TRUE(reply.bytes(2) == content.substr(1));
    EXPECT_TRUE(ask(requests::read(handle, 0, kLimit + 1)).isBare());
    EXPECT_TRUE(ask(requests::read(handle, 0, 0x7FFFFFFF)).isBare());
    EXPECT_TRUE(ask(requests::read(handle, 0, -1)).isBare());
}

TEST_F(RequestRoadTest, AWriteOf20MiBInOneRequestReachesTheDisk) {
    ASSERT_NO_FATAL_FAILURE(startBoth());
    const std::string content(20 * 1024 * 1024, 'w');
    const int handle = open("/root/data/w", kReadWrite);
    const WireMessage reply = replyTo(send(requests::write(handle, 0, content)), 20000);
    EXPECT_EQ(reply.format, "ii");
    EXPECT_TRUE(readFile("/root/data/w") == content);
}

}  // namespace

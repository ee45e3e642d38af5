#include "tests/tools/StoragectlFixture.h"

namespace {

class ListCommandTest : public StoragectlFixture {
protected:
    ListCommandTest() {
        daemon.files["/root/data/a/big"] = {QByteArray(1536, 'x'), 1'700'000'000};
        daemon.files["/root/data/a/small"] = {"x"};
        daemon.files["/root/data/a/sub/file"] = {"y"};
        qputenv("TZ", "Europe/Vienna");
        tzset();
    }
    ~ListCommandTest() override {
        qunsetenv("TZ");
        tzset();
    }
};

TEST_F(ListCommandTest, ListsADirectory) {
    EXPECT_EQ(run({"ls", "/root/data/a"}), 0);
    EXPECT_EQ(data, "big\nsmall\nsub\n");
    EXPECT_EQ(talk, "");
}

TEST_F(ListCommandTest, TheLongFormHasBytesAndLocalTimes) {
    EXPECT_EQ(run({"ls", "-l", "/root/data/a"}), 0);
    EXPECT_EQ(data,
              "-        1536 2023-11-14T23:13:20+01:00  big\n"
              "-           1 2023-11-14T23:13:20+01:00  small\n"
              "d           - 2020-09-13T14:26:40+02:00  sub\n");
    EXPECT_EQ(run({"ls", "-lh", "/root/data/a/big"}), 0);
    EXPECT_EQ(data, "-      1.5 KB 2023-11-14T23:13:20+01:00  big\n");
}

TEST_F(ListCommandTest, JsonIsOneObjectALine) {
    EXPECT_EQ(run({"ls", "--json", "/root/data/a/big", "/root/data/a/none"}), 3);
    EXPECT_EQ(data,
              "{\"command\":\"ls\",\"created\":\"2023-11-14T23:13:20+01:00\",\"directory\":"
              "\"/root/data/a\",\"modified\":\"2023-11-14T23:13:20+01:00\",\"name\":\"big\","
              "\"size\":1536,\"type\":\"file\"}\n"
              "{\"error\":\"/root/data/a/none: not found\",\"exitCode\":4,\"file\":"
              "\"/root/data/a/none\"}\n");
    EXPECT_EQ(talk, "");
}

TEST_F(ListCommandTest, AWildcardAndAPatternSelectNames) {
    EXPECT_EQ(run({"ls", "/root/data/a/s*"}), 0);
    EXPECT_EQ(data, "small\nsub\n");
    EXPECT_EQ(run({"ls", "-p", "[ab]*", "/root/data/a"}), 0);
    EXPECT_EQ(data, "big\n");
    EXPECT_EQ(run({"ls", "/root/data/a/z*"}), 4);
}

TEST_F(ListCommandTest, ANameThatIsAWildcardOfOthersOnlyIsListedAsItself) {
    daemon.files["/root/data/a/x[1]"] = {"x"};
    daemon.files["/root/data/a/d[1]/inside"] = {"y"};
    EXPECT_EQ(run({"ls", "/root/data/a/x[1]"}), 0);
    EXPECT_EQ(data, "x[1]\n");
    EXPECT_EQ(run({"ls", "/root/data/a/d[1]"}), 0);
    EXPECT_EQ(data, "inside\n");
    EXPECT_EQ(run({"ls", "/root/data/a/y[1]"}), 4);
    EXPECT_TRUE(talk.contains("no name matches")) << talk.constData();
}

TEST_F(ListCommandTest, MissingAndRefusedAndRootsAreToldApart) {
    EXPECT_EQ(run({"ls", "/root/data/none"}), 4);
    EXPECT_EQ(run({"ls", "/etc"}), 7);
    EXPECT_TRUE(talk.contains("below /root/data, /root/config and /mmc")) << talk.constData();
    for (const char* root : {"/root/data", "/root/data/*"}) {
        EXPECT_EQ(run({"ls", root}), 7);
        EXPECT_TRUE(talk.contains("for example /root/data/NAME")) << talk.constData();
    }
}

TEST_F(ListCommandTest, ManyEntriesComeInOrder) {
    QByteArray expected;
    for (int i = 1000; i < 1500; ++i) {
        daemon.files["/root/data/many/" + QByteArray::number(i)] = {};
        expected += QByteArray::number(i) + '\n';
    }
    EXPECT_EQ(run({"ls", "/root/data/many"}), 0);
    EXPECT_EQ(data, expected);
}

TEST_F(ListCommandTest, ANameWithASlashFromTheWireIsEscaped) {
    daemon.spoil = [](const Message& request, Message& reply) {
        if (request.command() == MESSAGE_GET_FILE_IN_DIR) {
            reply.construct(request.command(), "iiSiii", request.parameterAsInt32(0),
                            request.parameterAsInt32(1), "../../etc/passwd", 1, 2, 3);
        }
    };
    EXPECT_EQ(run({"ls", "/root/data/a"}), 0);
    EXPECT_FALSE(data.contains('/')) << data.constData();
}

TEST_F(ListCommandTest, AnAbsurdEntryCountEndsWithTheFirstRefusal) {
    daemon.spoil = [](const Message& request, Message& reply) {
        if (request.command() == MESSAGE_OPEN_DIRECTORY && reply.parameterCount() > 0) {
            const int handle = reply.parameterAsInt32(1);
            reply.construct(request.command(), "Sii", "x", handle, 2'147'483'647);
        }
    };
    EXPECT_EQ(run({"ls", "/root/data/a"}), 1);
    EXPECT_EQ(data, "big\nsmall\nsub\n");
}

TEST_F(ListCommandTest, AWrappedLengthIsNotShownAsASize) {
    daemon.pretendedSizes["/root/data/a/big"] = qint64{3} << 30;
    EXPECT_EQ(run({"ls", "-l", "/root/data/a/big"}), 0);
    EXPECT_TRUE(data.contains(">2147483647")) << data.constData();
}

TEST_F(ListCommandTest, HashesLookLikeMd5sums) {
    daemon.files["/root/data/a/back\\slash\n"] = {""};
    EXPECT_EQ(run({"hash", "/root/data/a/small", "/root/data/a/back\\slash\n"}), 0);
    EXPECT_EQ(data,
              "9dd4e461268c8034f5c8564e155c67a6  /root/data/a/small\n"
              "\\d41d8cd98f00b204e9800998ecf8427e  /root/data/a/back\\\\slash\\n\n");
    EXPECT_EQ(run({"hash", "/root/data/a/none"}), 4);
    EXPECT_EQ(run({"hash", "/root/data/a/sub"}), 1);
}

TEST_F(ListCommandTest, AHashOfAnotherLengthIsNoHash) {
    daemon.spoil = [](const Message& request, Message& reply) {
        if (request.command() == MESSAGE_FILE_GENERATE_HASH) {
            reply.construct(request.command(), "iiB", request.parameterAsInt32(0), 0, 3, "abc");
        }
    };
    EXPECT_EQ(run({"hash", "/root/data/a/small"}), 1);
    EXPECT_EQ(data, "");
}

TEST_F(ListCommandTest, ALargeFileMayTakeLongerToHash) {
    daemon.files["/root/data/a/huge"] = {QByteArray(64 * 1024 * 1024, 'x')};
    daemon.fate = [this](const Message& request) {
        clock.tick += request.command() == MESSAGE_FILE_GENERATE_HASH ? 15'000 : 0;
        return FakeDaemon::Fate::Answered;
    };
    EXPECT_EQ(run({"hash", "/root/data/a/huge"}), 0);
}

}  // namespace

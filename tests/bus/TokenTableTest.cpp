#include "bus/TokenTable.h"

#include <gtest/gtest.h>

namespace {

TEST(TokenTableTest, ATopicIsThePrefixAndTheNameWithSlashesForDots) {
    EXPECT_EQ(TokenTable("").topicOf("ConnectionManager.writeCount.7"),
              "ConnectionManager/writeCount/7");
    EXPECT_EQ(TokenTable("plant7/unit42/").topicOf("ConnectionManager.writeCount.7"),
              "plant7/unit42/ConnectionManager/writeCount/7");
}

TEST(TokenTableTest, DotsInThePrefixStayAsTheyAre) {
    EXPECT_EQ(TokenTable("v1.2/").topicOf("a.b"), "v1.2/a/b");
}

TEST(TokenTableTest, ANameThatIsEmptyOrHoldsAnMqttSignOrNulIsUnusable) {
    for (const QByteArray& name :
         {QByteArray(), QByteArray(""), QByteArray("a/b"), QByteArray("/"), QByteArray("a+"),
          QByteArray("+"), QByteArray("#"), QByteArray("a.#"), QByteArray("a\0b", 3),
          QByteArray("a\0", 2), QByteArray("\0", 1)}) {
        EXPECT_FALSE(TokenTable::isUsable(name)) << name.toHex().constData();
    }
    for (const char* name : {"a", ".", "a.b", "Message.ExtProc.to.17", "with space", "$x"}) {
        EXPECT_TRUE(TokenTable::isUsable(name)) << name;
    }
}

TEST(TokenTableTest, WishesAreCounted) {
    TokenTable table("");
    EXPECT_TRUE(table.want("a"));
    EXPECT_FALSE(table.want("a"));
    EXPECT_FALSE(table.want("a"));
    EXPECT_FALSE(table.unwant("a"));
    EXPECT_FALSE(table.unwant("a"));
    EXPECT_GE(table.find("a"), 0);
    EXPECT_TRUE(table.unwant("a"));
    EXPECT_EQ(table.find("a"), -1);
}

TEST(TokenTableTest, UnwantingWhatIsNotWantedChangesNothing) {
    TokenTable table("");
    EXPECT_FALSE(table.unwant("a"));
    table.want("a");
    table.unwant("a");
    EXPECT_FALSE(table.unwant("a"));
    EXPECT_TRUE(table.want("a"));
}

TEST(TokenTableTest, ATokenIsFoundByNameNumberAndTopic) {
    TokenTable table("u/");
    table.want("a.b");
    table.want("c");
    const int id = table.find("a.b");
    EXPECT_EQ(table.nameOf(id), "a.b");
    EXPECT_EQ(table.findTopic("u/a/b"), id);
    EXPECT_NE(table.find("c"), id);
    EXPECT_EQ(table.names(), (QList<QByteArray>{"a.b", "c"}));
}

TEST(TokenTableTest, TokensWithOneBeginningAreKeptApart) {
    TokenTable table("u/");
    const QList<QByteArray> names = {"a", "a.b", "a.b.7", "a.b.77", "ab"};
    for (const QByteArray& name : names) {
        EXPECT_TRUE(table.want(name));
    }
    EXPECT_TRUE(table.unwant("a.b.7"));
    EXPECT_EQ(table.findTopic("u/a/b/7"), -1);
    EXPECT_EQ(table.find("a.b.7"), -1);
    for (const QByteArray name : {"a", "a.b", "a.b.77", "ab"}) {
        const int id = table.find(name);
        EXPECT_EQ(table.nameOf(id), name);
        EXPECT_EQ(table.findTopic(table.topicOf(name).c_str()), id);
    }
}

TEST(TokenTableTest, WhatIsNotWantedIsNotFound) {
    TokenTable table("u/");
    table.want("a.b");
    EXPECT_EQ(table.find("a"), -1);
    EXPECT_EQ(table.find("a/b"), -1);
    EXPECT_EQ(table.find(""), -1);
    EXPECT_EQ(table.nameOf(-1), "");
    EXPECT_EQ(table.nameOf(99), "");
    EXPECT_EQ(table.findTopic("a/b"), -1);
    EXPECT_EQ(table.findTopic("u/a/b/"), -1);
    EXPECT_EQ(table.findTopic("u/a.b"), -1);
    EXPECT_EQ(table.findTopic(""), -1);
}

TEST(TokenTableTest, ANumberIsNotUsedAgain) {
    TokenTable table("");
    table.want("a");
    const int first = table.find("a");
    table.unwant("a");
    EXPECT_EQ(table.nameOf(first), "");
    EXPECT_EQ(table.findTopic("a"), -1);
    table.want("a");
    EXPECT_NE(table.find("a"), first);
    table.want("b");
    EXPECT_NE(table.find("b"), first);
}

TEST(TokenTableTest, WhoListensToEverythingGivesUnknownTopicsANumber) {
    TokenTable table("u/");
    EXPECT_EQ(table.everything(), "u/#");
    const int id = table.findOrAddTopic("u/x/y");
    ASSERT_GE(id, 0);
    EXPECT_EQ(table.nameOf(id), "x.y");
    EXPECT_EQ(table.findOrAddTopic("u/x/y"), id);
    EXPECT_EQ(table.findOrAddTopic("other/x"), -1);
}

TEST(TokenTableTest, AStrangersTopicWithADotKeepsOneNumber) {
    TokenTable table("");
    const int id = table.findOrAddTopic("a.b/c");
    ASSERT_GE(id, 0);
    EXPECT_EQ(table.findOrAddTopic("a.b/c"), id);
    EXPECT_EQ(table.names().size(), 1);
}

}  // namespace

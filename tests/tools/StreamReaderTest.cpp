#include "tools/storagectl/StreamReader.h"

#include "tests/tools/FakeDownloads.h"

#include <gtest/gtest.h>
#include <QRandomGenerator>

#include <lzf.h>

namespace {

using storagectl::StreamEvents;
using storagectl::StreamReader;

QByteArray record(int type, const QByteArray& payload = {}) {
    return FakeDownloads::record(type, payload);
}

/// What was told, a word an event.
class Told : public StreamEvents {
public:
    void began(Start start) override {
        static const char* const kNames[] = {"file",      "resumed",         "empty",  "nothing",
                                             "directory", "empty-directory", "failure"};
        words += kNames[static_cast<int>(start)];
        words += ' ';
    }
    void fileBytes(const char* data, qint64 length) override {
        words += '"' + QByteArray(data, length) + "\" ";
    }
    void directoryEntry(const Entry& entry) override {
        words += QByteArray(entry.isDirectory ? "d" : "f") + QByteArray::number(entry.size) + ',' +
                 QByteArray::number(entry.modified) + ',' + entry.name + ' ';
    }
    void failed(const QByteArray& reason) override { words += '!' + reason + ' '; }

    QByteArray words;
};

struct Reading {
    QByteArray words;
    QString fault;
    bool hasEnded = false;
};

Reading readIn(const QByteArray& stream, qsizetype pieceBytes) {
    Told told;
    StreamReader reader(told);
    for (qsizetype at = 0; at < stream.size(); at += pieceBytes) {
        const QByteArray piece = stream.mid(at, pieceBytes);
        reader.add(piece.constData(), piece.size());
    }
    return {told.words, reader.fault(), reader.hasEnded()};
}

Reading readAll(const QByteArray& stream) {
    return readIn(stream, stream.size());
}

// Type 0, 5 bytes, modified 1, name of 1 byte: "a".
const QByteArray kEntry = QByteArray::fromHex("00 05000000 01000000 01000000 61");

/// Every kind of record once: what stands in docs/formats.md and more.
QByteArray everything() {
    const QByteArray text(200, 'x');
    QByteArray shrunk(200, '\0');
    shrunk.resize(lzf_compress(text.constData(), 200, shrunk.data(), 199));
    return record(1 + 4, "hello") + record(2, shrunk) + record(1 + 4 + 16, "rest") + record(5) +
           record(21) + record(1 + 4 + 8, kEntry) + record(1 + 8, kEntry) + record(13) +
           record(132, "Missing") + record(1 + 4, "cut") + record(132, "Read error") + record(4);
}

const QByteArray kEverything = "file \"hello\" \"" + QByteArray(200, 'x') +
                               "\" resumed \"rest\" empty nothing directory f5,1,a f5,1,a "
                               "empty-directory failure !Missing file \"cut\" !Read error ";

TEST(StreamReaderTest, TellsEveryRecordHoweverThePiecesAreCut) {
    for (const int pieceBytes : {1, 2, 3, 5, 7, 64, 100'000}) {
        const Reading reading = readIn(everything(), pieceBytes);
        EXPECT_EQ(reading.words, kEverything) << pieceBytes;
        EXPECT_EQ(reading.fault, "");
        EXPECT_TRUE(reading.hasEnded);
    }
}

TEST(StreamReaderTest, AStreamCutAnywhereHasNoFaultAndNoEnd) {
    const QByteArray stream = everything();
    for (qsizetype length = 0; length < stream.size(); ++length) {
        const Reading reading = readAll(stream.left(length));
        EXPECT_EQ(reading.fault, "") << length;
        EXPECT_FALSE(reading.hasEnded) << length;
        EXPECT_TRUE(kEverything.startsWith(reading.words)) << length;
    }
}

TEST(StreamReaderTest, AnyByteMayBeWrongWithoutHarm) {
    const QByteArray stream = everything();
    QRandomGenerator random(1);
    for (qsizetype at = 0; at < stream.size(); ++at) {
        for (int i = 0; i < 8; ++i) {
            QByteArray damaged = stream;
            damaged[at] = static_cast<char>(random.bounded(256));
            const Reading reading = readIn(damaged, 11);
            EXPECT_FALSE(reading.hasEnded && !reading.fault.isEmpty());
        }
    }
}

TEST(StreamReaderTest, WhatNoDaemonSendsIsAFault) {
    const std::vector<std::pair<const char*, QByteArray>> streams = {
        {"unknown type", record(3, "x")},
        {"unknown type", record(64 + 1 + 4, "x")},
        {"empty record", record(0)},
        {"empty record", record(1)},
        {"empty record", record(2 + 4)},
        {"end with a payload", record(4, "x")},
        {"belongs to nothing", record(1, "x")},
        {"belongs to nothing", record(1 + 4, "x") + record(5) + record(1, "x")},
        {"belongs to nothing", record(1 + 4, "x") + record(132, "Missing") + record(1, "x")},
        {"belongs to nothing", record(1 + 4, "x") + record(1 + 8, kEntry)},
        {"belongs to nothing", record(1 + 4 + 8, kEntry) + record(1, "x")},
        {"wrong place", record(1 + 4, "x") + record(1 + 16, "x")},
        {"wrong place", record(1 + 4 + 8 + 16, kEntry)},
        {"too long", record(1 + 4, QByteArray(64'513, 'x'))},
        {"cannot be expanded", record(2 + 4, "\xff\xff\xff")},
        {"cut short", record(1 + 4 + 8, kEntry + kEntry.left(12))},
        {"name beyond the end", record(1 + 4 + 8, kEntry.chopped(1))},
        {"no type of an entry", record(1 + 4 + 8, '\2' + kEntry.mid(1))},
        {"huge name", record(1 + 4 + 8, QByteArray::fromHex("00 05000000 01000000 ffffffff 61"))},
        {"behind the end", record(4) + record(5)},
        {"behind the end", record(4) + "x"}};
    for (const auto& [name, stream] : streams) {
        for (const int pieceBytes : {1, 100'000}) {
            const Reading reading = readIn(stream, pieceBytes);
            EXPECT_NE(reading.fault, "") << name;
            EXPECT_FALSE(reading.hasEnded) << name;
        }
    }
}

TEST(StreamReaderTest, ABlockThatExpandsTo64512BytesIsTakenAndALongerOneIsNot) {
    for (const int length : {64'512, 64'513}) {
        const QByteArray zeros(length, '\0');
        QByteArray shrunk(length, '\0');
        shrunk.resize(
            lzf_compress(zeros.constData(), unsigned(length), shrunk.data(), unsigned(length) - 1));
        ASSERT_GT(shrunk.size(), 0);
        const Reading reading = readAll(record(2 + 4, shrunk) + record(4));
        EXPECT_EQ(reading.hasEnded, length == 64'512);
        EXPECT_EQ(reading.words == "file \"" + zeros + "\" ", length == 64'512);
    }
}

TEST(StreamReaderTest, AReadErrorBelongsToTheFileBeforeAndAnOpenErrorDoesNot) {
    EXPECT_EQ(readAll(record(1 + 4, "x") + record(132, "Read error")).words,
              "file \"x\" !Read error ");
    EXPECT_EQ(readAll(record(1 + 4, "x") + record(132, "Open error")).words,
              "file \"x\" failure !Open error ");
    EXPECT_EQ(readAll(record(132, "Read error")).words, "failure !Read error ");
}

TEST(StreamReaderTest, NothingIsTakenBehindAFault) {
    Told told;
    StreamReader reader(told);
    const QByteArray stream = record(3, "x");
    EXPECT_FALSE(reader.add(stream.constData(), stream.size()));
    const QByteArray file = record(5);
    EXPECT_FALSE(reader.add(file.constData(), file.size()));
    EXPECT_EQ(told.words, "");
}

}  // namespace

#pragma once

#include "datafile/DataFile.h"

#include "tests/support/DataFileBytes.h"
#include "tests/support/FakeClock.h"
#include "tests/support/Files.h"
#include "tests/support/LogCapture.h"
#include "tests/support/PlainRecordReader.h"
#include "tests/support/QtWarnings.h"

#include <gtest/gtest.h>

inline const QString kPath = QStringLiteral("/root/data/day.gdf");

/// What a reader is given, its records one after another from where it stands.
inline QList<QByteArray> restOf(DataFile& file) {
    QList<QByteArray> records;
    char buffer[256];
    DataFileRecord::Type type = -1;
    for (int length = 0; (length = file.readRecord(buffer, sizeof buffer, type)) >= 0;) {
        EXPECT_GE(length, 1);
        EXPECT_LE(length, 256);
        EXPECT_EQ(type, static_cast<quint8>(buffer[0]));
        EXPECT_EQ(file.location(), file.currentOffset());
        records += QByteArray(buffer, length);
    }
    return records;
}

/// A data file that is read, with what it logs.
class DataFileTest : public testing::Test {
protected:
    DataFileTest() { emptyRoots(); }

    /// A new file each time: to empty one and write it again makes some file systems wait for the
    /// storage.
    bool open(const QByteArray& contents) {
        QFile::remove(kPath);
        writeTestFile(kPath, contents);
        return _file.open(kPath, 0);
    }
    bool openAtRecords(const QByteArray& contents) {
        return open(contents) && _file.seekToFirstRecord();
    }
    bool openAtRecords(const char* hex) {
        return openAtRecords(DataFileBytes::header() + QByteArray::fromHex(hex));
    }
    int read() { return _file.readRecord(_buffer, sizeof _buffer, _type); }
    QByteArray readHex() {
        const int length = read();
        return length < 0 ? QByteArray("end") : QByteArray(_buffer, length).toHex();
    }
    void expectClosed();
    void expectPlainReadersRecords(const QByteArray& contents);

    FakeClock _clock;  // stands still: repeated lines are never counted up
    LogCapture _log;
    QtWarnings _warnings;
    DataFile _file{QStringLiteral("source")};
    char _buffer[256] = {};
    DataFileRecord::Type _type = -1;
};

inline void DataFileTest::expectClosed() {
    EXPECT_EQ(_file.filename(), QString());
    EXPECT_EQ(_file.header(), nullptr);
    EXPECT_EQ(_file.headerSize(), 0);
    EXPECT_EQ(_file.size(), 0);
    EXPECT_EQ(_file.location(), 0);
    EXPECT_EQ(_file.currentOffset(), 0);
    EXPECT_EQ(read(), -1);
    EXPECT_FALSE(_file.close());
}

inline void DataFileTest::expectPlainReadersRecords(const QByteArray& contents) {
    PlainRecordReader plain(contents);
    ASSERT_TRUE(openAtRecords(contents));
    ASSERT_EQ(restOf(_file), plain.rest());
    ASSERT_EQ(_file.currentOffset(), plain.offset());
    ASSERT_EQ(read(), -1);
}

/// Of every kind, the last one cut.
inline QByteArray someRecords() {
    return QByteArray::fromHex("0100F15365 320102030405060708 0205 00 28 33AABB 030001 64") +
           QByteArray(30, '\x05') + QByteArray::fromHex("06 0102");
}

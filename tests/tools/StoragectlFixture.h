#pragma once

#include "bus/PubSubInterface.h"
#include "tests/support/FakeClock.h"
#include "tests/tools/FakeDaemon.h"
#include "tools/storagectl/Commands.h"
#include "tools/storagectl/Interrupt.h"

#include <gtest/gtest.h>
#include <QFile>
#include <QTemporaryDir>

#include <sys/mman.h>
#include <unistd.h>
#include <memory>
#include <string>
#include <vector>

/// storagectl in this process, command line included, against a fake daemon.
class StoragectlFixture : public testing::Test {
protected:
    StoragectlFixture() : daemon(clock) { storagectl::Interrupt::clear(); }
    ~StoragectlFixture() override { storagectl::Interrupt::clear(); }

    /// Runs one command and returns its exit code. `data` and `talk` hold what it wrote.
    int run(const std::vector<std::string>& arguments) {
        std::vector<const char*> argv{"storagectl"};
        for (const std::string& argument : arguments) {
            argv.push_back(argument.c_str());
        }
        storagectl::Options options;
        const auto ended =
            storagectl::parseCommandLine(static_cast<int>(argv.size()), argv.data(), options);
        if (ended) {
            return static_cast<int>(*ended);
        }
        const int dataFile = memfd_create("data", 0);
        const int talkFile = memfd_create("talk", 0);
        const int code = runWith(options, dataFile, talkFile);
        data = contentsAndClose(dataFile);
        talk = contentsAndClose(talkFile);
        return code;
    }

    QByteArray local(const QByteArray& name) const {
        return folder.filePath(QString::fromUtf8(name)).toUtf8();
    }
    void writeLocal(const QByteArray& name, const QByteArray& contents) const {
        QFile file(QString::fromUtf8(local(name)));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        ASSERT_EQ(file.write(contents), contents.size());
    }
    QByteArray readLocal(const QByteArray& name) const {
        QFile file(QString::fromUtf8(local(name)));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<none>");
    }
    bool existsLocal(const QByteArray& name) const {
        return QFile::exists(QString::fromUtf8(local(name)));
    }

    /// Bytes that repeat nowhere near a chunk's length.
    static QByteArray someBytes(int length) {
        QByteArray bytes(length, Qt::Uninitialized);
        quint32 state = 1;
        for (char& byte : bytes) {
            state = state * 1'664'525 + 1'013'904'223;
            byte = static_cast<char>(state >> 24);
        }
        return bytes;
    }

    FakeClock clock;
    FakeDaemon daemon;
    bool brokerPresent = true;
    QTemporaryDir folder;
    QByteArray data;
    QByteArray talk;

private:
    int runWith(const storagectl::Options& options, int dataFile, int talkFile) {
        auto transport = std::make_unique<FakeTransport>();
        transport->setBrokerPresent(brokerPresent);
        daemon.attach(*transport);
        storagectl::Output output(dataFile, talkFile, options.style);
        PubSubInterface bus(nullptr, std::move(transport));
        const auto code = storagectl::runCommand(bus, options, output);
        daemon.detach();
        return static_cast<int>(code);
    }

    static QByteArray contentsAndClose(int descriptor) {
        QByteArray bytes(lseek(descriptor, 0, SEEK_END), Qt::Uninitialized);
        EXPECT_EQ(pread(descriptor, bytes.data(), static_cast<std::size_t>(bytes.size()), 0),
                  bytes.size());
        close(descriptor);
        return bytes;
    }
};

#pragma once

#include "tests/support/Broker.h"
#include "tests/support/DaemonProcess.h"
#include "tests/support/RawBusClient.h"
#include "tests/support/WireMessage.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

/// The real daemon on a real broker, with a neighbour that plays supervisor, connection manager
/// and remote client. The unit's roots are empty at the start of each test. Nothing runs until a
/// test starts it.
class SystemTest : public testing::Test {
protected:
    struct Reply {
        int connection = 0;
        std::string payload;  ///< the message's bytes
    };

    void SetUp() override;
    void TearDown() override;

    void startBroker();
    /// Starts the daemon on the broker and waits until it has answered a keep-alive.
    void startDaemon(DaemonProcess::Settings settings = {});
    void startBoth();

    /// Sends keep-alives until one is answered. True if that happened within the time.
    bool answersKeepAlive(int milliseconds);
    /// A keep-alive sent, and waited for, behind everything sent before: when it is answered, so
    /// is all that.
    void settle();

    /// Publishes a remote client's request, under a connection number of its own that it returns.
    int send(const WireMessage& request);
    void sendFrom(int connection, const std::string& payload);
    /// The reply to a connection; fails the test where none comes in time.
    WireMessage replyTo(int connection, int milliseconds = 5000);
    WireMessage ask(const WireMessage& request) { return replyTo(send(request)); }
    /// Opens a file and returns its handle, -1 where that fails.
    int open(const std::string& path, int flags);

    /// What came on "ConnectionManager.clientMessage" and was not taken, oldest first.
    std::vector<Reply> takeReplies();
    std::size_t repliesWaiting() const;
    /// The next delivery on a topic, which it takes; fails the test where none comes in time.
    std::string next(const std::string& topic, int milliseconds = 10'000);
    WireMessage nextMessage(const std::string& topic, int milliseconds = 10'000);
    /// Takes every delivery that waits on a topic, oldest first.
    std::vector<std::string> takeAll(const std::string& topic);
    /// How many deliveries wait on any topic of the daemon's.
    std::size_t deliveriesWaiting() const { return _client.deliveries.size(); }

    /// Returns when the broker has handed on everything published before.
    void handOver();

    /// The daemon's forked children and theirs, also those that outlived it.
    std::vector<pid_t> children() const;
    /// Waits until there are exactly so many.
    bool awaitChildren(std::size_t count, int milliseconds);

    /// The daemon's log without the line of every second, the keep-alives and the requests.
    std::vector<std::string> eventLines() const;

    static void writeFile(const std::string& path, const std::string& content);
    static std::string readFile(const std::string& path);
    static bool exists(const std::string& path);

    static constexpr int kReadOnly = 1;
    static constexpr int kReadWrite = 3;
    static constexpr int kWriteAppend = 2 | 4;

    Broker _broker;
    RawBusClient _client{_broker.socketPath()};
    DaemonProcess _daemon{SCADA_STORAGE_DAEMON};

private:
    int _lastConnection = 1000;
};

/// Requests of the file protocol, with their numbers written out once more: they are the wire's.
namespace requests {

WireMessage open(const std::string& path, int flags);
WireMessage close(int handle);
WireMessage read(int handle, int offset, int length);
WireMessage write(int handle, int offset, const std::string& bytes);
WireMessage move(const std::string& from, const std::string& to);
WireMessage openDirectory(const std::string& path, const std::string& filter);

}  // namespace requests

namespace topics {

inline constexpr char kStorage[] = "Message/storage";
inline constexpr char kStorageManager[] = "StorageManager/to";
inline constexpr char kDayFinished[] = "ThumbnailManager/dayFinished";
inline constexpr char kGaugeData[] = "HistoricalData/gaugeData";
inline constexpr char kClientMessage[] = "ConnectionManager/clientMessage";

}  // namespace topics

/// The daemon's log lines.
namespace lines {

inline constexpr char kLoop[] = "scada-storage-process: loop";
inline constexpr char kKeepAlive[] = "scada-storage-process: handled keepalive";
inline constexpr char kAborting[] = "scada-storage-process: no keepalive, aborting...";
inline constexpr char kExiting[] = "scada-storage-process: exiting!";
inline constexpr char kStarting[] = "scada-storage-process: scada-storage-process: starting";
inline constexpr char kQuit[] = "scada-storage-process: scada-storage-process: processMessage QUIT";

}  // namespace lines

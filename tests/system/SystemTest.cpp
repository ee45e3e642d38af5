#include "tests/system/SystemTest.h"

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace {

namespace fs = std::filesystem;

/// The sandbox binds a folder of another file system there; outside it these are a machine's own.
bool isSandboxed(const fs::path& root) {
    struct stat own {};
    struct stat above {};
    return stat(root.c_str(), &own) == 0 && stat(root.parent_path().c_str(), &above) == 0 &&
           own.st_dev != above.st_dev;
}

/// Whether a process is of the group and runs, or ran, the daemon.
bool isDaemonOf(const std::string& process, pid_t group) {
    std::ifstream file("/proc/" + process + "/stat");
    std::string text;
    std::getline(file, text);
    const std::size_t name = text.find("(scada-storage) ");
    if (name == std::string::npos) {
        return false;
    }
    std::istringstream fields(text.substr(text.rfind(')') + 1));
    std::string state;
    pid_t parent = 0;
    pid_t itsGroup = 0;
    fields >> state >> parent >> itsGroup;
    return itsGroup == group;
}

/// Both ends of a long text.
std::string shortened(const std::string& text) {
    constexpr std::size_t kEnd = 3000;
    if (text.size() <= 2 * kEnd) {
        return text;
    }
    return text.substr(0, kEnd) + "\n[...]\n" + text.substr(text.size() - kEnd);
}

}  // namespace

void SystemTest::SetUp() {
    for (const fs::path root : {"/root/data", "/root/config", "/mmc"}) {
        if (!isSandboxed(root)) {
            GTEST_FAIL() << root << " is not the sandbox's: run this through tests/support/sandbox";
        }
        for (const fs::directory_entry& entry : fs::directory_iterator(root)) {
            fs::remove_all(entry.path());
        }
    }
    for (const char* topic : {"ConnectionManager/#", "Message/ExtProc/from/+", "Notification/#",
                              "HistoricalData/#", "System/#"}) {
        _client.subscribe(topic);
    }
}

void SystemTest::TearDown() {
    const std::string log = _daemon.log();
    EXPECT_EQ(log.find("Sanitizer"), std::string::npos) << log;
    EXPECT_EQ(log.find("runtime error:"), std::string::npos) << log;
    if (HasFailure()) {
        std::cerr << "--- the daemon's log:\n" << shortened(log) << "---\n";
    }
}

void SystemTest::startBroker() {
    _broker.start();
    ASSERT_TRUE(_client.connect(5000));
}

void SystemTest::startDaemon(DaemonProcess::Settings settings) {
    settings.environment.try_emplace("SCADA_BUS_URL", _broker.url());
    _daemon.start(settings);
    _client.sendKeepAlivesOn(_daemon.commandTopic());
    ASSERT_TRUE(answersKeepAlive(5000));
}

void SystemTest::startBoth() {
    ASSERT_NO_FATAL_FAILURE(startBroker());
    ASSERT_NO_FATAL_FAILURE(startDaemon());
}

bool SystemTest::answersKeepAlive(int milliseconds) {
    constexpr int kIntervalMilliseconds = 20;
    const std::string topic = _daemon.replyTopic();
    const auto answered = [&] {
        return std::erase_if(_client.deliveries, [&](const RawBusClient::Delivery& delivery) {
                   return delivery.topic == topic;
               }) > 0;
    };
    // An answer to an earlier one proves nothing.
    answered();
    for (int waited = 0; waited < milliseconds; waited += kIntervalMilliseconds) {
        _client.publish(_daemon.commandTopic(), WireMessage(0).encoded());
        if (_client.pumpUntil(answered, kIntervalMilliseconds)) {
            return true;
        }
    }
    return false;
}

void SystemTest::settle() {
    _client.pump(50);
    ASSERT_TRUE(answersKeepAlive(10000));
    _client.pump(50);
    std::erase_if(_client.deliveries, [&](const RawBusClient::Delivery& delivery) {
        return delivery.topic == _daemon.replyTopic();
    });
}

int SystemTest::send(const WireMessage& request) {
    sendFrom(++_lastConnection, request.encoded());
    return _lastConnection;
}

void SystemTest::sendFrom(int connection, const std::string& payload) {
    _client.publish(topics::kStorage, littleEndian(connection) + payload);
}

WireMessage SystemTest::replyTo(int connection, int milliseconds) {
    std::optional<WireMessage> reply;
    const auto arrived = [&] {
        for (auto it = _client.deliveries.begin(); it != _client.deliveries.end(); ++it) {
            if (it->topic == topics::kClientMessage &&
                littleEndianAt(it->payload) == std::optional(connection)) {
                reply = WireMessage::decoded(std::string_view(it->payload).substr(4));
                _client.deliveries.erase(it);
                return true;
            }
        }
        return false;
    };
    if (!_client.pumpUntil(arrived, milliseconds)) {
        ADD_FAILURE() << "no reply to connection " << connection;
        return WireMessage(-1);
    }
    EXPECT_TRUE(reply.has_value()) << "the reply is no message";
    return reply.value_or(WireMessage(-1));
}

int SystemTest::open(const std::string& path, int flags) {
    const WireMessage reply = ask(requests::open(path, flags));
    return reply.format == "Sii" ? reply.number(1) : -1;
}

std::vector<SystemTest::Reply> SystemTest::takeReplies() {
    std::vector<Reply> replies;
    std::erase_if(_client.deliveries, [&](const RawBusClient::Delivery& delivery) {
        const std::optional<std::int32_t> connection = littleEndianAt(delivery.payload);
        if (delivery.topic != topics::kClientMessage || !connection) {
            return false;
        }
        replies.push_back({*connection, delivery.payload.substr(4)});
        return true;
    });
    return replies;
}

std::size_t SystemTest::repliesWaiting() const {
    return static_cast<std::size_t>(std::count_if(
        _client.deliveries.begin(), _client.deliveries.end(),
        [](const auto& delivery) { return delivery.topic == topics::kClientMessage; }));
}

std::string SystemTest::next(const std::string& topic, int milliseconds) {
    std::string payload;
    const auto arrived = [&] {
        const auto found = std::find_if(
            _client.deliveries.begin(), _client.deliveries.end(),
            [&](const RawBusClient::Delivery& delivery) { return delivery.topic == topic; });
        if (found == _client.deliveries.end()) {
            return false;
        }
        payload = found->payload;
        _client.deliveries.erase(found);
        return true;
    };
    EXPECT_TRUE(_client.pumpUntil(arrived, milliseconds)) << "nothing on " << topic;
    return payload;
}

WireMessage SystemTest::nextMessage(const std::string& topic, int milliseconds) {
    const auto message = WireMessage::decoded(next(topic, milliseconds));
    EXPECT_TRUE(message.has_value()) << topic;
    return message.value_or(WireMessage(-1));
}

std::vector<std::string> SystemTest::takeAll(const std::string& topic) {
    std::vector<std::string> payloads;
    std::erase_if(_client.deliveries, [&](const RawBusClient::Delivery& delivery) {
        if (delivery.topic != topic) {
            return false;
        }
        payloads.push_back(delivery.payload);
        return true;
    });
    return payloads;
}

void SystemTest::handOver() {
    constexpr char kMarker[] = "System/marker";
    _client.publish(kMarker, "");
    next(kMarker);
}

std::vector<pid_t> SystemTest::children() const {
    std::vector<pid_t> pids;
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc")) {
        const std::string process = entry.path().filename();
        if (isDaemonOf(process, getpgrp()) && process != std::to_string(_daemon.pid())) {
            pids.push_back(std::stoi(process));
        }
    }
    return pids;
}

bool SystemTest::awaitChildren(std::size_t count, int milliseconds) {
    using Clock = std::chrono::steady_clock;
    // Nothing is delivered when one ends.
    constexpr int kPollMilliseconds = 10;
    const Clock::time_point end = Clock::now() + std::chrono::milliseconds(milliseconds);
    while (children().size() != count) {
        if (Clock::now() >= end) {
            return false;
        }
        _client.pump(kPollMilliseconds);
    }
    return true;
}

std::vector<std::string> SystemTest::eventLines() const {
    std::vector<std::string> events = _daemon.logLines();
    std::erase_if(events, [](const std::string& line) {
        return line == lines::kLoop || line == lines::kKeepAlive || line.starts_with("Filesystem:");
    });
    return events;
}

void SystemTest::writeFile(const std::string& path, const std::string& content) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << content;
}

std::string SystemTest::readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

bool SystemTest::exists(const std::string& path) {
    return fs::exists(path);
}

WireMessage requests::open(const std::string& path, int flags) {
    return WireMessage(0x1400).text(path).integer(flags);
}

WireMessage requests::close(int handle) {
    return WireMessage(0x1401).integer(handle);
}

WireMessage requests::read(int handle, int offset, int length) {
    return WireMessage(0x1402).integer(handle).integer(offset).integer(length);
}

WireMessage requests::write(int handle, int offset, const std::string& bytes) {
    return WireMessage(0x1403).integer(handle).integer(offset).block(bytes);
}

WireMessage requests::move(const std::string& from, const std::string& to) {
    return WireMessage(0x1411).text(from).text(to);
}

WireMessage requests::openDirectory(const std::string& path, const std::string& filter) {
    return WireMessage(0x1450).text(path).text(filter);
}

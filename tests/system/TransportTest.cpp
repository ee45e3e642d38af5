#include "tests/system/SystemTest.h"

#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <thread>

namespace {

/// Listens on a port of 127.0.0.1. With something to say it says that to whoever comes and closes;
/// without, it never answers.
class WrongServer {
public:
    WrongServer(int port, std::string words) : _words(std::move(words)) {
        const int yes = 1;
        setsockopt(_socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(bind(_socket, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(listen(_socket, 16), 0);
        if (!_words.empty()) {
            _speaker = std::thread([this] { speak(); });
        }
    }
    ~WrongServer() {
        shutdown(_socket, SHUT_RDWR);
        if (_speaker.joinable()) {
            _speaker.join();
        }
        close(_socket);
    }
    WrongServer(const WrongServer&) = delete;
    WrongServer& operator=(const WrongServer&) = delete;

private:
    void speak() {
        for (int peer = 0; (peer = accept4(_socket, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
            ::send(peer, _words.data(), _words.size(), MSG_NOSIGNAL);
            close(peer);
        }
    }

    const int _socket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const std::string _words;
    std::thread _speaker;
};

class TransportTest : public SystemTest {
protected:
    std::string file(const std::string& name) const { return _broker.folder() + "/" + name; }

    void shell(const std::string& command) {
        const std::string all =
            "cd " + _broker.folder() + " && { " + command + "; } >/dev/null 2>&1";
        ASSERT_EQ(std::system(all.c_str()), 0) << command;
    }

    /// An authority `name`.pem and `name`.key.
    void makeAuthority(const std::string& name) {
        shell("openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=" + name + " -keyout " +
              name + ".key -out " + name + ".pem");
    }

    /// A certificate NAME.pem and NAME.key signed by `authority`.
    void makeCertificate(const std::string& name, const std::string& authority) {
        std::ofstream(file("names")) << "subjectAltName=DNS:localhost,IP:127.0.0.1\n";
        shell("openssl req -newkey rsa:2048 -nodes -subj /CN=" + name + " -keyout " + name +
              ".key -out " + name + ".csr && openssl x509 -req -in " + name + ".csr -CA " +
              authority + ".pem -CAkey " + authority +
              ".key -CAcreateserial -days 2 -extfile names" + " -out " + name + ".pem");
    }

    std::string tlsListener(const std::string& further = "") const {
        return "listener " + std::to_string(_port) + "\nallow_anonymous true\ncafile " +
               file("ca.pem") + "\ncertfile " + file("server.pem") + "\nkeyfile " +
               file("server.key") + "\n" + further;
    }

    std::string address() const { return "127.0.0.1:" + std::to_string(_port); }

    void expectItServes() {
        writeFile("/root/data/a.txt", std::string(300'000, 't'));
        const int handle = open("/root/data/a.txt", kReadOnly);
        const WireMessage reply = ask(requests::read(handle, 0, 300'000));
        ASSERT_EQ(reply.format, "iiB");
        EXPECT_EQ(reply.bytes(2).size(), 300'000U);
    }

    /// The daemon lives, is not heard on the bus, and has said why once.
    void expectItIsRefusedAndGoesOn() {
        EXPECT_FALSE(answersKeepAlive(2500));
        EXPECT_TRUE(_daemon.isRunning());
        EXPECT_LE(eventLines().size(), 3U) << _daemon.log();
        EXPECT_GE(eventLines().size(), 2U) << _daemon.log();
    }

    /// With nothing of use at the address: it lives, sleeps, and has said why once.
    void expectItGoesOnAtRest(const std::string& scheme) {
        _daemon.start({.environment = {{"SCADA_BUS_URL", scheme + address()}}});
        ASSERT_TRUE(_daemon.waitForLog(lines::kStarting, 3000));
        const double cpuBefore = _daemon.cpuSeconds();
        _client.pump(2500);
        EXPECT_GT(cpuBefore, 0.0);
        EXPECT_LT(_daemon.cpuSeconds() - cpuBefore, 0.25);
        EXPECT_TRUE(_daemon.isRunning());
        EXPECT_LE(eventLines().size(), 2U);
        EXPECT_EQ(_daemon.log().find("SIGPIPE"), std::string::npos);
    }

    const int _port = Broker::freePort();
};

TEST_F(TransportTest, ItJoinsOverTcpAndComesBack) {
    _broker.addConfiguration("listener " + std::to_string(_port) +
                             " 127.0.0.1\nallow_anonymous true\n");
    ASSERT_NO_FATAL_FAILURE(startBroker());
    ASSERT_NO_FATAL_FAILURE(
        startDaemon({.environment = {{"SCADA_BUS_URL", "mqtt://" + address()}}}));
    expectItServes();
    _broker.kill();
    _client.pump(300);
    ASSERT_NO_FATAL_FAILURE(startBroker());
    EXPECT_TRUE(answersKeepAlive(1000));
    expectItServes();
}

TEST_F(TransportTest, OverTcpItRestsWhileTheBrokerIsAway) {
    expectItGoesOnAtRest("mqtt://");
}

TEST_F(TransportTest, OverTlsItRestsWhileTheBrokerIsAway) {
    expectItGoesOnAtRest("mqtts://");
}

TEST_F(TransportTest, OverTcpItRestsWhileABrokerDoesNotAnswer) {
    const WrongServer server(_port, "");
    expectItGoesOnAtRest("mqtt://");
}

TEST_F(TransportTest, OverTlsItRestsWhileABrokerDoesNotAnswer) {
    const WrongServer server(_port, "");
    expectItGoesOnAtRest("mqtts://");
}

TEST_F(TransportTest, OverTcpAServerThatIsNoBrokerIsLivedThrough) {
    const WrongServer server(_port, "HTTP/1.1 400 Bad Request\r\n\r\n");
    expectItGoesOnAtRest("mqtt://");
}

TEST_F(TransportTest, OverTlsAServerThatIsNoBrokerIsLivedThrough) {
    const WrongServer server(_port, "HTTP/1.1 400 Bad Request\r\n\r\n");
    expectItGoesOnAtRest("mqtts://");
}

TEST_F(TransportTest, ABrokerThatClosesAtOnceIsLivedThrough) {
    // A CONNACK that accepts, and the end of the connection behind it.
    const WrongServer server(_port, fromHex("20020000"));
    _daemon.start({.environment = {{"SCADA_BUS_URL", "mqtt://" + address()}}});
    ASSERT_TRUE(_daemon.waitForLog(lines::kStarting, 3000));
    const double cpuBefore = _daemon.cpuSeconds();
    _client.pump(2500);
    EXPECT_LT(_daemon.cpuSeconds() - cpuBefore, 0.25);
    EXPECT_TRUE(_daemon.isRunning());
    // A connection a second at the most, and two lines for each.
    EXPECT_LE(eventLines().size(), 20U);
}

TEST_F(TransportTest, ItJoinsWithUserAndPassword) {
    shell("mosquitto_passwd -c -b passwords operator s3cret");
    _broker.addConfiguration("listener " + std::to_string(_port) +
                             " 127.0.0.1\nallow_anonymous false\npassword_file " +
                             file("passwords") + "\n");
    ASSERT_NO_FATAL_FAILURE(startBroker());
    ASSERT_NO_FATAL_FAILURE(
        startDaemon({.environment = {{"SCADA_BUS_URL", "mqtt://operator:s3cret@" + address()}}}));
    expectItServes();
    EXPECT_EQ(_daemon.log().find("s3cret"), std::string::npos);
}

TEST_F(TransportTest, AWrongPasswordIsLoggedOnceAndTriedAgain) {
    shell("mosquitto_passwd -c -b passwords operator other");
    _broker.addConfiguration("listener " + std::to_string(_port) +
                             " 127.0.0.1\nallow_anonymous false\npassword_file " +
                             file("passwords") + "\n");
    ASSERT_NO_FATAL_FAILURE(startBroker());
    _daemon.start({.environment = {{"SCADA_BUS_URL", "mqtt://operator:s3cret@" + address()}}});
    expectItIsRefusedAndGoesOn();
    EXPECT_EQ(_daemon.log().find("s3cret"), std::string::npos);

    shell("mosquitto_passwd -b passwords operator s3cret");
    _broker.signal(SIGHUP);
    EXPECT_TRUE(answersKeepAlive(2500));
}

TEST_F(TransportTest, ItJoinsOverTlsByTheAuthorityThatItIsGiven) {
    makeAuthority("ca");
    makeCertificate("server", "ca");
    _broker.addConfiguration(tlsListener());
    ASSERT_NO_FATAL_FAILURE(startBroker());
    ASSERT_NO_FATAL_FAILURE(startDaemon({.environment = {{"SCADA_BUS_URL", "mqtts://" + address()},
                                                         {"SCADA_BUS_CAFILE", file("ca.pem")}}}));
    expectItServes();
    _broker.kill();
    _client.pump(300);
    ASSERT_NO_FATAL_FAILURE(startBroker());
    EXPECT_TRUE(answersKeepAlive(1500));
}

TEST_F(TransportTest, OverTlsADrainOfManyRequestsIsAnsweredWhole) {
    makeAuthority("ca");
    makeCertificate("server", "ca");
    _broker.addConfiguration(tlsListener());
    ASSERT_NO_FATAL_FAILURE(startBroker());
    ASSERT_NO_FATAL_FAILURE(startDaemon({.environment = {{"SCADA_BUS_URL", "mqtts://" + address()},
                                                         {"SCADA_BUS_CAFILE", file("ca.pem")}}}));
    writeFile("/root/data/a.txt", std::string(4096, 't'));
    const int handle = open("/root/data/a.txt", kReadOnly);
    constexpr int kRequests = 2000;
    for (int i = 0; i < kRequests; ++i) {
        sendFrom(i, requests::read(handle, 0, 4096).encoded());
    }
    // Bytes that TLS has decrypted and not handed out are not seen by a poll on the socket.
    ASSERT_TRUE(_client.pumpUntil([&] { return repliesWaiting() == kRequests; }, 10000))
        << repliesWaiting();
    const std::vector<Reply> replies = takeReplies();
    for (int i = 0; i < kRequests; ++i) {
        ASSERT_EQ(replies[static_cast<std::size_t>(i)].connection, i);
    }
}

TEST_F(TransportTest, ABrokerOfAnotherAuthorityIsRefusedLoggedAndTriedAgain) {
    makeAuthority("ca");
    makeAuthority("other");
    makeCertificate("server", "ca");
    _broker.addConfiguration(tlsListener());
    ASSERT_NO_FATAL_FAILURE(startBroker());
    _daemon.start({.environment = {{"SCADA_BUS_URL", "mqtts://" + address()},
                                   {"SCADA_BUS_CAFILE", file("other.pem")}}});
    expectItIsRefusedAndGoesOn();
    EXPECT_EQ(_broker.log().find("as scada-storage-process"), std::string::npos);

    shell("cp ca.pem other.pem");
    EXPECT_TRUE(answersKeepAlive(2500)) << "a corrected file is read with the next attempt";
}

TEST_F(TransportTest, ABrokerUnderAnotherNameIsRefused) {
    makeAuthority("ca");
    makeCertificate("server", "ca");
    _broker.addConfiguration(tlsListener());
    ASSERT_NO_FATAL_FAILURE(startBroker());
    _daemon.start({.environment = {{"SCADA_BUS_URL", "mqtts://127.0.0.2:" + std::to_string(_port)},
                                   {"SCADA_BUS_CAFILE", file("ca.pem")}}});
    expectItIsRefusedAndGoesOn();
}

TEST_F(TransportTest, ItShowsItsClientCertificate) {
    makeAuthority("ca");
    makeCertificate("server", "ca");
    makeCertificate("client", "ca");
    _broker.addConfiguration(tlsListener("require_certificate true\n"));
    ASSERT_NO_FATAL_FAILURE(startBroker());
    ASSERT_NO_FATAL_FAILURE(
        startDaemon({.environment = {{"SCADA_BUS_URL", "mqtts://" + address()},
                                     {"SCADA_BUS_CAFILE", file("ca.pem")},
                                     {"SCADA_BUS_CERTFILE", file("client.pem")},
                                     {"SCADA_BUS_KEYFILE", file("client.key")}}}));
    expectItServes();
}

}  // namespace

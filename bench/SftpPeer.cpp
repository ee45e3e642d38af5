#include "bench/SftpPeer.h"

#include <QtEndian>

#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

namespace {

// Packet types of the file transfer protocol, version 3.
constexpr char kInit = 1;
constexpr char kVersion = 2;
constexpr char kOpen = 3;
constexpr char kRead = 5;
constexpr char kHandle = 102;
constexpr char kData = 103;

constexpr std::uint32_t kProtocolVersion = 3;
constexpr std::uint32_t kOpenForReading = 1;
constexpr std::uint32_t kReadOffset = 8192;
/// Type and request id.
constexpr std::size_t kReplyHeaderBytes = 1 + 4;

std::string number(std::uint32_t value) {
    std::string bytes(4, '\0');
    qToBigEndian(value, bytes.data());
    return bytes;
}

std::string text(const std::string& bytes) {
    return number(static_cast<std::uint32_t>(bytes.size())) + bytes;
}

}  // namespace

std::string SftpPeer::program() {
    const std::string path = "/usr/lib/openssh/sftp-server";
    return access(path.c_str(), X_OK) == 0 ? path : std::string();
}

SftpPeer::SftpPeer(const std::string& path) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) {
        throw std::runtime_error("no socket pair");
    }
    const std::string end = std::to_string(ends[1]);
    _server.start({{"sh", "-c", "exec " + program() + " <&" + end + " >&" + end}, {}, 0});
    close(ends[1]);
    _descriptor = ends[0];
    send(kInit + number(kProtocolVersion));
    if (receive()[0] != kVersion) {
        throw std::runtime_error("the sftp server speaks another protocol");
    }
    send(kOpen + number(0) + text(path) + number(kOpenForReading) + number(0));
    const std::string reply = receive();
    if (reply[0] != kHandle) {
        throw std::runtime_error("the sftp server did not open the file");
    }
    _handle = reply.substr(kReplyHeaderBytes);
}

SftpPeer::~SftpPeer() {
    close(_descriptor);
}

void SftpPeer::exchange(int count, int underWay) {
    const std::string read =
        kRead + number(1) + _handle + number(0) + number(kReadOffset) + number(kReadBytes);
    int sent = 0;
    for (int answered = 0; answered < count; ++answered) {
        for (; sent < count && sent - answered < underWay; ++sent) {
            send(read);
        }
        const std::string reply = receive();
        if (reply[0] != kData || reply.size() != kReplyHeaderBytes + 4 + kReadBytes) {
            throw std::runtime_error("the sftp server did not read");
        }
    }
}

void SftpPeer::send(const std::string& packet) const {
    const std::string bytes = text(packet);
    if (::send(_descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL) !=
        static_cast<ssize_t>(bytes.size())) {
        throw std::runtime_error("the sftp server does not take a request");
    }
}

std::string SftpPeer::receive() const {
    char length[4];
    receiveBytes(length, sizeof length);
    std::string packet(qFromBigEndian<std::uint32_t>(length), '\0');
    receiveBytes(packet.data(), packet.size());
    if (packet.size() < kReplyHeaderBytes) {
        throw std::runtime_error("the sftp server sent a stump");
    }
    return packet;
}

void SftpPeer::receiveBytes(char* target, std::size_t length) const {
    if (recv(_descriptor, target, length, MSG_WAITALL) != static_cast<ssize_t>(length)) {
        throw std::runtime_error("the sftp server is gone");
    }
}

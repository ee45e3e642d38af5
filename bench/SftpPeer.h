#pragma once

#include "tests/support/ChildProcess.h"

#include <cstdint>
#include <string>

/// An sftp-server on a socket pair, reading 4 KB pieces of one file: what the same work costs with
/// no broker between. Throws where the server does not do as asked.
class SftpPeer {
public:
    static constexpr std::uint32_t kReadBytes = 4096;

    /// Where the system keeps the program; empty where it is not installed.
    static std::string program();

    /// Starts the server and opens the file, which must hold at least 12 KB.
    explicit SftpPeer(const std::string& path);
    ~SftpPeer();
    SftpPeer(const SftpPeer&) = delete;
    SftpPeer& operator=(const SftpPeer&) = delete;

    /// Makes `count` reads, with at most `underWay` of them unanswered at any time.
    void exchange(int count, int underWay);
    double cpuSeconds() const { return _server.cpuSeconds(); }

private:
    void send(const std::string& packet) const;
    std::string receive() const;
    void receiveBytes(char* target, std::size_t length) const;

    ChildProcess _server;
    int _descriptor = -1;
    std::string _handle;
};

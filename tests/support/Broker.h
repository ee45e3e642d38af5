#pragma once

#include "tests/support/ChildProcess.h"

/// A private broker on a Unix socket in a temporary folder, with the settings that the project
/// ships for a unit's broker.
class Broker : public ChildProcess {
public:
    Broker();
    ~Broker() override;

    /// Lines of configuration for the next start, after those for the Unix socket.
    void addConfiguration(const std::string& lines) { _furtherLines += lines; }

    /// Returns when connections are taken. Throws where that does not happen within 5 s.
    void start();
    void pause() const;
    void resume() const;

    const std::string& folder() const { return _folder; }
    std::string socketPath() const { return _folder + "/socket"; }
    std::string url() const { return "mqtt+unix://" + socketPath(); }

    /// A TCP port of 127.0.0.1 that nobody listened on a moment ago.
    static int freePort();

private:
    std::string _folder;
    std::string _furtherLines;
};

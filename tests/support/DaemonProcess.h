#pragma once

#include "tests/support/ChildProcess.h"

#include <string>

/// The storage daemon as a test starts it.
class DaemonProcess : public ChildProcess {
public:
    struct Settings {
        std::map<std::string, std::string> environment = {};
        int extraDescriptors = 0;
        std::vector<std::string> arguments = {};
    };

    explicit DaemonProcess(std::string program) : _program(std::move(program)) {}

    void start(const Settings& settings);
    void pause() const;
    void resume() const;

    /// The topics of its own tokens.
    std::string commandTopic() const;
    std::string replyTopic() const;

private:
    std::string _program;
};

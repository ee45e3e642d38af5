#include "tests/support/DaemonProcess.h"

#include <signal.h>

void DaemonProcess::start(const Settings& settings) {
    std::vector<std::string> command{_program};
    command.insert(command.end(), settings.arguments.begin(), settings.arguments.end());
    ChildProcess::start({.command = command,
                         .environment = settings.environment,
                         .extraDescriptors = settings.extraDescriptors});
}

void DaemonProcess::pause() const {
    signal(SIGSTOP);
}

void DaemonProcess::resume() const {
    signal(SIGCONT);
}

std::string DaemonProcess::commandTopic() const {
    return "Message/ExtProc/to/" + std::to_string(pid());
}

std::string DaemonProcess::replyTopic() const {
    return "Message/ExtProc/from/" + std::to_string(pid());
}

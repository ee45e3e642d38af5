#include "bus/PubSubInterface.h"
#include "tools/storagectl/CommandLine.h"
#include "tools/storagectl/Commands.h"
#include "tools/storagectl/Interrupt.h"

#include <fcntl.h>
#include <unistd.h>

namespace {

/// Standard descriptors that the caller closed would be given to the connection, and data and
/// talk written into it. Opened for reading only, they fail to be written as closed ones do.
/// Before all static objects, which open descriptors too.
[[gnu::constructor(101)]] void occupyClosedDescriptors() {
    int descriptor = 0;
    while (descriptor >= 0 && descriptor <= STDERR_FILENO) {
        descriptor = open("/dev/null", O_RDONLY);
    }
    if (descriptor >= 0) {
        close(descriptor);
    }
}

}  // namespace

int main(int argc, char** argv) {
    storagectl::Options options;
    const auto ended = storagectl::parseCommandLine(argc, argv, options);
    if (ended) {
        return static_cast<int>(*ended);
    }
    storagectl::Output output(STDOUT_FILENO, STDERR_FILENO, options.style);
    PubSubInterface bus(nullptr);
    storagectl::Interrupt::install();
    return static_cast<int>(storagectl::runCommand(bus, options, output));
}

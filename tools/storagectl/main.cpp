#include "bus/PubSubInterface.h"
#include "tools/storagectl/CommandLine.h"
#include "tools/storagectl/Commands.h"
#include "tools/storagectl/Interrupt.h"

#include <unistd.h>

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

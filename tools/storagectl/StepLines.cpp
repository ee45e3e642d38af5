#include "tools/storagectl/StepLines.h"

#include <poll.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>

namespace storagectl {

StepLines::StepLines(int descriptor)
    : _descriptor(descriptor), _isTerminal(isatty(descriptor) == 1) {}

int StepLines::take() {
    pollfd ready = {_descriptor, POLLIN, 0};
    const bool mayRead = !_isTerminal || tcgetpgrp(_descriptor) == getpgrp();
    if (_hasEnded || !mayRead || ::poll(&ready, 1, 0) <= 0) {
        return 0;
    }
    char bytes[4096];
    const ssize_t length = ::read(_descriptor, bytes, sizeof bytes);
    _hasEnded = length == 0 || (length < 0 && errno != EINTR && errno != EAGAIN);
    return length > 0 ? static_cast<int>(std::count(bytes, bytes + length, '\n')) : 0;
}

}  // namespace storagectl

#pragma once

namespace storagectl {

/// Counts the lines that come on a descriptor, without ever waiting for one. A terminal is left
/// alone while another process group has it. The descriptor stays the caller's.
class StepLines {
public:
    explicit StepLines(int descriptor);

    /// Lines since the last call.
    int take();
    bool isTerminal() const { return _isTerminal; }
    bool hasEnded() const { return _hasEnded; }

private:
    int _descriptor;
    bool _isTerminal;
    bool _hasEnded = false;
};

}  // namespace storagectl

#pragma once

#include "tools/storagectl/Connection.h"

namespace storagectl {

class Output;

/// How often work over a conversation that breaks is taken up again: so many attempts in a row
/// without any progress. A daemon that never answered is not waited for again.
class Retries {
public:
    /// Both the caller's, and living longer.
    Retries(Connection& connection, Output& output, int most)
        : _connection(connection), _output(output), _most(most), _left(most) {}

    /// After an attempt that ended so. Done where the next may begin, on a new connection number;
    /// else what to end with: the outcome itself, or an interrupt of the `subject`.
    Outcome next(const Outcome& outcome, bool hadProgress, const QString& subject);
    /// The same where the daemon had no room: pauses, each time for longer.
    Outcome nextAfterRefusal(const Outcome& outcome, const QString& subject);

private:
    Connection& _connection;
    Output& _output;
    int _most;
    int _left;
};

}  // namespace storagectl

#pragma once

#include <QString>

namespace storagectl {

/// The exit codes, fixed for scripts.
enum class ExitCode : int {
    Done = 0,
    Failed = 1,
    Usage = 2,
    Partly = 3,  ///< some of several files
    NotFound = 4,
    Integrity = 5,  ///< what arrived is not what was sent
    LocalFile = 6,
    Unsafe = 7,  ///< refused, here or by the daemon
    NoBroker = 10,
    NoDaemon = 11,
    BadEnvironment = 78,  ///< the bus library's: SCADA_BUS_... cannot be used
    Interrupted = 130,
};

/// How a piece of work ended: a code, and a sentence for people unless it is Done. `mayRetry`
/// marks a break in the conversation, after which the same work can be taken up again.
struct Outcome {
    ExitCode code = ExitCode::Done;
    QString message;
    bool mayRetry = false;
    bool isOfAll = false;  ///< whatever the code, it would be the same for every other file

    bool isDone() const { return code == ExitCode::Done; }
    /// No other file of the command can fare better.
    bool isHopeless() const {
        return isOfAll || code == ExitCode::NoBroker || code == ExitCode::NoDaemon ||
               code == ExitCode::Interrupted;
    }
    static Outcome done() { return {}; }
    static Outcome failure(ExitCode code, const QString& message) { return {code, message, false}; }
};

/// Adds up the outcomes of several files: Done if all are, Partly if some are, else the failures'
/// common code, or Failed where they differ.
class Tally {
public:
    void add(const Outcome& outcome);
    ExitCode code() const;

private:
    bool _anyDone = false;
    bool _anyFailed = false;
    ExitCode _failure = ExitCode::Done;
};

}  // namespace storagectl

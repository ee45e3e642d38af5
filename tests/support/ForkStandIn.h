#pragma once

#include <sys/types.h>

/// Stands in front of the system's fork for this program while it lives, and counts how often it
/// is asked. One at a time.
class ForkStandIn {
public:
    enum class Outcome {
        Works,
        Fails,
        /// No process is made: the pid is one that nobody has, as of a child that is gone already.
        EndsAtOnce,
        /// No process is made: the pid is this one's own, as of a child that is gone and whose
        /// pid another process has by now.
        IsAnothers,
        /// A child that does nothing until this stand-in goes.
        IsBusy,
        /// No process is made: this one goes on as its own child, and where that ends, EndOfChild
        /// is thrown.
        IsPlayed,
    };

    struct EndOfChild {
        int status;
    };

    explicit ForkStandIn(Outcome outcome);
    ~ForkStandIn();
    ForkStandIn(const ForkStandIn&) = delete;
    ForkStandIn& operator=(const ForkStandIn&) = delete;

    void set(Outcome outcome);
    int count() const;
};

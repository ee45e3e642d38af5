#pragma once

#include <QtGlobal>

/// When to do what to the daemon, and nothing of how: no process, no bus, only the process's
/// clock. One daemon at a time, in three phases: a pause before a start, a run, and, once a stop
/// is requested, the stop. The supervisor asks for what is due until nothing is, tells what
/// happened, and sleeps for `millisecondsToNext` in between.
///
/// It never gives up: after a run that ended without being stopped comes another, whatever the
/// reason was. The pauses grow from 1 s, doubling, to 60 s; 5 minutes of answers set them back.
class SupervisorPolicy {
public:
    enum class Action {
        Nothing,
        Start,
        SendKeepalive,
        SendQuit,
        Interrupt,  ///< the daemon's orderly stop without the bus (SIGUSR1)
        Kill,
        Finish,  ///< the stop is complete
    };

    static constexpr quint32 kFirstPauseMs = 1'000;
    static constexpr quint32 kLongestPauseMs = 60'000;
    static constexpr quint32 kHealthMs = 300'000;
    static constexpr quint32 kKeepaliveMs = 5'000;
    /// What a start takes until the daemon listens; an earlier keep-alive reaches nobody.
    static constexpr quint32 kFirstKeepaliveMs = 1'000;
    /// A daemon that gets no keep-alives ends itself within 15 s and a wait of 25 s, so longer
    /// silence means one that does not come round its loop. That need not be a fault: the hash
    /// of 2 GiB on a slow card, or an archive, takes minutes. Killing one of those would lose
    /// the client's work for nothing, hence far beyond either.
    static constexpr quint32 kSilenceMs = 300'000;
    static constexpr quint32 kQuitMs = 30'000;
    static constexpr quint32 kInterruptMs = 10'000;

    /// What is due now. Each action is handed out once; call until it is Nothing or Finish.
    Action next();
    /// How long nothing will be due if nothing happens. From 0 on.
    int millisecondsToNext() const;

    /// The daemon answered a keep-alive.
    void answered();
    /// Nobody can be heard at the moment, so silence proves nothing.
    void busIsAway();
    /// The daemon has ended, or could not be started.
    void ended();
    /// Repeating it changes nothing.
    void requestStop();

    /// The pause before the next start. Meaningful after `ended`.
    int pauseSeconds() const { return static_cast<int>(_pauseMs / 1000); }

private:
    enum class Phase { Pausing, Running, Stopping, Finished };
    enum class Force { None, Interrupted, Killed };

    Action start();
    Action nextForce();
    Action nextMessage();
    quint32 patienceMs() const;
    /// Neither a stop nor a force once used is put off.
    void restorePatience();

    Phase _phase = Phase::Pausing;
    quint32 _pauseMs = 0;
    quint32 _pausingSince = 0;

    quint32 _lastMessage = 0;
    bool _hasAnswered = false;
    bool _wasHealthy = false;
    quint32 _firstAnswer = 0;
    Force _force = Force::None;
    /// What the next use of force is counted from: the last sign of life, the stop's beginning,
    /// or the force used last.
    quint32 _patientSince = 0;
};

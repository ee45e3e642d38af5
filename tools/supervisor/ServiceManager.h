#pragma once

#include <QByteArray>

/// What the service manager is told, by its notification protocol: datagrams of "NAME=value" to
/// the socket that NOTIFY_SOCKET names, by path or, behind an "@", in the abstract namespace.
/// Without that variable nobody is told anything. Telling is never waited for and cannot fail
/// the caller.
class ServiceManager {
public:
    /// Takes NOTIFY_SOCKET, WATCHDOG_USEC and WATCHDOG_PID out of the environment: they are meant
    /// for this process and not for the daemon that it starts.
    ServiceManager();

    void ready() const { tell("READY=1"); }
    void stopping() const { tell("STOPPING=1"); }
    /// One line for whoever asks how the service is.
    void status(const QByteArray& text) const { tell("STATUS=" + text); }
    /// The sign of life that the manager's watchdog waits for, where it has one.
    void alive() const;

private:
    void tell(const QByteArray& state) const;

    QByteArray _socket;
    bool _hasWatchdog = false;
};

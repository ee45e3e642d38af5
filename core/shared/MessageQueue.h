#pragma once

#include "bus/Message.h"

#include <QList>
#include <QMutex>
#include <QtGlobal>

/// The queue of received and not yet dispatched messages, and the drain: the one place where the
/// process waits for the bus. Main thread only.

/// Owning, in arrival order.
extern QList<Message*> g_waitingMessages;
/// KEPT: declared beside the queue and never locked: deliveries come on the main thread.
extern QMutex g_waitingMessagesMutex;
/// The remote jobs' last activity as the drain last saw it, in system ticks.
extern quint32 g_lastJobActivity;

/// The drain's two calls upwards, handed down once at start. Without them the drain frees
/// messages undispatched and sees no job activity.
struct DrainHooks {
    bool (*dispatch)(Message& message) = nullptr;
    quint32 (*jobActivity)() = nullptr;
};
void setDrainHooks(const DrainHooks& hooks);

/// How long the drain waits for the bus after `idleMilliseconds` without job activity; -1 where
/// it does not wait on the bus at all.
int busWaitForIdle(quint32 idleMilliseconds);

/// Waits for the bus, then dispatches and frees everything queued. May be re-entered by what it
/// dispatches. Where a dispatched message left this process a forked child, the rest of the
/// batch is its parent's and is dropped.
void processWaitingMessages();

/// Frees every queued message undispatched.
void dropWaitingMessages();

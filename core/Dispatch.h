#pragma once

#include "bus/Message.h"

/// From a message to the service that owns its command. The daemon's own codes are one line each
/// in a table; every other code goes to the file service.

using CommandHandler = bool (*)(Message& message);

/// Dispatches one message by its command code, with its parameters read by position and unchecked.
/// The caller keeps the message. False for the quit command. A forked child acts on a few commands
/// only (see WorkerRole). A service that fails by an exception, running out of memory above all,
/// costs its request the failure reply and nothing else. May re-enter the drain; returns in two
/// processes where a service forks a child that stays.
bool processMessage(Message& message) noexcept;

/// The connection for which the file service handles a message: a write count names it in its
/// first parameter, any other message comes from the one in its tag.
int fileServiceConnection(const Message& message);

/// Calls `handler`; where it throws, answers a file request (any code that is not the daemon's
/// own) with its failure reply and returns true.
bool handleGuarded(CommandHandler handler, Message& message) noexcept;

#pragma once

#include "bus/Message.h"

/// The sends that every service uses for its replies. No send reports failure; without a bus
/// client they do nothing.

/// The process's own reply token, "Message.ExtProc.from.<process id>", filled at start.
extern char g_szOurPubSubToken[128];

/// Sends on the process's own reply token.
void sendMessage(Message& message);

/// Sends to one remote connection: its id in 4 bytes, then the message, on
/// "ConnectionManager.clientMessage". The caller keeps the message. One that is too large for the
/// bus is logged and becomes a bare reply.
void sendMessageToConnection(int connection, Message* message);

/// A bare reply: the command and no parameters.
void sendMessageToConnection(int connection, int command);

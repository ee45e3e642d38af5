#pragma once

#include "bus/PubSubMessage.h"

/// The bus's token number of "Message.storage", looked up once at start.
extern int g_StorageMessageTokenID;

/// The bus's delivery callback: turns each delivery into a queued Message, but a finished
/// thumbnail day, which goes to ThumbnailSchedule at once. A storage request has its connection id
/// in front, which becomes the message's tag. A delivery that does not fit into
/// memory is logged; a storage request is then queued without its parameters, so that its client
/// is refused instead of left waiting.
void PubSubInterfaceCallback(void* context, PubSubMessage* delivery);

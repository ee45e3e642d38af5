#pragma once

/// One delivery, as the callback given to PubSubInterface::initialize sees it. The bytes belong
/// to the bus library and are gone when the callback returns; `data` may be null where `length`
/// is 0. `tokenId` is PubSubInterface::findToken's number of the token.
struct PubSubMessage {
    int tokenId = -1;
    const char* data = nullptr;
    int length = 0;
};

#pragma once

// Writes the JSON text of Bayeux messages by direct appends, members in a fixed
// order per class and no whitespace. Array framing is the caller's. The functions
// keep no state; the caller owns `out`.

#include <memory>

#include "korvane/codec/messages.h"
#include "korvane/frame/data_buffer.h"
#include "korvane/export.h"

namespace korvane::bayeux {

// Appends the text of `*message` to `out`; the message survives the call. A type that
// is no single Bayeux message (a BayeuxContainer among them) throws std::invalid_argument
// "Unknown bayeux type: " and its type name; a null message throws std::bad_typeid.
KORVANE_EXPORT void serializeBayeuxMessage(std::unique_ptr<Message>&& message, common::DataBuffer& out);

// Appends what serializeBayeuxMessage writes for makeConnectReply(messageId, clientId).
KORVANE_EXPORT void serializeConnectReply(const std::string& messageId, const std::string& clientId,
                                          common::DataBuffer& out);

// Appends a publish request, its `data` bytes unchanged; the busiest path, reserved once.
KORVANE_EXPORT void serializePublishRequest(PublishRequest* request, common::DataBuffer& out);

}  // namespace korvane::bayeux

#pragma once

// Turns the JSON text of a Bayeux request or response into message objects,
// without building a tree. Reentrant: all state lives in the call.

#include <memory>

#include "korvane/codec/messages.h"
#include "korvane/frame/data_buffer.h"
#include "korvane/export.h"

namespace korvane::bayeux {

// Reads one object, or an array of objects, from `buffer`, which is left unchanged.
// `isRequest` picks the request classes of the /meta channels (the server's side)
// or their response classes (the outbound client's side). A one-element array gives
// the bare message, a longer one a BayeuxContainer. Malformed text throws
// std::invalid_argument; nothing of a partial result survives.
KORVANE_EXPORT std::unique_ptr<Message> deserializeBayeuxMessage(common::DataBuffer& buffer, bool isRequest);

}  // namespace korvane::bayeux

#pragma once

// Validation of UTF-8, for the transports to refuse bodies and frames that are not
// text, so that no client's bytes can make the server write text that is not UTF-8
// to another client, and for the writer to replace what is not. Stateless: safe from
// any thread.

#include <cstddef>
#include <memory>
#include <stdexcept>

#include "korvane/frame/data_buffer.h"
#include "korvane/frame/message.h"
#include "korvane/export.h"

namespace korvane::bayeux {

// True if the bytes are well-formed UTF-8: every sequence in its shortest form, no
// surrogate code points (U+D800 to U+DFFF), nothing above U+10FFFF, none cut off at
// the end. Escapes such as "\ud800" inside JSON strings are plain ASCII here.
KORVANE_EXPORT bool isValidUtf8(const char* bytes, std::size_t size);

// The length of the well-formed sequence that starts `bytes` (1 for ASCII), or 0 if it is
// malformed or cut off by `size`, as isValidUtf8 judges it. `size` must not be 0.
std::size_t utf8SequenceLength(const char* bytes, std::size_t size);

// The refusal of a request that is not UTF-8, so that a WebSocket host can close with
// the code the WebSocket protocol has for it (1007) rather than a server error. Exported,
// though this header is not installed: the host catches it by type outside the library.
class KORVANE_EXPORT InvalidUtf8Error : public std::invalid_argument {
public:
    InvalidUtf8Error() : std::invalid_argument("Invalid UTF-8 in request") {}
};

// deserializeBayeuxMessage of a request whose text must be UTF-8 twice over: as raw
// bytes, and in every string field once its escapes are decoded (a lone surrogate
// escape such as "\udc00" decodes to bytes that are not UTF-8). Throws
// InvalidUtf8Error ("Invalid UTF-8 in request") before anything reaches a service.
std::unique_ptr<Message> deserializeUtf8Request(common::DataBuffer& buffer);

}  // namespace korvane::bayeux

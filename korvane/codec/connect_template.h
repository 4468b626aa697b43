#pragma once

// A connection's last /meta/connect request, kept so that the next ones, which a client
// sends alike but for their id, are read without parsing. A text equal to the kept one
// around the id's value, whose new value is plain (printable ASCII without a quote or a
// backslash), reads as the kept request with that id: exactly what a parse of it gives.
//
// A text is kept only when its id's value stands at one place that alone decides the
// request's id, shown by parsing a probe with another id: nothing else of the text may
// change with it. Texts with escapes or advice, or longer than Kept::capacity bytes, are
// never kept, nor is a connection's first connect (it usually carries advice, and a
// connection that connects once would keep its text for nothing). A connection whose
// connects keep differing (a counter in an extension) stops keeping after a few.
//
// Threading: none of its own; one reader of one connection's frames uses it.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "korvane/codec/messages.h"
#include "korvane/frame/data_buffer.h"
#include "korvane/export.h"

namespace korvane::bayeux {

class KORVANE_EXPORT ConnectTemplate {
public:
    // What deserializeUtf8Request(text) gives (or throws): read() when it knows the text,
    // otherwise a parse, which learn() is told.
    std::unique_ptr<Message> readRequest(common::DataBuffer& text);

    // The request `text` holds when it is the kept text with another plain id; null otherwise.
    std::unique_ptr<ConnectStreamRequest> read(const common::DataBuffer& text);

private:
    // `text`, which read() did not know, parsed as `parsed`: kept when it is a connect
    // that can be kept (see above).
    void learn(const common::DataBuffer& text, const Message& parsed);
    void keep(const common::DataBuffer& candidate, const ConnectStreamRequest& parsed);

    static constexpr std::uint8_t missesBeforeGivingUp = 3;

    // The kept text and what its parse gave besides the id, in one block that a read takes
    // together: the id's value runs from `idStart` up to the quote at `idEnd`, and the client
    // id and connection type are bytes of the text (which has no escapes). Made at the first
    // keep: a connection that connects once (an idle one) carries only the pointer.
    struct Kept {
        static constexpr std::size_t capacity = 224;

        std::uint16_t size = 0;
        std::uint16_t idStart = 0;
        std::uint16_t idEnd = 0;
        std::uint16_t clientIdAt = 0;
        std::uint16_t clientIdSize = 0;
        std::uint16_t typeAt = 0;
        std::uint16_t typeSize = 0;
        char text[capacity];
    };
    std::unique_ptr<Kept> kept;
    bool seenAConnect = false;
    // Connects that read() did not know since it last knew one.
    std::uint8_t missesInARow = 0;
};

}  // namespace korvane::bayeux

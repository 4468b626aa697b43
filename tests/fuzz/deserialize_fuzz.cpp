// Feeds arbitrary bytes to the Bayeux reader on both sides of the protocol. Whatever is
// read must be written again without touching the input, and the written text must read
// back; when it reads back as one message of the same class, writing that gives the same
// text, since strings repaired on the first write are written the same way again. Any
// difference aborts. Refusals are fine, crashes are not.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <string_view>
#include <typeinfo>
#include <vector>

#include "korvane/codec/deserialize.h"
#include "korvane/codec/json_reader.h"
#include "korvane/codec/serialize.h"

namespace {

using korvane::Message;
using korvane::common::DataBuffer;
using namespace korvane::bayeux;

[[noreturn]] void fail(const std::string& what) {
    std::fprintf(stderr, "round trip mismatch: %s\n", what.c_str());
    std::abort();
}

std::unique_ptr<Message> readOrNull(DataBuffer& body, bool isRequest) {
    try {
        return deserializeBayeuxMessage(body, isRequest);
    } catch (const std::invalid_argument&) {
        return nullptr;
    }
}

std::string written(std::unique_ptr<Message>& message) {
    DataBuffer out;
    serializeBayeuxMessage(std::move(message), out);
    return out.str();
}

// List elements and hosts are written unescaped, so a quote or a backslash in them makes
// text that cannot be read back the same; that asymmetry is intended. A `data` value cut
// off by the end of its body was accepted there, but is no complete value once it stands
// inside a written message. (A publish read from the wire always has a data buffer.)
bool canBeReadBack(const Message& message) {
    std::vector<std::string> listed;
    auto take = [&listed](auto* typed) {
        if (typed != nullptr && typed->advice) {
            listed.insert(listed.end(), typed->advice->hosts.begin(), typed->advice->hosts.end());
            for (const auto& entry : typed->advice->transportAdvice) {
                listed.insert(listed.end(), entry.second.hosts.begin(), entry.second.hosts.end());
            }
        }
    };
    take(dynamic_cast<const HandshakeResponse*>(&message));
    take(dynamic_cast<const ConnectStreamRequest*>(&message));
    take(dynamic_cast<const ConnectStreamResponse*>(&message));
    take(dynamic_cast<const SubscribeResponse*>(&message));
    take(dynamic_cast<const UnsubscribeResponse*>(&message));
    if (auto* handshake = dynamic_cast<const HandshakeRequest*>(&message)) {
        listed = handshake->supportedConnectionTypes;
    } else if (auto* handshaken = dynamic_cast<const HandshakeResponse*>(&message)) {
        const auto& types = handshaken->supportedConnectionTypes;
        listed.insert(listed.end(), types.begin(), types.end());
    }
    if (std::any_of(listed.begin(), listed.end(), [](auto& s) { return s.find_first_of("\"\\") != s.npos; })) {
        return false;
    }
    auto* publish = dynamic_cast<const PublishRequest*>(&message);
    if (publish == nullptr) {
        return true;
    }
    DataBuffer padded(*publish->data);
    padded.push_back(' ');
    std::uint64_t cursor = 0;
    try {
        json::skipValue(cursor, padded);
    } catch (const std::invalid_argument&) {
        return false;
    }
    return cursor == publish->data->size;
}

// Writes the message and reads the text back; a message of the same class written again gives
// the same text, or the same bytes in another order where advice names several transports, whose
// map may be walked in another order.
void checkRoundTrip(std::unique_ptr<Message>& message, bool isRequest) {
    const Message& original = *message;
    const bool readsBack = canBeReadBack(original);
    const std::string text = written(message);
    DataBuffer buffer(text);
    std::unique_ptr<Message> reread = readOrNull(buffer, isRequest);
    if (!readsBack) {
        return;
    }
    if (reread == nullptr) {
        fail("written text is refused: " + text);
    }
    const Message& rereadMessage = *reread;
    const std::string again = typeid(rereadMessage) == typeid(original) ? written(reread) : text;
    if (again != text && !std::is_permutation(again.begin(), again.end(), text.begin(), text.end())) {
        fail("the second write differs from the first: " + text);
    }
}

void checkBody(DataBuffer& body, bool isRequest) {
    std::unique_ptr<Message> message = readOrNull(body, isRequest);
    if (auto* batch = dynamic_cast<BayeuxContainer*>(message.get())) {
        for (auto& element : batch->messages) {
            checkRoundTrip(element, isRequest);
        }
    } else if (message != nullptr) {
        checkRoundTrip(message, isRequest);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(bytes), size);
    DataBuffer body(input);
    checkBody(body, true);
    checkBody(body, false);
    if (body.view() != input) {
        fail("the reader changed its input");
    }
    return 0;
}

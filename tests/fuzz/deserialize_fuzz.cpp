// Feeds arbitrary bytes to the Bayeux reader on both sides of the protocol. Whatever is
// read must be written again, without touching the input; when the written text reads back
// as one message of the same class, writing that must give the same text, since strings
// repaired on the first write are written the same way again. Any difference aborts.
// Refusals are fine, and so is written text that does not read back: list elements and
// hosts are written unescaped, and data cut off by the end of its body is no complete value
// inside a written message. Crashes are not fine.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <string_view>
#include <typeinfo>

#include "korvane/codec/deserialize.h"
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

// Advice with several transport entries may be written in another map order.
bool writtenInOneOrder(const Message& message) {
    std::shared_ptr<BayeuxAdvice> advice;
    auto take = [&](auto* typed) { advice = typed ? typed->advice : advice; };
    take(dynamic_cast<const HandshakeResponse*>(&message));
    take(dynamic_cast<const ConnectStreamRequest*>(&message));
    take(dynamic_cast<const ConnectStreamResponse*>(&message));
    take(dynamic_cast<const SubscribeResponse*>(&message));
    take(dynamic_cast<const UnsubscribeResponse*>(&message));
    return !advice || advice->transportAdvice.size() < 2;
}

void checkRoundTrip(std::unique_ptr<Message>& message, bool isRequest) {
    const Message& original = *message;
    const bool oneOrder = writtenInOneOrder(original);
    const std::string text = written(message);
    DataBuffer buffer(text);
    std::unique_ptr<Message> reread = readOrNull(buffer, isRequest);
    if (dynamic_cast<BayeuxContainer*>(reread.get()) != nullptr) {
        fail("one written message reads back as a batch: " + text);
    }
    if (reread == nullptr) {
        return;
    }
    const Message& rereadMessage = *reread;
    if (typeid(rereadMessage) == typeid(original) && oneOrder && written(reread) != text) {
        fail("the second write differs from the first: " + text);
    }
}

void checkBody(DataBuffer& body, bool isRequest) {
    std::unique_ptr<Message> message = readOrNull(body, isRequest);
    auto* batch = dynamic_cast<BayeuxContainer*>(message.get());
    if (batch != nullptr && batch->messages.size() < 2) {
        fail("a batch of fewer than two messages");
    }
    if (batch != nullptr) {
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

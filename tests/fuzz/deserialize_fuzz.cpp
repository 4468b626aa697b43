// Feeds arbitrary bytes to the Bayeux reader on both sides of the protocol. Whatever is
// read must be written again; the written text must read back as one message of the same
// class, and writing that gives the same text. Any difference aborts. Refusals are fine,
// crashes are not.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <typeinfo>
#include <vector>

#include "korvane/codec/deserialize.h"
#include "korvane/codec/json_reader.h"
#include "korvane/codec/serialize.h"
#include "korvane/codec/utf8.h"

namespace {

using korvane::Message;
using korvane::common::DataBuffer;
using namespace korvane::bayeux;

[[noreturn]] void fail(const std::string& what) {
    std::fprintf(stderr, "round trip mismatch: %s\n", what.c_str());
    std::abort();
}

std::shared_ptr<BayeuxAdvice> adviceOf(const Message& message) {
    std::shared_ptr<BayeuxAdvice> advice;
    auto take = [&](auto* typed) { advice = typed ? typed->advice : advice; };
    take(dynamic_cast<const HandshakeResponse*>(&message));
    take(dynamic_cast<const ConnectStreamRequest*>(&message));
    take(dynamic_cast<const ConnectStreamResponse*>(&message));
    take(dynamic_cast<const SubscribeResponse*>(&message));
    take(dynamic_cast<const UnsubscribeResponse*>(&message));
    return advice;
}

// List elements and hosts are written unescaped, so a quote or a backslash in them makes
// text that cannot be read back the same; that asymmetry is intended. A `data` value cut
// off by the end of its body was accepted there, but is no complete value once it stands
// inside a written message. (A publish read from the wire always has a data buffer.)
bool canBeReadBack(const Message& message) {
    std::vector<std::string> listed;
    if (auto* m = dynamic_cast<const HandshakeRequest*>(&message)) {
        listed = m->supportedConnectionTypes;
    } else if (auto* m = dynamic_cast<const HandshakeResponse*>(&message)) {
        listed = m->supportedConnectionTypes;
    }
    if (auto advice = adviceOf(message)) {
        listed.insert(listed.end(), advice->hosts.begin(), advice->hosts.end());
        for (const auto& entry : advice->transportAdvice) {
            listed.insert(listed.end(), entry.second.hosts.begin(), entry.second.hosts.end());
        }
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

std::string written(std::unique_ptr<Message>& message) {
    DataBuffer out;
    serializeBayeuxMessage(std::move(message), out);
    return out.str();
}

// Writes one message and reads the text back: a message that can be read back comes back as one
// message of its class, whose text is the same, since writing is idempotent (strings repaired on
// the first write are written the same way again). Returns the written text.
std::string checkRoundTrip(std::unique_ptr<Message>& message, bool isRequest) {
    static const std::set<std::string> metaChannels = {"/meta/handshake", "/meta/connect", "/meta/disconnect",
                                                       "/meta/subscribe", "/meta/unsubscribe"};
    const Message& original = *message;
    const bool readsBack = canBeReadBack(original);
    // A publish whose channel is (or is repaired into) a meta channel name reads back as that meta class.
    const std::string& channel = dynamic_cast<const BayeuxBase&>(original).channel;
    const bool classMayChange = !isValidUtf8(channel.data(), channel.size()) || metaChannels.count(channel) != 0;
    // Advice with several entries may be written in another map order.
    const auto advice = adviceOf(original);
    const bool oneOrder = !advice || advice->transportAdvice.size() < 2;
    const std::string text = written(message);
    DataBuffer buffer(text);
    std::unique_ptr<Message> reread;
    try {
        reread = deserializeBayeuxMessage(buffer, isRequest);
    } catch (const std::invalid_argument& failure) {
        if (readsBack) {
            fail(std::string("written text is refused: ") + failure.what() + " in " + text);
        }
        return text;
    }
    if (dynamic_cast<BayeuxContainer*>(reread.get()) != nullptr) {
        fail("one written message reads back as a batch");
    }
    const Message& rereadMessage = *reread;
    const bool sameClass = typeid(original) == typeid(rereadMessage);
    if (readsBack && !sameClass && !classMayChange) {
        fail(std::string("class differs: ") + typeid(original).name() + " became " + typeid(rereadMessage).name());
    }
    if (readsBack && sameClass && oneOrder && written(reread) != text) {
        fail("the second write differs from the first: " + text);
    }
    return text;
}

void checkBody(const DataBuffer& body, bool isRequest) {
    std::unique_ptr<Message> message;
    try {
        message = deserializeBayeuxMessage(const_cast<DataBuffer&>(body), isRequest);
    } catch (const std::invalid_argument&) {
        return;
    }
    auto* container = dynamic_cast<BayeuxContainer*>(message.get());
    if (container == nullptr) {
        checkRoundTrip(message, isRequest);
        return;
    }
    if (container->messages.size() < 2) {
        fail("a batch of fewer than two messages");
    }
    std::string batch = "[";
    bool everyElementReadsBack = true;
    for (auto& element : container->messages) {
        everyElementReadsBack = everyElementReadsBack && canBeReadBack(*element);
        batch += (batch.size() > 1 ? "," : "") + checkRoundTrip(element, isRequest);
    }
    DataBuffer framed(batch + "]");
    if (everyElementReadsBack) {
        const auto reread = deserializeBayeuxMessage(framed, isRequest);
        auto* rereadBatch = dynamic_cast<BayeuxContainer*>(reread.get());
        if (rereadBatch == nullptr || rereadBatch->messages.size() != container->messages.size()) {
            fail("a written batch reads back with another number of messages: " + batch);
        }
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

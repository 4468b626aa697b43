// Feeds arbitrary bytes to the Bayeux reader on both sides of the protocol. Whatever is
// read must be written again, and the written text must read back to the same fields
// and the same `data` bytes; any difference aborts. Refusals are fine, crashes are not.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
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

// The wire-visible fields of one message, whatever its class.
struct Fields {
    std::vector<std::string> strings;
    std::vector<std::vector<std::string>> lists;
    std::vector<std::int64_t> values;
    const DataBuffer* data = nullptr;
    std::size_t transportEntries = 0;
};

void addAdvice(Fields& fields, const std::shared_ptr<BayeuxAdvice>& advice) {
    fields.values.push_back(advice != nullptr);
    if (!advice) {
        return;
    }
    // An unset time is not written, so every negative value reads back as the default.
    const auto add = [&fields](const Advice& entry) {
        fields.values.insert(fields.values.end(), {entry.reconnect, entry.multipleClients,
                                                   std::max<std::int64_t>(entry.timeout, -1),
                                                   std::max<std::int64_t>(entry.interval, -1)});
        fields.lists.push_back(entry.hosts);
    };
    add(*advice);
    fields.transportEntries = advice->transportAdvice.size();
    const std::map<std::string, Advice> byName(advice->transportAdvice.begin(), advice->transportAdvice.end());
    for (const auto& [name, entry] : byName) {
        fields.strings.push_back(name);
        add(entry);
    }
}

Fields fieldsOf(const Message& message) {
    Fields fields;
    const auto& base = dynamic_cast<const BayeuxBase&>(message);
    fields.strings = {base.channel, base.id, base.clientId};
    if (auto* response = dynamic_cast<const BayeuxResponse*>(&message)) {
        fields.strings.push_back(response->error);
        fields.values.push_back(response->successful);
    }
    if (auto* m = dynamic_cast<const HandshakeRequest*>(&message)) {
        fields.strings.insert(fields.strings.end(), {m->version, m->minimumVersion});
        fields.lists.push_back(m->supportedConnectionTypes);
    } else if (auto* m = dynamic_cast<const HandshakeResponse*>(&message)) {
        fields.strings.insert(fields.strings.end(), {m->version, m->minimumVersion});
        fields.lists.push_back(m->supportedConnectionTypes);
        addAdvice(fields, m->advice);
    } else if (auto* m = dynamic_cast<const ConnectStreamRequest*>(&message)) {
        fields.strings.push_back(m->connectionType);
        addAdvice(fields, m->advice);
    } else if (auto* m = dynamic_cast<const ConnectStreamResponse*>(&message)) {
        addAdvice(fields, m->advice);
    } else if (auto* m = dynamic_cast<const SubscribeRequest*>(&message)) {
        fields.strings.push_back(m->subscription);
    } else if (auto* m = dynamic_cast<const UnsubscribeRequest*>(&message)) {
        fields.strings.push_back(m->subscription);
    } else if (auto* m = dynamic_cast<const SubscribeResponse*>(&message)) {
        fields.strings.push_back(m->subscription);
        addAdvice(fields, m->advice);
    } else if (auto* m = dynamic_cast<const UnsubscribeResponse*>(&message)) {
        fields.strings.push_back(m->subscription);
        addAdvice(fields, m->advice);
    } else if (auto* m = dynamic_cast<const PublishRequest*>(&message)) {
        if (m->data == nullptr) {
            fail("a publish read from the wire has no data buffer");
        }
        fields.data = m->data.get();
    }
    return fields;
}

// List elements and hosts are written unescaped, so a quote or a backslash in them makes
// text that cannot be read back the same; that asymmetry is intended. A `data` value cut
// off by the end of its body was accepted there, but is no complete value once it stands
// inside a written message.
bool canBeReadBack(const Fields& fields) {
    for (const auto& list : fields.lists) {
        for (const std::string& element : list) {
            if (element.find_first_of("\"\\") != std::string::npos) {
                return false;
            }
        }
    }
    if (fields.data == nullptr) {
        return true;
    }
    DataBuffer padded(*fields.data);
    padded.push_back(' ');
    std::uint64_t cursor = 0;
    try {
        json::skipValue(cursor, padded);
    } catch (const std::invalid_argument&) {
        return false;
    }
    return cursor == fields.data->size;
}

bool isUtf8(const std::string& text) { return isValidUtf8(text.data(), text.size()); }

// Strings that are not UTF-8 are repaired on writing, so only the others must come back the same.
void compareFields(const Fields& original, const Fields& reread) {
    if (original.strings.size() != reread.strings.size() || original.lists != reread.lists ||
        original.values != reread.values) {
        fail("different fields, lists or values");
    }
    for (std::size_t k = 0; k < original.strings.size(); ++k) {
        if (isUtf8(original.strings[k]) && original.strings[k] != reread.strings[k]) {
            fail("string field " + std::to_string(k) + " differs");
        }
    }
    if ((original.data == nullptr) != (reread.data == nullptr) ||
        (original.data != nullptr && original.data->view() != reread.data->view())) {
        fail("data bytes differ");
    }
}

std::string written(std::unique_ptr<Message>& message) {
    DataBuffer out;
    serializeBayeuxMessage(std::move(message), out);
    return out.str();
}

// Writes one message, reads the text back and compares. Returns the written text.
std::string checkRoundTrip(std::unique_ptr<Message>& message, bool isRequest) {
    static const std::set<std::string> metaChannels = {"/meta/handshake", "/meta/connect", "/meta/disconnect",
                                                       "/meta/subscribe", "/meta/unsubscribe"};
    std::string text = written(message);
    Fields original = fieldsOf(*message);
    DataBuffer buffer(text);
    std::unique_ptr<Message> reread;
    try {
        reread = deserializeBayeuxMessage(buffer, isRequest);
    } catch (const std::invalid_argument& failure) {
        if (canBeReadBack(original)) {
            fail(std::string("written text is refused: ") + failure.what() + " in " + text);
        }
        return text;
    }
    if (dynamic_cast<BayeuxContainer*>(reread.get()) != nullptr) {
        fail("one written message reads back as a batch");
    }
    // A publish whose channel is (or is repaired into) a meta channel name reads back as that meta class.
    const std::string& channel = dynamic_cast<const BayeuxBase&>(*message).channel;
    const bool classMayChange = !isUtf8(channel) || metaChannels.count(channel) != 0;
    const Message &originalMessage = *message, &rereadMessage = *reread;
    const bool sameClass = typeid(originalMessage) == typeid(rereadMessage);
    if (!canBeReadBack(original) || (classMayChange && !sameClass)) {
        return text;
    }
    if (!sameClass) {
        fail(std::string("class differs: ") + typeid(originalMessage).name() + " became " +
             typeid(rereadMessage).name());
    }
    compareFields(original, fieldsOf(*reread));
    // Writing is idempotent: strings repaired on the first write are written the same way
    // again. Advice with several entries may be written in another map order.
    if (original.transportEntries < 2 && written(reread) != text) {
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
        everyElementReadsBack = everyElementReadsBack && canBeReadBack(fieldsOf(*element));
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

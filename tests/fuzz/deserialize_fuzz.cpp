// Feeds arbitrary bytes to the Bayeux reader on both sides of the protocol. Whatever is
// read must be written again, and the written text must read back to the same fields
// and the same `data` bytes; any difference aborts. Refusals are fine, crashes are not.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <utility>
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

// Well-formed UTF-8 in the strict sense: shortest forms, no surrogates, at most U+10FFFF.
// Such text survives the writer's escaping unchanged; anything else may be repaired.
bool isStrictUtf8(const std::string& text) {
    std::size_t i = 0;
    while (i < text.size()) {
        std::uint8_t lead = static_cast<std::uint8_t>(text[i]);
        std::size_t length;
        std::uint32_t codePoint;
        std::uint32_t minimum;
        if (lead < 0x80) {
            ++i;
            continue;
        } else if ((lead & 0xE0) == 0xC0) {
            length = 2, codePoint = lead & 0x1F, minimum = 0x80;
        } else if ((lead & 0xF0) == 0xE0) {
            length = 3, codePoint = lead & 0x0F, minimum = 0x800;
        } else if ((lead & 0xF8) == 0xF0) {
            length = 4, codePoint = lead & 0x07, minimum = 0x10000;
        } else {
            return false;
        }
        if (i + length > text.size()) {
            return false;
        }
        for (std::size_t k = 1; k < length; ++k) {
            std::uint8_t next = static_cast<std::uint8_t>(text[i + k]);
            if ((next & 0xC0) != 0x80) {
                return false;
            }
            codePoint = (codePoint << 6) | (next & 0x3F);
        }
        if (codePoint < minimum || codePoint > 0x10FFFF || (codePoint >= 0xD800 && codePoint <= 0xDFFF)) {
            return false;
        }
        i += length;
    }
    return true;
}

// List elements and hosts are written unescaped, so a quote or a backslash in them
// makes text that cannot be read back the same; that asymmetry is intended.
bool isRawSafe(const std::vector<std::string>& list) {
    for (const std::string& element : list) {
        if (element.find_first_of("\"\\") != std::string::npos) {
            return false;
        }
    }
    return true;
}

// A `data` value cut off by the end of its body was accepted there, but is no complete
// value once it stands inside a written message.
bool isCompleteValue(const DataBuffer& data) {
    DataBuffer padded(data);
    padded.push_back(' ');
    std::uint64_t cursor = 0;
    try {
        json::skipValue(cursor, padded);
    } catch (const std::invalid_argument&) {
        return false;
    }
    return cursor == data.size;
}

// The wire-visible fields of one message, whatever its class.
struct Fields {
    std::vector<std::pair<const char*, std::string>> strings;
    std::vector<std::vector<std::string>> lists;
    std::optional<bool> successful;
    const BayeuxAdvice* advice = nullptr;
    bool hasAdviceField = false;
    const DataBuffer* data = nullptr;
};

void addAdvice(Fields& fields, const std::shared_ptr<BayeuxAdvice>& advice) {
    fields.hasAdviceField = true;
    fields.advice = advice.get();
    if (advice) {
        fields.lists.push_back(advice->hosts);
        for (const auto& entry : advice->transportAdvice) {
            fields.lists.push_back(entry.second.hosts);
        }
    }
}

Fields fieldsOf(const Message& message) {
    Fields fields;
    const auto& base = dynamic_cast<const BayeuxBase&>(message);
    fields.strings = {{"channel", base.channel}, {"id", base.id}, {"clientId", base.clientId}};
    if (auto* response = dynamic_cast<const BayeuxResponse*>(&message)) {
        fields.strings.emplace_back("error", response->error);
        fields.successful = response->successful;
    }
    if (auto* m = dynamic_cast<const HandshakeRequest*>(&message)) {
        fields.strings.emplace_back("version", m->version);
        fields.strings.emplace_back("minimumVersion", m->minimumVersion);
        fields.lists.push_back(m->supportedConnectionTypes);
    } else if (auto* m = dynamic_cast<const HandshakeResponse*>(&message)) {
        fields.strings.emplace_back("version", m->version);
        fields.strings.emplace_back("minimumVersion", m->minimumVersion);
        fields.lists.push_back(m->supportedConnectionTypes);
        addAdvice(fields, m->advice);
    } else if (auto* m = dynamic_cast<const ConnectStreamRequest*>(&message)) {
        fields.strings.emplace_back("connectionType", m->connectionType);
        addAdvice(fields, m->advice);
    } else if (auto* m = dynamic_cast<const ConnectStreamResponse*>(&message)) {
        addAdvice(fields, m->advice);
    } else if (auto* m = dynamic_cast<const SubscribeRequest*>(&message)) {
        fields.strings.emplace_back("subscription", m->subscription);
    } else if (auto* m = dynamic_cast<const UnsubscribeRequest*>(&message)) {
        fields.strings.emplace_back("subscription", m->subscription);
    } else if (auto* m = dynamic_cast<const SubscribeResponse*>(&message)) {
        fields.strings.emplace_back("subscription", m->subscription);
        addAdvice(fields, m->advice);
    } else if (auto* m = dynamic_cast<const UnsubscribeResponse*>(&message)) {
        fields.strings.emplace_back("subscription", m->subscription);
        addAdvice(fields, m->advice);
    } else if (auto* m = dynamic_cast<const PublishRequest*>(&message)) {
        if (m->data == nullptr) {
            fail("a publish read from the wire has no data buffer");
        }
        fields.data = m->data.get();
    }
    return fields;
}

bool canBeReadBack(const Fields& fields) {
    for (const auto& list : fields.lists) {
        if (!isRawSafe(list)) {
            return false;
        }
    }
    return fields.data == nullptr || isCompleteValue(*fields.data);
}

// An unset time is not written, so every negative value reads back as the default.
std::int64_t normalisedTime(std::int64_t time) { return time < 0 ? -1 : time; }

void compareAdvice(const Advice& original, const Advice& reread) {
    if (original.reconnect != reread.reconnect || original.multipleClients != reread.multipleClients ||
        normalisedTime(original.timeout) != normalisedTime(reread.timeout) ||
        normalisedTime(original.interval) != normalisedTime(reread.interval) || original.hosts != reread.hosts) {
        fail("advice values differ");
    }
}

void compareFields(const Fields& original, const Fields& reread) {
    if (original.strings.size() != reread.strings.size()) {
        fail("different field sets");
    }
    for (std::size_t k = 0; k < original.strings.size(); ++k) {
        const std::string& text = original.strings[k].second;
        if (isStrictUtf8(text) && text != reread.strings[k].second) {
            fail(std::string("string field ") + original.strings[k].first + " differs");
        }
    }
    if (original.successful != reread.successful) {
        fail("successful differs");
    }
    if (original.hasAdviceField && (original.advice == nullptr) != (reread.advice == nullptr)) {
        fail("advice presence differs");
    }
    if (original.advice != nullptr) {
        compareAdvice(*original.advice, *reread.advice);
        if (original.advice->transportAdvice.size() != reread.advice->transportAdvice.size()) {
            fail("transport advice entries differ");
        }
        for (const auto& [name, entry] : original.advice->transportAdvice) {
            auto found = reread.advice->transportAdvice.find(name);
            if (found == reread.advice->transportAdvice.end()) {
                fail("transport advice " + name + " is lost");
            }
            compareAdvice(entry, found->second);
        }
    }
    if ((original.data == nullptr) != (reread.data == nullptr) ||
        (original.data != nullptr && original.data->view() != reread.data->view())) {
        fail("data bytes differ");
    }
}

bool hasSeveralTransportEntries(const Fields& fields) {
    return fields.advice != nullptr && fields.advice->transportAdvice.size() > 1;
}

bool isMetaChannel(const std::string& channel) {
    return channel == "/meta/handshake" || channel == "/meta/connect" || channel == "/meta/disconnect" ||
           channel == "/meta/subscribe" || channel == "/meta/unsubscribe";
}

std::string written(std::unique_ptr<Message>& message) {
    DataBuffer out;
    serializeBayeuxMessage(std::move(message), out);
    return out.str();
}

// Writes one message, reads the text back and compares. Returns the written text.
std::string checkRoundTrip(std::unique_ptr<Message>& message, bool isRequest) {
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
    bool classMayChange = !isStrictUtf8(channel) || isMetaChannel(channel);
    const Message& originalMessage = *message;
    const Message& rereadMessage = *reread;
    const std::type_info& originalClass = typeid(originalMessage);
    const std::type_info& rereadClass = typeid(rereadMessage);
    if (!canBeReadBack(original) || (classMayChange && rereadClass != originalClass)) {
        return text;
    }
    if (rereadClass != originalClass) {
        fail(std::string("class differs: ") + originalClass.name() + " became " + rereadClass.name());
    }
    compareFields(original, fieldsOf(*reread));
    // Writing is idempotent: strings repaired on the first write are written the same way
    // again. Advice with several entries may be written in another map order.
    if (!hasSeveralTransportEntries(original) && written(reread) != text) {
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
    if (auto* container = dynamic_cast<BayeuxContainer*>(message.get())) {
        if (container->messages.size() < 2) {
            fail("a batch of fewer than two messages");
        }
        std::string batch = "[";
        bool everyElementReadsBack = true;
        for (auto& element : container->messages) {
            everyElementReadsBack = everyElementReadsBack && canBeReadBack(fieldsOf(*element));
            batch += (batch.size() > 1 ? "," : "") + checkRoundTrip(element, isRequest);
        }
        batch += "]";
        if (everyElementReadsBack) {
            DataBuffer framed(batch);
            auto reread = deserializeBayeuxMessage(framed, isRequest);
            auto* rereadBatch = dynamic_cast<BayeuxContainer*>(reread.get());
            if (rereadBatch == nullptr || rereadBatch->messages.size() != container->messages.size()) {
                fail("a written batch reads back with another number of messages: " + batch);
            }
        }
    } else {
        checkRoundTrip(message, isRequest);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    DataBuffer body(std::string_view(reinterpret_cast<const char*>(bytes), size));
    checkBody(body, true);
    checkBody(body, false);
    if (body.view() != std::string_view(reinterpret_cast<const char*>(bytes), size)) {
        fail("the reader changed its input");
    }
    return 0;
}

#include "korvane/codec/serialize.h"

#include <array>
#include <charconv>
#include <cstring>
#include <stdexcept>
#include <string_view>
#include <typeinfo>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "korvane/codec/utf8.h"
#include "korvane/frame/type_name.h"

namespace korvane::bayeux {

namespace {

using common::DataBuffer;

// The short escapes, two parallel arrays in the order they are tested.
const std::uint8_t shortEscapeCodes[] = {34, 10, 9, 13, 8, 12, 92};
const char shortEscapeLetters[] = "\"ntrbf\\";

// Characters written as \u00XX so that the text is safe inside HTML and scripts.
bool isHtmlSensitive(std::uint32_t codePoint) {
    return codePoint == '&' || codePoint == '\'' || codePoint == '<' || codePoint == '=' || codePoint == '>';
}

// Bytes that the string escape copies as they stand: ASCII 0x20..0x7F except the
// quote, the backslash and the HTML-sensitive characters. Used to copy runs at once.
constexpr std::array<bool, 256> makePlainByteTable() {
    std::array<bool, 256> plain{};
    for (int byte = 0x20; byte <= 0x7F; ++byte) {
        plain[byte] = byte != '"' && byte != '\\' && byte != '&' && byte != '\'' && byte != '<' && byte != '=' &&
                      byte != '>';
    }
    return plain;
}
constexpr std::array<bool, 256> plainBytes = makePlainByteTable();

// Where the run of plain bytes that starts at `i` ends: sixteen bytes a step where the
// processor has SSE2 (every x86-64 does), one at a time for the rest.
std::size_t plainRunEnd(std::string_view text, std::size_t i) {
#if defined(__SSE2__)
    for (; i + 16 <= text.size(); i += 16) {
        const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text.data() + i));
        // A signed comparison: below 0x20, or 0x80 and above.
        __m128i special = _mm_cmplt_epi8(bytes, _mm_set1_epi8(0x20));
        for (const char quoted : {'"', '\\', '&', '\'', '<', '=', '>'}) {
            special = _mm_or_si128(special, _mm_cmpeq_epi8(bytes, _mm_set1_epi8(quoted)));
        }
        if (const int found = _mm_movemask_epi8(special)) {
            return i + static_cast<std::size_t>(__builtin_ctz(static_cast<unsigned>(found)));
        }
    }
#endif
    while (i < text.size() && plainBytes[static_cast<std::uint8_t>(text[i])]) {
        ++i;
    }
    return i;
}

const char lowerHexDigits[] = "0123456789abcdef";

// Appends in place while the reserved capacity lasts and leaves growth to DataBuffer
// otherwise, so capacities come out as DataBuffer::append alone would make them.
inline void appendBytes(DataBuffer& out, const char* bytes, std::size_t count) {
    if (out.data != nullptr && out.size + count <= out.capacity) {
        std::memcpy(out.data + out.size, bytes, count);
        out.size += count;
    } else {
        out.append(bytes, count);
    }
}

inline void appendByte(DataBuffer& out, char byte) {
    if (out.data != nullptr && out.size < out.capacity) {
        out.data[out.size++] = static_cast<std::uint8_t>(byte);
    } else {
        out.push_back(byte);
    }
}

void appendLiteral(DataBuffer& out, std::string_view text) { appendBytes(out, text.data(), text.size()); }

// One ASCII code point, escaped where it must be.
void appendEscapedAscii(DataBuffer& out, std::uint32_t codePoint) {
    for (std::size_t k = 0; k < sizeof(shortEscapeCodes); ++k) {
        if (codePoint == shortEscapeCodes[k]) {
            const char escape[2] = {'\\', shortEscapeLetters[k]};
            appendBytes(out, escape, 2);
            return;
        }
    }
    if (codePoint < 0x20 || isHtmlSensitive(codePoint)) {
        const char escape[6] = {'\\', 'u', '0', '0', lowerHexDigits[codePoint >> 4], lowerHexDigits[codePoint & 0xF]};
        appendBytes(out, escape, 6);
        return;
    }
    appendByte(out, static_cast<char>(codePoint));
}

// A quoted string value: UTF-8 in, escapes where needed, each byte that does not start
// a well-formed sequence (see utf8.h) replaced by U+FFFD, the bytes behind it looked at again.
void appendEscaped(DataBuffer& out, std::string_view text) {
    out.reserve(out.size + text.size() + 10);
    appendByte(out, '"');
    std::size_t i = 0;
    while (i < text.size()) {
        const std::size_t runEnd = plainRunEnd(text, i);
        appendBytes(out, text.data() + i, runEnd - i);
        i = runEnd;
        if (i >= text.size()) {
            break;
        }
        std::uint8_t byte = static_cast<std::uint8_t>(text[i]);
        if (byte < 0x80) {
            appendEscapedAscii(out, byte);
            ++i;
            continue;
        }
        const std::size_t length = utf8SequenceLength(text.data() + i, text.size() - i);
        if (length == 0) {
            appendLiteral(out, "\xEF\xBF\xBD");
            ++i;
        } else {
            appendBytes(out, text.data() + i, length);
            i += length;
        }
    }
    appendByte(out, '"');
}

void appendRawQuoted(DataBuffer& out, std::string_view text) {
    appendByte(out, '"');
    appendBytes(out, text.data(), text.size());
    appendByte(out, '"');
}

void appendNumber(DataBuffer& out, std::int64_t value) {
    char digits[24];
    auto result = std::to_chars(digits, digits + sizeof(digits), value);
    appendBytes(out, digits, static_cast<std::size_t>(result.ptr - digits));
}

void appendBoolean(DataBuffer& out, bool value) { appendLiteral(out, value ? "true" : "false"); }

// Elements are written raw, not escaped.
void appendList(DataBuffer& out, const std::vector<std::string>& list) {
    appendByte(out, '[');
    for (std::size_t k = 0; k < list.size(); ++k) {
        if (k != 0) {
            appendByte(out, ',');
        }
        appendRawQuoted(out, list[k]);
    }
    appendByte(out, ']');
}

// `member` is the separator, the quoted key and the colon, e.g. ,"id":
void appendStringMember(DataBuffer& out, std::string_view member, const std::string& value) {
    appendLiteral(out, member);
    appendEscaped(out, value);
}

void appendOptionalStringMember(DataBuffer& out, std::string_view member, const std::string& value) {
    if (!value.empty()) {
        appendStringMember(out, member, value);
    }
}

void appendOptionalListMember(DataBuffer& out, std::string_view member, const std::vector<std::string>& list) {
    if (!list.empty()) {
        appendLiteral(out, member);
        appendList(out, list);
    }
}

const char* reconnectText(Advice::Reconnect reconnect) {
    switch (reconnect) {
    case Advice::Retry:
        return "retry";
    case Advice::Handshake:
        return "handshake";
    case Advice::None:
        return "none";
    }
    return "error";
}

void appendAdviceMembers(DataBuffer& out, const Advice& advice) {
    appendStringMember(out, "\"reconnect\":", reconnectText(advice.reconnect));
    if (advice.interval >= 0) {
        appendLiteral(out, ",\"interval\":");
        appendNumber(out, advice.interval);
    }
    if (advice.timeout >= 0) {
        appendLiteral(out, ",\"timeout\":");
        appendNumber(out, advice.timeout);
    }
    appendLiteral(out, ",\"multipleClients\":");
    appendBoolean(out, advice.multipleClients);
    appendOptionalListMember(out, ",\"hosts\":", advice.hosts);
}

// The advice object, per-transport entries in the map's own iteration order.
void appendOptionalAdviceMember(DataBuffer& out, const std::shared_ptr<BayeuxAdvice>& advice) {
    if (!advice) {
        return;
    }
    appendLiteral(out, ",\"advice\":{");
    appendAdviceMembers(out, *advice);
    for (const auto& [connectionType, entry] : advice->transportAdvice) {
        appendByte(out, ',');
        appendRawQuoted(out, connectionType);
        appendLiteral(out, ":{");
        appendAdviceMembers(out, entry);
        appendByte(out, '}');
    }
    appendByte(out, '}');
}

// The members that follow `channel` at the head of every message.
void appendIds(DataBuffer& out, const std::string& id, const std::string& clientId) {
    appendOptionalStringMember(out, ",\"id\":", id);
    if (clientId.empty()) {
        appendLiteral(out, ",\"clientId\":null");
    } else {
        appendStringMember(out, ",\"clientId\":", clientId);
    }
}

void appendRequestHead(DataBuffer& out, const BayeuxBase& message, const std::string& clientId) {
    appendStringMember(out, "{\"channel\":", message.channel);
    appendIds(out, message.id, clientId);
}

void appendRequestHead(DataBuffer& out, const BayeuxBase& message) { appendRequestHead(out, message, message.clientId); }

void appendResponseHead(DataBuffer& out, const BayeuxResponse& message) {
    appendRequestHead(out, message);
    appendLiteral(out, message.successful ? ",\"successful\":true" : ",\"successful\":false");
    appendOptionalStringMember(out, ",\"error\":", message.error);
}

void writeHandshakeRequest(const HandshakeRequest& message, DataBuffer& out) {
    appendRequestHead(out, message);
    appendOptionalStringMember(out, ",\"version\":", message.version);
    appendOptionalStringMember(out, ",\"minimumVersion\":", message.minimumVersion);
    appendOptionalListMember(out, ",\"supportedConnectionTypes\":", message.supportedConnectionTypes);
    appendByte(out, '}');
}

void writeHandshakeResponse(const HandshakeResponse& message, DataBuffer& out) {
    appendResponseHead(out, message);
    appendOptionalStringMember(out, ",\"version\":", message.version);
    appendOptionalStringMember(out, ",\"minimumVersion\":", message.minimumVersion);
    appendOptionalListMember(out, ",\"supportedConnectionTypes\":", message.supportedConnectionTypes);
    appendOptionalAdviceMember(out, message.advice);
    appendByte(out, '}');
}

// ConnectRequest and ConnectStreamRequest write the same members.
void writeConnectRequest(const BayeuxBase& message, const std::string& connectionType,
                         const std::shared_ptr<BayeuxAdvice>& advice, DataBuffer& out) {
    appendRequestHead(out, message);
    appendOptionalStringMember(out, ",\"connectionType\":", connectionType);
    appendOptionalAdviceMember(out, advice);
    appendByte(out, '}');
}

// ConnectResponse and ConnectStreamResponse write the same members.
void writeConnectResponse(const BayeuxResponse& message, const std::shared_ptr<BayeuxAdvice>& advice,
                          DataBuffer& out) {
    appendResponseHead(out, message);
    appendOptionalAdviceMember(out, advice);
    appendByte(out, '}');
}

void writeSubscriptionRequest(const BayeuxBase& message, const std::string& subscription, DataBuffer& out) {
    appendRequestHead(out, message);
    appendStringMember(out, ",\"subscription\":", subscription);
    appendByte(out, '}');
}

void writeSubscriptionResponse(const BayeuxResponse& message, const std::string& subscription,
                               const std::shared_ptr<BayeuxAdvice>& advice, DataBuffer& out) {
    appendResponseHead(out, message);
    appendStringMember(out, ",\"subscription\":", subscription);
    appendOptionalAdviceMember(out, advice);
    appendByte(out, '}');
}

// DisconnectResponse and PublishResponse: the head alone.
void writeBareResponse(const BayeuxResponse& message, DataBuffer& out) {
    appendResponseHead(out, message);
    appendByte(out, '}');
}

template <class Exact>
const Exact* exactly(const Message* message, const std::type_info& type) {
    return type == typeid(Exact) ? static_cast<const Exact*>(message) : nullptr;
}

// A publish with `clientId` in place of its own, its `data` bytes unchanged; reserved once.
void writePublish(const PublishRequest& request, const std::string& clientId, DataBuffer& out) {
    const bool hasData = request.data && !request.data->empty();
    out.reserve(out.size + request.channel.size() + clientId.size() + 22 + (hasData ? request.data->size + 8 : 0));
    appendRequestHead(out, request, clientId);
    if (hasData) {
        appendLiteral(out, ",\"data\":");
        appendBytes(out, request.data->chars(), request.data->size);
    }
    appendByte(out, '}');
}

// A receiver's copy that still says what its original says writes the original's shared text.
const PublishRequest* unchangedOriginal(const PublishRequest& request) {
    const PublishRequest* original = request.original.get();
    if (original == nullptr || !request.clientId.empty() || request.data != original->data ||
        request.channel != original->channel || request.id != original->id) {
        return nullptr;
    }
    return original;
}

// Runs `build` once, under `once`; `ready`, set behind it, spares later callers the once_flag's own cost.
template <class Build>
void buildOnce(std::once_flag& once, std::atomic<bool>& ready, Build build) {
    if (!ready.load(std::memory_order_acquire)) {
        std::call_once(once, [&] {
            build();
            ready.store(true, std::memory_order_release);
        });
    }
}

}  // namespace

const DataBuffer& PublishRequest::deliveredText() const {
    buildOnce(deliveredOnce, deliveredReady, [this] { writePublish(*this, std::string(), delivered); });
    return delivered;
}

const std::shared_ptr<const DataBuffer>& PublishRequest::deliveredFrame() const {
    buildOnce(framedOnce, framedReady, [this] {
        const DataBuffer& text = deliveredText();
        auto frame = std::make_shared<DataBuffer>();
        frame->reserve(text.size + 2);
        frame->push_back('[');
        frame->append(text);
        frame->push_back(']');
        framed = std::move(frame);
    });
    return framed;
}

void serializeConnectReply(const std::string& messageId, const std::string& clientId, DataBuffer& out) {
    appendLiteral(out, "{\"channel\":\"/meta/connect\"");
    appendIds(out, messageId, clientId);
    appendLiteral(out, ",\"successful\":true}");
}

void serializePublishRequest(PublishRequest* request, DataBuffer& out) {
    if (const PublishRequest* original = unchangedOriginal(*request)) {
        const DataBuffer& text = original->deliveredText();
        appendBytes(out, text.chars(), text.size);
        return;
    }
    writePublish(*request, request->clientId, out);
}

void serializeBayeuxMessage(std::unique_ptr<Message>&& message, DataBuffer& out) {
    Message* raw = message.get();
    // A null message throws std::bad_typeid here.
    const std::type_info& type = typeid(*raw);
    // The classes of a connect cycle come first: a type that does not match costs a
    // comparison of names.
    if (type == typeid(PublishRequest)) {
        serializePublishRequest(static_cast<PublishRequest*>(raw), out);
    } else if (auto* connected = exactly<ConnectResponse>(raw, type)) {
        writeConnectResponse(*connected, connected->advice, out);
    } else if (auto* publishResponse = exactly<PublishResponse>(raw, type)) {
        writeBareResponse(*publishResponse, out);
    } else if (auto* subscribe = exactly<SubscribeRequest>(raw, type)) {
        writeSubscriptionRequest(*subscribe, subscribe->subscription, out);
    } else if (auto* subscribed = exactly<SubscribeResponse>(raw, type)) {
        writeSubscriptionResponse(*subscribed, subscribed->subscription, subscribed->advice, out);
    } else if (auto* unsubscribe = exactly<UnsubscribeRequest>(raw, type)) {
        writeSubscriptionRequest(*unsubscribe, unsubscribe->subscription, out);
    } else if (auto* unsubscribed = exactly<UnsubscribeResponse>(raw, type)) {
        writeSubscriptionResponse(*unsubscribed, unsubscribed->subscription, unsubscribed->advice, out);
    } else if (auto* connect = exactly<ConnectRequest>(raw, type)) {
        writeConnectRequest(*connect, connect->connectionType, connect->advice, out);
    } else if (auto* connectStream = exactly<ConnectStreamRequest>(raw, type)) {
        writeConnectRequest(*connectStream, connectStream->connectionType, connectStream->advice, out);
    } else if (auto* streamResponse = exactly<ConnectStreamResponse>(raw, type)) {
        writeConnectResponse(*streamResponse, streamResponse->advice, out);
    } else if (auto* handshake = exactly<HandshakeRequest>(raw, type)) {
        writeHandshakeRequest(*handshake, out);
    } else if (auto* handshaken = exactly<HandshakeResponse>(raw, type)) {
        writeHandshakeResponse(*handshaken, out);
    } else if (auto* disconnect = exactly<DisconnectRequest>(raw, type)) {
        appendRequestHead(out, *disconnect);
        appendByte(out, '}');
    } else if (auto* disconnected = exactly<DisconnectResponse>(raw, type)) {
        writeBareResponse(*disconnected, out);
    } else {
        throw std::invalid_argument("Unknown bayeux type: " + common::mangledTypeName(type));
    }
}

}  // namespace korvane::bayeux

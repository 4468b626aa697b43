#include "korvane/codec/utf8.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "korvane/codec/deserialize.h"
#include "korvane/codec/messages.h"

namespace korvane::bayeux {

namespace {

constexpr std::uint64_t highBits = 0x8080808080808080ULL;

bool isContinuation(unsigned char byte) { return (byte & 0xC0) == 0x80; }

// Whether the `words` eight-byte words at `bytes` are all ASCII: one test for all of them.
template <std::size_t words>
bool isAsciiRun(const char* bytes) {
    std::uint64_t any = 0;
    for (std::size_t k = 0; k < words; ++k) {
        std::uint64_t word;
        std::memcpy(&word, bytes + k * sizeof word, sizeof word);
        any |= word;
    }
    return (any & highBits) == 0;
}

}  // namespace

// The second byte's range carries the rules against overlongs, surrogates and code
// points above U+10FFFF, as in Unicode's table of well-formed byte sequences.
std::size_t utf8SequenceLength(const char* bytes, std::size_t left) {
    const auto* at = reinterpret_cast<const unsigned char*>(bytes);
    const unsigned char lead = at[0];
    std::size_t length;
    unsigned char secondMin = 0x80;
    unsigned char secondMax = 0xBF;
    if (lead < 0x80) {
        return 1;
    } else if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        if (lead == 0xE0) {
            secondMin = 0xA0;  // below: an overlong form of U+0000 to U+07FF
        } else if (lead == 0xED) {
            secondMax = 0x9F;  // above: the surrogates
        }
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        if (lead == 0xF0) {
            secondMin = 0x90;  // below: an overlong form of U+0000 to U+FFFF
        } else if (lead == 0xF4) {
            secondMax = 0x8F;  // above: beyond U+10FFFF
        }
    } else {
        return 0;  // a stray continuation byte, an overlong two-byte lead, or 0xF5 and up
    }
    if (length > left || at[1] < secondMin || at[1] > secondMax) {
        return 0;
    }
    for (std::size_t k = 2; k < length; ++k) {
        if (!isContinuation(at[k])) {
            return 0;
        }
    }
    return length;
}

bool isValidUtf8(const char* bytes, std::size_t size) {
    std::size_t at = 0;
    while (at < size) {
        // Plain ASCII, the bulk of any Bayeux text, is skipped 32 bytes at a time, then eight.
        if (size - at >= 32 && isAsciiRun<4>(bytes + at)) {
            at += 32;
            continue;
        }
        if (size - at >= 8 && isAsciiRun<1>(bytes + at)) {
            at += 8;
            continue;
        }
        const std::size_t length = utf8SequenceLength(bytes + at, size - at);
        if (length == 0) {
            return false;
        }
        at += length;
    }
    return true;
}

namespace {

bool isUtf8(const std::string& text) { return isValidUtf8(text.data(), text.size()); }

bool allUtf8(const std::vector<std::string>& texts) {
    return std::all_of(texts.begin(), texts.end(), isUtf8);
}

bool isUtf8(const std::shared_ptr<BayeuxAdvice>& advice) {
    if (!advice) {
        return true;
    }
    if (!allUtf8(advice->hosts)) {
        return false;
    }
    for (const auto& [connectionType, perTransport] : advice->transportAdvice) {
        if (!isUtf8(connectionType) || !allUtf8(perTransport.hosts)) {
            return false;
        }
    }
    return true;
}

// The string fields that the reader decodes, of every request class it makes.
bool hasUtf8Fields(const Message& message) {
    if (auto* batch = dynamic_cast<const BayeuxContainer*>(&message)) {
        return std::all_of(batch->messages.begin(), batch->messages.end(),
                           [](const std::unique_ptr<Message>& one) { return one && hasUtf8Fields(*one); });
    }
    auto* base = dynamic_cast<const BayeuxBase*>(&message);
    if (base != nullptr && !(isUtf8(base->channel) && isUtf8(base->id) && isUtf8(base->clientId))) {
        return false;
    }
    if (auto* handshake = dynamic_cast<const HandshakeRequest*>(&message)) {
        return isUtf8(handshake->version) && isUtf8(handshake->minimumVersion) &&
               allUtf8(handshake->supportedConnectionTypes);
    }
    if (auto* connect = dynamic_cast<const ConnectStreamRequest*>(&message)) {
        return isUtf8(connect->connectionType) && isUtf8(connect->advice);
    }
    if (auto* subscribe = dynamic_cast<const SubscribeRequest*>(&message)) {
        return isUtf8(subscribe->subscription);
    }
    if (auto* unsubscribe = dynamic_cast<const UnsubscribeRequest*>(&message)) {
        return isUtf8(unsubscribe->subscription);
    }
    return true;
}

}  // namespace

std::unique_ptr<Message> deserializeUtf8Request(common::DataBuffer& buffer) {
    const std::string_view text = buffer.view();
    if (!isValidUtf8(text.data(), text.size())) {
        throw InvalidUtf8Error();
    }
    // Without an escape, every decoded string is a piece of the valid text cut at quotes, so
    // only a text with escapes can decode to a string that is not UTF-8 (a lone surrogate).
    const bool hasEscapes = text.find('\\') != std::string_view::npos;
    std::unique_ptr<Message> message = deserializeBayeuxMessage(buffer, true);
    if (hasEscapes && !hasUtf8Fields(*message)) {
        throw InvalidUtf8Error();
    }
    return message;
}

}  // namespace korvane::bayeux

#include "load/message_scanner.h"

#include <array>
#include <cstdint>
#include <cstring>

namespace korvane::load {
namespace {

constexpr std::size_t npos = std::string_view::npos;

// What each byte is to the scanner: one lookup a byte on the long runs it passes.
enum ByteClass : std::uint8_t {
    nestingByte = 1,  // a quote or bracket, which a nested value's end depends on
    scalarEnd = 2,    // ends a number or literal: a separator, a closing bracket, white space
    jsonSpace = 4,
};

constexpr std::array<std::uint8_t, 256> byteClasses = [] {
    std::array<std::uint8_t, 256> classes{};
    for (const unsigned char c : {'"', '{', '}', '[', ']'}) {
        classes[c] |= nestingByte;
    }
    for (const unsigned char c : {',', '}', ']', ' ', '\n', '\r', '\t'}) {
        classes[c] |= scalarEnd;
    }
    for (const unsigned char c : {' ', '\n', '\r', '\t'}) {
        classes[c] |= jsonSpace;
    }
    return classes;
}();

bool is(char c, ByteClass byteClass) { return (byteClasses[static_cast<unsigned char>(c)] & byteClass) != 0; }

// One past the closing quote of the string that opens at text[open], or npos. A
// quote closes the string unless an odd number of backslashes precede it.
std::size_t stringEnd(std::string_view text, std::size_t open) {
    for (std::size_t from = open + 1; from < text.size();) {
        const void* quote = std::memchr(text.data() + from, '"', text.size() - from);
        if (quote == nullptr) {
            break;
        }
        const std::size_t found = static_cast<std::size_t>(static_cast<const char*>(quote) - text.data());
        std::size_t backslashes = 0;
        while (found - backslashes > open + 1 && text[found - backslashes - 1] == '\\') {
            ++backslashes;
        }
        if (backslashes % 2 == 0) {
            return found + 1;
        }
        from = found + 1;
    }
    return npos;
}

// One past the object or array that opens at text[open], or npos.
std::size_t nestedEnd(std::string_view text, std::size_t open) {
    int depth = 0;
    for (std::size_t at = open; at < text.size(); ++at) {
        const char c = text[at];
        if (!is(c, nestingByte)) {
            continue;
        }
        if (c == '"') {
            const std::size_t end = stringEnd(text, at);
            if (end == npos) {
                return npos;
            }
            at = end - 1;
        } else if (c == '{' || c == '[') {
            ++depth;
        } else if (--depth == 0) {
            return at + 1;
        }
    }
    return npos;
}

// One past the value that starts at text[at], or npos.
std::size_t valueEnd(std::string_view text, std::size_t at) {
    const char c = text[at];
    if (c == '"') {
        return stringEnd(text, at);
    }
    if (c == '{' || c == '[') {
        return nestedEnd(text, at);
    }
    const std::size_t start = at;
    while (at < text.size() && !is(text[at], scalarEnd)) {
        ++at;
    }
    return at == start ? npos : at;
}

}  // namespace

std::size_t skipJsonSpaces(std::string_view text, std::size_t at) {
    while (at < text.size() && is(text[at], jsonSpace)) {
        ++at;
    }
    return at;
}

std::size_t MessageFields::scan(std::string_view text, std::size_t at) {
    fields.clear();
    at = skipJsonSpaces(text, at + 1);
    if (at < text.size() && text[at] == '}') {
        return at + 1;
    }
    for (;;) {
        if (at >= text.size() || text[at] != '"') {
            return npos;
        }
        const std::size_t nameEnd = stringEnd(text, at);
        if (nameEnd == npos) {
            return npos;
        }
        const std::string_view name = text.substr(at + 1, nameEnd - at - 2);
        at = skipJsonSpaces(text, nameEnd);
        if (at >= text.size() || text[at] != ':') {
            return npos;
        }
        at = skipJsonSpaces(text, at + 1);
        const std::size_t end = at < text.size() ? valueEnd(text, at) : npos;
        if (end == npos) {
            return npos;
        }
        fields.emplace_back(name, text.substr(at, end - at));
        at = skipJsonSpaces(text, end);
        if (at < text.size() && text[at] == '}') {
            return at + 1;
        }
        if (at >= text.size() || text[at] != ',') {
            return npos;
        }
        at = skipJsonSpaces(text, at + 1);
    }
}

std::optional<std::string_view> MessageFields::value(std::string_view name) const {
    for (const auto& [fieldName, fieldValue] : fields) {
        if (fieldName == name) {
            return fieldValue;
        }
    }
    return std::nullopt;
}

std::optional<std::string_view> MessageFields::string(std::string_view name) const {
    const auto text = value(name);
    if (!text || text->front() != '"') {
        return std::nullopt;
    }
    return text->substr(1, text->size() - 2);
}

std::optional<std::int64_t> MessageFields::number(std::string_view name) const {
    const auto text = value(name);
    if (!text) {
        return std::nullopt;
    }
    const bool negative = text->front() == '-';
    std::size_t at = negative ? 1 : 0;
    if (at == text->size()) {
        return std::nullopt;
    }
    std::int64_t number = 0;
    for (; at < text->size(); ++at) {
        const char digit = (*text)[at];
        if (digit < '0' || digit > '9') {
            return std::nullopt;
        }
        number = number * 10 + (digit - '0');
    }
    return negative ? -number : number;
}

std::optional<DeliveryStamp> deliveryStamp(const MessageFields& message, MessageFields& data) {
    const auto text = message.value("data");
    if (!text || text->front() != '{' || data.scan(*text, 0) == npos) {
        return std::nullopt;
    }
    const auto publisher = data.number("p");
    const auto sequence = data.number("s");
    const auto sent = data.number("t");
    if (!publisher || !sequence || !sent) {
        return std::nullopt;
    }
    return DeliveryStamp{*publisher, *sequence, *sent};
}

}  // namespace korvane::load

#include "load/message_scanner.h"

#include <cstring>

namespace korvane::load {
namespace {

std::size_t skipSpaces(std::string_view text, std::size_t at) {
    while (at < text.size() && (text[at] == ' ' || text[at] == '\t' || text[at] == '\n' || text[at] == '\r')) {
        ++at;
    }
    return at;
}

// Where the value of field `name` starts, or npos. Looks for the bare name, which
// memchr finds fast, and then for the quotes around it.
std::size_t valueStart(std::string_view object, std::string_view name) {
    std::size_t at = 0;
    while ((at = object.find(name, at)) != std::string_view::npos) {
        const std::size_t end = at + name.size();
        if (at != 0 && object[at - 1] == '"' && end < object.size() && object[end] == '"') {
            const std::size_t colon = skipSpaces(object, end + 1);
            if (colon < object.size() && object[colon] == ':') {
                return skipSpaces(object, colon + 1);
            }
        }
        at = end;
    }
    return std::string_view::npos;
}

// The end of the string that starts at `open` (a '"'), one past its closing quote, or
// npos. A quote closes the string unless an odd number of backslashes precede it.
std::size_t stringEnd(std::string_view text, std::size_t open) {
    for (std::size_t from = open + 1; from < text.size();) {
        const void* quote = std::memchr(text.data() + from, '"', text.size() - from);
        if (quote == nullptr) {
            break;
        }
        const std::size_t at = static_cast<std::size_t>(static_cast<const char*>(quote) - text.data());
        std::size_t backslashes = 0;
        while (at - backslashes > open + 1 && text[at - backslashes - 1] == '\\') {
            ++backslashes;
        }
        if (backslashes % 2 == 0) {
            return at + 1;
        }
        from = at + 1;
    }
    return std::string_view::npos;
}

}  // namespace

std::vector<std::string_view> splitObjects(std::string_view body) {
    std::vector<std::string_view> objects;
    int depth = 0;
    std::size_t start = 0;
    for (std::size_t i = 0; i < body.size(); ++i) {
        const char c = body[i];
        if (c == '"') {
            const std::size_t end = stringEnd(body, i);
            if (end == std::string_view::npos) {
                return {};
            }
            i = end - 1;
        } else if (c == '{') {
            if (depth++ == 0) {
                start = i;
            }
        } else if (c == '}') {
            if (--depth == 0) {
                objects.push_back(body.substr(start, i + 1 - start));
            } else if (depth < 0) {
                return {};
            }
        }
    }
    if (depth != 0) {
        return {};
    }
    return objects;
}

std::optional<std::string_view> stringField(std::string_view object, std::string_view name) {
    const std::size_t at = valueStart(object, name);
    if (at >= object.size() || object[at] != '"') {
        return std::nullopt;
    }
    const std::size_t end = stringEnd(object, at);
    if (end == std::string_view::npos) {
        return std::nullopt;
    }
    return object.substr(at + 1, end - at - 2);
}

std::optional<std::int64_t> numberField(std::string_view object, std::string_view name) {
    std::size_t at = valueStart(object, name);
    if (at >= object.size()) {
        return std::nullopt;
    }
    const bool negative = object[at] == '-';
    at += negative ? 1 : 0;
    if (at >= object.size() || object[at] < '0' || object[at] > '9') {
        return std::nullopt;
    }
    std::int64_t value = 0;
    for (; at < object.size() && object[at] >= '0' && object[at] <= '9'; ++at) {
        value = value * 10 + (object[at] - '0');
    }
    return negative ? -value : value;
}

bool hasField(std::string_view object, std::string_view name) {
    return valueStart(object, name) != std::string_view::npos;
}

bool isTrue(std::string_view object, std::string_view name) {
    const std::size_t at = valueStart(object, name);
    return at < object.size() && object.substr(at, 4) == "true";
}

std::optional<DeliveryStamp> deliveryStamp(std::string_view object) {
    const std::size_t at = valueStart(object, "data");
    if (at >= object.size() || object[at] != '{') {
        return std::nullopt;
    }
    const std::string_view data = object.substr(at);
    const auto publisher = numberField(data, "p");
    const auto sequence = numberField(data, "s");
    const auto sent = numberField(data, "t");
    if (!publisher || !sequence || !sent) {
        return std::nullopt;
    }
    return DeliveryStamp{*publisher, *sequence, *sent};
}

}  // namespace korvane::load

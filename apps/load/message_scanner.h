#pragma once

// A tiny scanner for the Bayeux messages the load tool receives, with no JSON
// library: one pass over each top-level object of a reply body notes where each of
// its fields' values lies, and the tool reads the few fields it acts on from there.
// It relies on field names being unique within an object as the server writes them.
//
// Threading: none; a MessageFields belongs to its caller.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

namespace korvane::load {

// The top-level fields of one object: each name with the JSON text of its value.
class MessageFields {
public:
    // Reads the object that starts at text[at] (a '{'); returns one past its '}', or
    // npos when it is not a whole object, after which the fields are not to be read.
    // The fields view `text`.
    std::size_t scan(std::string_view text, std::size_t at);

    // The raw value of field `name`.
    std::optional<std::string_view> value(std::string_view name) const;
    // The text of string field `name`, unescaped text as is.
    std::optional<std::string_view> string(std::string_view name) const;
    // The value of integer field `name`.
    std::optional<std::int64_t> number(std::string_view name) const;
    bool has(std::string_view name) const { return value(name).has_value(); }
    // True when field `name` is the literal true.
    bool isTrue(std::string_view name) const { return value(name) == std::string_view("true"); }

private:
    std::vector<std::pair<std::string_view, std::string_view>> fields;  // kept between scans for its storage
};

// The first index from `at` on that is not JSON white space.
std::size_t skipJsonSpaces(std::string_view text, std::size_t at);

// Calls onObject(fields) for each top-level object of `body` (an array of objects or
// one object), scanned into `fields`. False when the body is not made of whole
// objects; the objects before the fault were handed on.
template <class OnObject>
bool forEachObject(std::string_view body, MessageFields& fields, OnObject&& onObject) {
    std::size_t at = skipJsonSpaces(body, 0);
    const bool array = at < body.size() && body[at] == '[';
    if (array) {
        at = skipJsonSpaces(body, at + 1);
    }
    for (;;) {
        if (at >= body.size() || body[at] != '{') {
            return false;
        }
        const std::size_t end = fields.scan(body, at);
        if (end == std::string_view::npos) {
            return false;
        }
        onObject(static_cast<const MessageFields&>(fields));
        at = skipJsonSpaces(body, end);
        if (!array) {
            return at == body.size();
        }
        if (at < body.size() && body[at] == ']') {
            return skipJsonSpaces(body, at + 1) == body.size();
        }
        if (at >= body.size() || body[at] != ',') {
            return false;
        }
        at = skipJsonSpaces(body, at + 1);
    }
}

// What a delivery's data carries: publisher, sequence number, send time in µs.
struct DeliveryStamp {
    std::int64_t publisher = 0;
    std::int64_t sequence = 0;
    std::int64_t sentMicros = 0;
};

// The stamp of a delivered message: the "p", "s" and "t" of its "data" object, which
// is scanned into `data`.
std::optional<DeliveryStamp> deliveryStamp(const MessageFields& message, MessageFields& data);

}  // namespace korvane::load

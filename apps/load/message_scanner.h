#pragma once

// A tiny scanner for the Bayeux messages the load tool receives, with no JSON
// library: it splits a reply body into its top-level objects and reads the few
// fields the tool acts on. It relies on field names being unique within an object
// as the server writes them, and on the tool's own padding holding only 'x'.
//
// Threading: none; pure functions.

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace korvane::load {

// The top-level objects of `body` (an array of objects or one object), each as the
// text from its '{' to its '}'. Braces inside strings are skipped. Empty when the
// body is not made of whole objects.
std::vector<std::string_view> splitObjects(std::string_view body);

// The text of string field `name` in `object`, first occurrence, unescaped text as is.
std::optional<std::string_view> stringField(std::string_view object, std::string_view name);
// The value of number field `name`, first occurrence.
std::optional<std::int64_t> numberField(std::string_view object, std::string_view name);
// True when the object has a field `name`.
bool hasField(std::string_view object, std::string_view name);
// True when field `name` is the literal true.
bool isTrue(std::string_view object, std::string_view name);

// What a delivery's data carries: publisher, sequence number, send time in µs.
struct DeliveryStamp {
    std::int64_t publisher = 0;
    std::int64_t sequence = 0;
    std::int64_t sentMicros = 0;
};

// The stamp of a delivered message: the "p", "s" and "t" of its "data" object.
std::optional<DeliveryStamp> deliveryStamp(std::string_view object);

}  // namespace korvane::load

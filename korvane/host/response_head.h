#pragma once

// The head of an HTTP response as text, byte for byte what Beast's serializer writes:
// "HTTP/X.Y ### <reason>", each field as it is stored ("Name: value"), each line ended by
// CRLF, then the empty line. Written by hand because the serializer's walk over its buffer
// sequence cost more than the rest of a held connect's answer. Internal to the host's
// server; a pure function, callable from any thread.

#include <string>

#include <boost/beast/http/message.hpp>

namespace korvane::host {

template <class Body, class Fields>
std::string serializedHead(const boost::beast::http::response<Body, Fields>& head) {
    const unsigned version = head.version();
    const unsigned code = head.result_int();
    const char statusLine[] = {'H', 'T', 'T', 'P', '/', static_cast<char>('0' + version / 10), '.',
                               static_cast<char>('0' + version % 10), ' ', static_cast<char>('0' + code / 100),
                               static_cast<char>('0' + code / 10 % 10), static_cast<char>('0' + code % 10), ' '};
    std::string text;
    text.reserve(256);
    text.append(statusLine, sizeof statusLine);
    text += head.reason();
    text += "\r\n";
    for (const auto& field : head) {
        text += field.name_string();
        text += ": ";
        text += field.value();
        text += "\r\n";
    }
    text += "\r\n";
    return text;
}

}  // namespace korvane::host

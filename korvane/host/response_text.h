#pragma once

// A streamed HTTP response as text, byte for byte what Beast writes: the head, the chunks
// of a chunked body and its last chunk. Written by hand because Beast's serializer walk and
// its chunk header (a shared allocation per chunk) cost more than the rest of a held
// connect's answer. Internal to the host's server; pure functions, callable from any thread.

#include <iterator>
#include <string>
#include <string_view>

#include <boost/beast/http/message.hpp>

namespace korvane::host {

// Appends "HTTP/X.Y ### <reason>", each field as it is stored ("Name: value"), each line
// ended by CRLF, then the empty line.
template <class Body, class Fields>
void appendSerializedHead(const boost::beast::http::response<Body, Fields>& head, std::string& text) {
    const unsigned version = head.version();
    const unsigned code = head.result_int();
    const char statusLine[] = {'H', 'T', 'T', 'P', '/', static_cast<char>('0' + version / 10), '.',
                               static_cast<char>('0' + version % 10), ' ', static_cast<char>('0' + code / 100),
                               static_cast<char>('0' + code / 10 % 10), static_cast<char>('0' + code % 10), ' '};
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
}

// One chunk of a chunked body: its size in lowercase hex, CRLF, the data, CRLF. `data` is
// not empty (an empty chunk would end the body).
inline void appendChunk(std::string_view data, std::string& out) {
    char hex[2 * sizeof(std::size_t)];
    char* first = std::end(hex);
    for (std::size_t n = data.size(); n != 0; n >>= 4) {
        *--first = "0123456789abcdef"[n & 0xf];
    }
    out.append(first, std::end(hex));
    out += "\r\n";
    out.append(data);
    out += "\r\n";
}

// The chunk that ends a chunked body, with no trailer.
constexpr std::string_view lastChunk = "0\r\n\r\n";

}  // namespace korvane::host

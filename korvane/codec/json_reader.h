#pragma once

// The scanner under the Bayeux wire codec. It never builds a tree: each routine
// reads or passes one piece of JSON at a shared cursor and leaves everything it
// does not want in place. The routines keep no state of their own; a cursor and
// a buffer belong to one parse on one thread. Every failure of form throws
// std::invalid_argument with a fixed text and the parse ends there.
//
// The reader is deliberately not a strict JSON validator: a collection cut off
// right after a complete element is accepted, a literal or a leading zero that
// ends the buffer is refused, escapes are looked at only when a string is decoded.

#include <cstdint>
#include <string>
#include <vector>

#include "korvane/frame/data_buffer.h"
#include "korvane/export.h"

namespace korvane::bayeux::json {

// TAB, LF, CR and SPACE; nothing else counts as whitespace.
inline bool isWhitespace(std::uint8_t byte) {
    return byte <= 32 && ((0x100002600ULL >> byte) & 1) != 0;
}

inline void skipWhitespace(std::uint64_t& cursor, const common::DataBuffer& buffer) {
    while (cursor < buffer.size && isWhitespace(buffer.data[cursor])) {
        ++cursor;
    }
}

// The next non-whitespace byte, not consumed; 0 at the end of the buffer (and on a NUL byte).
inline char peekChar(std::uint64_t& cursor, const common::DataBuffer& buffer) {
    skipWhitespace(cursor, buffer);
    return cursor < buffer.size ? static_cast<char>(buffer.data[cursor]) : '\0';
}

// The next non-whitespace byte, consumed. Throws "Invalid JSON, unexpected end" at the end.
KORVANE_EXPORT char nextChar(std::uint64_t& cursor, const common::DataBuffer& buffer);

// Skips whitespace and consumes `expected`; anything else throws "Invalid JSON, expected '<c>'".
KORVANE_EXPORT void expectChar(std::uint64_t& cursor, const common::DataBuffer& buffer, char expected);

// Consumes the zero-terminated `literal`. A literal whose last byte ends the buffer is refused.
KORVANE_EXPORT void expectLiteral(std::uint64_t& cursor, const common::DataBuffer& buffer, const char* literal);

// Passes one string without decoding it; a backslash hides the byte behind it.
KORVANE_EXPORT void skipString(std::uint64_t& cursor, const common::DataBuffer& buffer);

// Passes one number, testing its form.
KORVANE_EXPORT void skipNumber(std::uint64_t& cursor, const common::DataBuffer& buffer);

// Passes any one value. Nesting depth is unlimited and costs no native stack.
KORVANE_EXPORT void skipValue(std::uint64_t& cursor, const common::DataBuffer& buffer);

// A decoded string; `null` reads as the empty string.
KORVANE_EXPORT std::string readStringOrNull(std::uint64_t& cursor, const common::DataBuffer& buffer);

// A signed 32-bit integer; digits and exponent wrap silently in 32 bits.
KORVANE_EXPORT std::int32_t readInteger(std::uint64_t& cursor, const common::DataBuffer& buffer);

KORVANE_EXPORT bool readBoolean(std::uint64_t& cursor, const common::DataBuffer& buffer);

// Appends the strings of a list framed by `open` and `close` to `out`; `null` elements become "".
KORVANE_EXPORT void readStringList(std::uint64_t& cursor, const common::DataBuffer& buffer, char open, char close,
                    std::vector<std::string>& out);

// Decodes the escapes of the string body data[start .. end).
KORVANE_EXPORT std::string decodeStringSpan(const common::DataBuffer& buffer, std::uint64_t start, std::uint64_t end);

}  // namespace korvane::bayeux::json

#pragma once

// Validation of raw UTF-8 bytes, for the transports to refuse bodies and frames that
// are not text before anything parses them. Stateless: safe from any thread.

#include <cstddef>

namespace korvane::bayeux {

// True if the bytes are well-formed UTF-8: every sequence in its shortest form, no
// surrogate code points (U+D800 to U+DFFF), nothing above U+10FFFF, none cut off at
// the end. Escapes such as "\ud800" inside JSON strings are plain ASCII here.
bool isValidUtf8(const char* bytes, std::size_t size);

}  // namespace korvane::bayeux
